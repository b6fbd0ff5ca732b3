/*
 * Dynamic strings and lists of the configuration bus library. Values on the
 * bus are text; these helpers read them as strings, booleans and numbers.
 */
#ifndef ZIBD_PLATFORM_DYNSTR_H
#define ZIBD_PLATFORM_DYNSTR_H

#ifdef __cplusplus
extern "C" {
#endif

typedef struct dynstr dynstr_t;
typedef struct llist llist_t;

/* The string's text; NULL for a NULL string. Owned by the string. */
const char *dynstr_getstring(const dynstr_t *str);

/* "1", "true", "yes", "on" are true and "0", "false", "no", "off" false, in
 * any case. Returns 0 and stores 0 or 1 in *value; non-zero for anything else
 * (then *value is untouched). */
int dynstr_getbool(const dynstr_t *str, int *value);

/* Decimal numbers only; 0 on success, non-zero (value untouched) otherwise. */
int dynstr_getlong(const dynstr_t *str, long *value);
int dynstr_getulong(const dynstr_t *str, unsigned long *value);

/* A malloc'ed copy of the text (the caller frees it); NULL for NULL. */
char *dynstr_strdup(const dynstr_t *str);

/* strcmp of the text against s; a NULL string compares below every s. */
int dynstr_strcmp2(const dynstr_t *str, const char *s);

/* A new string from text, allocated in the given pool (rill_dynstr_poolid()).
 * Ownership passes to whoever the string is handed to (see rill.h), or
 * dynstr_free. */
dynstr_t *dynstr_fromstring(int pool, const char *text);
void dynstr_free(dynstr_t *str);

/* Number of elements of a list; 0 for NULL. */
int llist_getlength(const llist_t *list);

#ifdef __cplusplus
}
#endif

#endif
