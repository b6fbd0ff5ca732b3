/*
 * Tag file system: per-file text tags (name/value pairs) keyed by absolute
 * path, and views (directories of symbolic links to the files whose tags
 * satisfy a condition).
 *
 * Results: 0 is success and any other value failure, except
 * kord_view_get_path, which returns non-zero on success.
 *
 * Where the database lives is the gateway's configuration: the library reads
 * it from "/tmp/.kord/kord.ini" and looks again after "/var/kord/meta/.update"
 * has been opened. A handle opened while no database is configured starts
 * working once one is.
 */
#ifndef ZIBD_PLATFORM_KORD_H
#define ZIBD_PLATFORM_KORD_H

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A bulk handle batches tag changes until kord_bulk_commit. One thread uses a
 * handle at a time; several handles may be open in one process. */
typedef struct kord_bulk kord_bulk_t;

/* Opens a handle; NULL when the library cannot be used at all. */
kord_bulk_t *kord_bulk_init(void);

/* Selects the file that the following calls act on. Any existing path below
 * the database's root may be selected; it becomes known to the database once a
 * tag is set on it. */
int kord_bulk_setpath(kord_bulk_t *handle, const char *path);

/* Copies the selected file's tag into value (NUL-terminated, truncated to
 * size - 1 bytes). Fails when the file does not have the tag. */
int kord_bulk_gettag(kord_bulk_t *handle, const char *name, char *value, size_t size);

int kord_bulk_settag(kord_bulk_t *handle, const char *name, const char *value);

/* Sets the tag on the selected path and on every known path below it. */
int kord_bulk_settag_recursive(kord_bulk_t *handle, const char *name, const char *value);

int kord_bulk_deltag(kord_bulk_t *handle, const char *name);

/* Makes the handle's changes durable against a crash of the process. */
int kord_bulk_commit(kord_bulk_t *handle);

/* Discards uncommitted changes and frees the handle. NULL is allowed. */
void kord_bulk_fini(kord_bulk_t *handle);

/* Renames a path and everything known below it. */
int kord_move(const char *old_path, const char *new_path);

/* Forgets a path and everything known below it. */
int kord_delete(const char *path);

/* Decides, for one known file, whether the cleanup drops it: 1 drop, 0 keep. */
typedef int (*kord_check_fn)(const char *path);

/* Calls check for every known file below path and drops those it returns 1
 * for. Polls *stop between files (with an atomic load: other threads set it
 * with an atomic store) and returns early when it is non-zero. Returns 0 when
 * it went through every file. */
int kord_cleanup_attached(const char *path, int *stop, kord_check_fn check);

/* Views. The condition language: terms "@TAG@ exists" and "@TAG@='VALUE'"
 * joined by " and ". */
int kord_view_create(const char *name);
int kord_view_set_cond(const char *name, const char *condition);

/* Writes the view's directory into path (at most size bytes with the NUL).
 * The directory holds one symbolic link per matching file, pointing at the
 * file's absolute path, and follows the tags as they are committed. Returns
 * non-zero on success, 0 on failure. */
int kord_view_get_path(const char *name, char *path, size_t size);

int kord_view_delete(const char *name);

#ifdef __cplusplus
}
#endif

#endif
