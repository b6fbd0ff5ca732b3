/*
 * Event producer: tells the media server what changed below a root path.
 */
#ifndef ZIBD_PLATFORM_TOCK_H
#define ZIBD_PLATFORM_TOCK_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tock tock_t;

/* Opens a producer named name for events below root. The three integers are
 * producer options; 0 takes the defaults. NULL on failure. */
tock_t *tock_init(const char *name, const char *root, int flags, int queue_size, int reserved);

/* Sends one event: a path relative to the root ("" for the root itself, else
 * beginning with "/") and an event code. 0 on success. */
int tock_event(tock_t *producer, const char *relative_path, int code);

/* Closes the producer; NULL is allowed. */
void tock_fini(tock_t *producer);

#ifdef __cplusplus
}
#endif

#endif
