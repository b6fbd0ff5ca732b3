/*
 * Configuration bus client library.
 *
 * The bus holds objects with dotted paths and numbered instances
 * ("Storage.Disk.1", "Storage.Disk.1.Partition.2", "VFS.MetaDataService"),
 * each with named text parameters. An object class is named without instance
 * numbers ("Storage.Disk.Partition"); in a read "*" stands for one object name
 * with its instance number ("Storage.*.Partition").
 *
 * A client connection is used by one thread at a time. Results: 0 is success,
 * anything else failure, unless said otherwise. No call blocks forever when
 * the bus goes away: requests then fail.
 *
 * On a development host the bus is the broker rilld, reached at the Unix
 * socket named by $RILL_SOCKET (default "/run/rill.sock"); see docs/rill.md.
 */
#ifndef ZIBD_PLATFORM_RILL_H
#define ZIBD_PLATFORM_RILL_H

#include <stdint.h>

#include "platform/dynstr.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct rill_conn rill_conn_t;
typedef struct rill_cmddata rill_cmddata_t;
typedef struct rill_reply rill_reply_t;
typedef struct rill_notification rill_notification_t;

/* A command: one or more requests sent together. Callers keep it on the stack,
 * zero it before the first request and release it with rill_ccmd_cleanup. */
typedef struct rill_ccmd {
  void *impl; /* library state, allocated by the first request */
} rill_ccmd_t;

/* Reply kind of a get-values answer: one item per parameter. */
#define RILL_REPLY_VALUES 6

/* Notification event types. */
#define RILL_EVENT_VALUE_CHANGED 3
#define RILL_EVENT_OBJECT_ADDED 6
#define RILL_EVENT_OBJECT_REMOVED 8

/* Subscription event masks. */
#define RILL_SUBSCRIBE_OBJECTS 96 /* instance additions and removals */
#define RILL_SUBSCRIBE_VALUE 128  /* value changes of one parameter */
#define RILL_SUBSCRIBE_OBJECTS_AND_VALUES 224

/* Called once per answer of a read. reply is NULL when the bus answered with
 * an error (no such object...); the callback's non-zero result then becomes
 * the result of the invoke. The reply lives only during the call. */
typedef int (*rill_reply_fn)(rill_reply_t *reply, void *context);

/* Called once per notification, on the thread that runs rill_msg_parse. The
 * notification lives only during the call; the result is ignored. */
typedef int (*rill_notify_fn)(rill_notification_t *notification, void *context);

/* Library tuning; called once per process before any connection. */
int cs_rill_init(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j, int k);

/* Connects to the bus as the named client; NULL on failure. */
rill_conn_t *rill_ctx_create_client_connection(const char *client_name, int flags);

/* Adds a read of every parameter of the instances of an object class, or of
 * one instance. Reading a class yields its instances, not objects below them:
 * "Storage.Disk" yields disks, not partitions. */
int rill_ccmd_add_getvalues_request(rill_conn_t *conn, rill_ccmd_t *cmd, const char *path,
                                    int a, int b, int c, int d);

/* Adds a write of one parameter. Takes ownership of value in every case. */
int rill_ccmd_add_setvalues_request(rill_conn_t *conn, rill_ccmd_t *cmd, const char *object,
                                    const char *parameter, dynstr_t *value, int flags);

/* Adds a subscription on an object class: parameter NULL with
 * RILL_SUBSCRIBE_OBJECTS, a parameter name with RILL_SUBSCRIBE_VALUE, or
 * RILL_SUBSCRIBE_OBJECTS_AND_VALUES for both (parameter NULL). */
int rill_ccmd_add_subscribe_request(rill_conn_t *conn, rill_ccmd_t *cmd, const char *path,
                                    const char *parameter, int flags, unsigned mask);

/* Runs a command's reads and writes; calls reply_fn (if not NULL) once per
 * answer to a read. Result: 0, or the first failure: the callback's result
 * for a refused read, the bus's error code for a refused read without
 * callback or a refused write (unknown object), non-zero for a lost
 * connection. */
int rill_invoke_ccmd(rill_conn_t *conn, rill_ccmd_t *cmd, rill_reply_fn reply_fn, void *context);

/* Sends a command of subscriptions and registers notify_fn for the
 * notifications they produce. The answers (rill_ccmd_get_answers) then hold one
 * item per subscription, in request order: path, parameter name (NULL for an
 * object subscription), value = the subscription identifier, and an error
 * word. Returns 0 once every subscription was answered, whatever the answer
 * (a refused one has a non-zero error word and no value); non-zero when the
 * connection failed. */
int rill_invoke_ccmd_subscribe(rill_conn_t *conn, rill_ccmd_t *cmd, int flags,
                               rill_notify_fn notify_fn, void *context);

/* The answer items of the last invoke of cmd; NULL before. Owned by cmd. */
llist_t *rill_ccmd_get_answers(rill_ccmd_t *cmd);

/* Frees what the command holds and zeroes it; a zeroed command is fine. */
void rill_ccmd_cleanup(rill_ccmd_t *cmd);

/* The descriptor that becomes readable when notifications wait; -1 on
 * failure. Owned by the connection. */
int rill_getnotifylistensocket(rill_conn_t *conn);

/* Reads what waits on the notification socket and dispatches every whole
 * notification to the registered callback. Non-zero when the connection to the
 * bus is lost. */
int rill_msg_parse(int socket, rill_conn_t *conn);

/* Connection teardown, in this order: drop the registration of the
 * notification callback, close the connection, free it. */
int rill_invoke_unregister(rill_conn_t *conn);
void rill_ctx_reset(rill_conn_t *conn);
void rill_ctx_free(rill_conn_t *conn);

/* The bus-wide client write lock serialises writers. timeout_s is how long to
 * wait for it (0: do not wait); flags -1 takes the library default. 0 once
 * held; non-zero at the time-out or when the connection failed. Held until
 * freed or until the connection closes. */
int rill_invoke_get_client_writelock(rill_conn_t *conn, int timeout_s, int flags);
int rill_invoke_free_client_writelock(rill_conn_t *conn);

/* The pool to pass to dynstr_fromstring for values handed to this library. */
int rill_dynstr_poolid(void);

/* Items of answers, replies and notifications. The returned strings are owned
 * by the item; a missing field is NULL. */
rill_cmddata_t *rill_cmddata_getat(const llist_t *items, int index);
dynstr_t *rill_cmddata_path_get(const rill_cmddata_t *item);
dynstr_t *rill_cmddata_name_get(const rill_cmddata_t *item);
dynstr_t *rill_cmddata_value_get(const rill_cmddata_t *item);
int rill_cmddata_error_get(const rill_cmddata_t *item);

int rill_reply_get_kind(const rill_reply_t *reply);
llist_t *rill_reply_get_items(const rill_reply_t *reply);

int rill_notification_get_type(const rill_notification_t *notification);
uint32_t rill_notification_get_subid(const rill_notification_t *notification);
llist_t *rill_notification_get_items(const rill_notification_t *notification);

#ifdef __cplusplus
}
#endif

#endif
