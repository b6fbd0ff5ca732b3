/*
 * Process helpers of the gateway.
 */
#ifndef ZIBD_PLATFORM_PROC_LIB_H
#define ZIBD_PLATFORM_PROC_LIB_H

#ifdef __cplusplus
extern "C" {
#endif

/* The last component of path: a pointer into path itself. */
const char *proc_lib_remove_path(const char *path);

/* Detaches the process from its terminal and makes it a daemon named name.
 * Returns 0 in the daemon; the original process does not return. Non-zero on
 * failure (the process is then unchanged as far as possible). */
int proc_lib_daemonize(const char *name);

#ifdef __cplusplus
}
#endif

#endif
