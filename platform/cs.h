/*
 * Configuration-service helpers on top of the bus client library (rill.h).
 */
#ifndef ZIBD_PLATFORM_CS_H
#define ZIBD_PLATFORM_CS_H

#include <stdint.h>

#include "platform/rill.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Reads every parameter of one object instance and calls reply_fn with the
 * answer (a RILL_REPLY_VALUES reply with one item per parameter: object path,
 * parameter name, value, error word 0), or with NULL when the bus answered
 * with an error. *error is set to 0 when the object was read, non-zero
 * otherwise. Returns 0 when the exchange with the bus succeeded. */
int cs_find_parameters_of_obj_instances(rill_conn_t *conn, const char *object_path, int a,
                                        int b, rill_reply_fn reply_fn, void *context,
                                        int *error);

/* Take and drop one reference on a disk object ("Storage.Disk.N"). */
int cs_incrementDiskRefcount(rill_conn_t *conn, const char *disk_path);
int cs_decrementDiskRefcount(rill_conn_t *conn, const char *disk_path);

/* Ends the subscriptions with the given identifiers; *result is 0 when every
 * one was ended. */
int cs_unsubscribe_events(rill_conn_t *conn, const uint32_t *ids, int count, int *result);

#ifdef __cplusplus
}
#endif

#endif
