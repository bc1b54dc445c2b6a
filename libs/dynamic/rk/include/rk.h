/*
 * rk.h: the TEZA client library's C interface.
 *
 * Conventions, once for the whole header:
 *  - rk_elem_t and rk_server_t are opaque. Every pointer the library returns is owned by the
 *    caller unless its comment says otherwise; elements are freed with rk_elem_free, server
 *    handles with rk_server_close, texts returned as `char*` with rk_free (rk_elem_sprintf's
 *    text may also be given to free()).
 *  - An int result is non-zero on success and zero on failure, unless its comment says what
 *    the number means.
 *  - Every lookup tolerates a null element: it returns null, zero or the default it was given.
 *  - No C++ exception crosses this interface.
 *  - Element trees are not locked: one thread uses one tree at a time. Server handles are
 *    likewise used by one thread at a time. Everything else may be called from any thread.
 *
 * Text values: text added through this interface is plain text and is escaped when a tree is
 * written out. Text read from the wire (rk_elem_parse) keeps its entity references exactly as
 * they stood ("&lt;" stays "&lt;"); decoding them is the caller's affair.
 */
#ifndef RK_H_
#define RK_H_

#include <stddef.h>

#if defined(__GNUC__)
#define RK_API __attribute__((visibility("default")))
#else
#define RK_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct rk_elem rk_elem_t;
typedef struct rk_server rk_server_t;
typedef struct rk_iterator {
    rk_elem_t* parent;
    size_t index;
} rk_iterator_t;

/* ---- Start-up ------------------------------------------------------------------------- */

/* Starts the library. Non-zero when started; otherwise a NUL-terminated reason is left in
 * errbuf (when errbuf is not null and errbuflen > 0). Starting twice is harmless. */
RK_API int rk_startup(char* errbuf, int errbuflen);
RK_API void rk_shutdown(void);
/* Non-zero while the library is started. */
RK_API int rk_is_started(void);

/* ---- Server handles ------------------------------------------------------------------- */

/* A new handle for a server; the connection itself is made by the first call. Never null for
 * a non-null host. The caller owns the handle and closes it with rk_server_close. */
RK_API rk_server_t* rk_server_open(const char* host, int major, int minor);
RK_API int rk_server_close(rk_server_t* server);
RK_API int rk_server_set_style(rk_server_t* server, int style);
RK_API int rk_server_set_server_type(rk_server_t* server, int type);
RK_API int rk_server_set_transport_type(rk_server_t* server, int transport, const void* reserved);
RK_API int rk_server_set_port(rk_server_t* server, int port);
RK_API int rk_server_set_admin_user(rk_server_t* server, const char* login, const char* password);
/* Seconds for connecting and for each whole call; 0 means no limit. */
RK_API int rk_server_set_timeout(rk_server_t* server, int seconds);

/* Sends the API named `api` with (name, value) text pairs as its children; a null name ends
 * the pairs. Returns a result element for every outcome on a non-null handle (never null
 * then); the caller frees it. */
RK_API rk_elem_t* rk_server_invoke(rk_server_t* server, const char* api, ...);
/* Sends `request` (not taken over). Returns a result element as rk_server_invoke does. */
RK_API rk_elem_t* rk_server_invoke_elem(rk_server_t* server, rk_elem_t* request);

/* ---- Results -------------------------------------------------------------------------- */

/* 1 when the call passed, 0 otherwise (a null result too). */
RK_API int rk_results_status(rk_elem_t* result);
/* The failure reason, owned by the element; null when there is none. */
RK_API const char* rk_results_reason(rk_elem_t* result);
/* The error number of a failed result; 0 when there is none. */
RK_API int rk_results_errno(rk_elem_t* result);

/* A new result element: "passed", or "failed" with the reason (plain text) and errno. */
RK_API rk_elem_t* rk_results_new_passed(void);
RK_API rk_elem_t* rk_results_new_failed(const char* reason, int errnum);

/* ---- Elements ------------------------------------------------------------------------- */

/* A new empty element; null when name is null or not a valid element name. */
RK_API rk_elem_t* rk_elem_new(const char* name);
/* Frees the element, its attributes and all its children. Must not be attached to a parent. */
RK_API void rk_elem_free(rk_elem_t* elem);
/* Owned by the element. */
RK_API const char* rk_elem_get_name(rk_elem_t* elem);
/* The element's text, owned by the element: the empty text when it has none. */
RK_API const char* rk_elem_get_content(rk_elem_t* elem);
/* Replaces the element's text with a copy of `text` (plain text). */
RK_API int rk_elem_set_content(rk_elem_t* elem, const char* text);
/* The first child of that name, owned by the tree; null when there is none. */
RK_API rk_elem_t* rk_elem_child(rk_elem_t* elem, const char* name);
/* Attaches `child` as the last child; the parent owns it from then on. Returns the child, or
 * null (and nothing attached) when either is null or the child already has a parent. */
RK_API rk_elem_t* rk_child_add(rk_elem_t* parent, rk_elem_t* child);
/* Adds a child holding `value`; returns the new child (owned by the parent) or null. */
RK_API rk_elem_t* rk_child_add_string(rk_elem_t* parent, const char* name, const char* value);
/* As rk_child_add_string, the value encrypted with `key` (null: the default key). */
RK_API rk_elem_t* rk_child_add_string_encrypted(rk_elem_t* parent, const char* name,
                                                const char* value, const char* key);
/* Adds a child holding "true" or "false". */
RK_API rk_elem_t* rk_child_add_bool(rk_elem_t* parent, const char* name, int value);
/* The text of the first child of that name, owned by the tree; null when there is none. */
RK_API const char* rk_child_get_string(rk_elem_t* elem, const char* name);
/* The decrypted text of an encrypted child, new and freed with rk_free; null when the child
 * is missing, is not encrypted, or cannot be decrypted and authenticated with `key`. */
RK_API char* rk_child_get_string_encrypted(rk_elem_t* elem, const char* name, const char* key);
/* true, yes, on and 1 (any case) are true, any other text false; dflt when missing. */
RK_API int rk_child_get_bool(rk_elem_t* elem, const char* name, int dflt);
/* Iterates over all children in order, whatever their names. */
RK_API rk_iterator_t rk_child_iterator(rk_elem_t* elem);
RK_API rk_elem_t* rk_iterator_next(rk_iterator_t* it);
/* The element and its children as indented XML text ending in a line feed; new, freed with
 * free() or rk_free. Null when elem is null. */
RK_API char* rk_elem_sprintf(rk_elem_t* elem);
RK_API void rk_free(void* p);

/* ---- Beyond the runtime's needs ------------------------------------------------------- */

/* Number of children. */
RK_API size_t rk_elem_child_count(rk_elem_t* elem);
/* The parent, or null for a root. */
RK_API rk_elem_t* rk_elem_parent(rk_elem_t* elem);
/* Detaches `child` from its parent, which gives up ownership; returns the child or null. */
RK_API rk_elem_t* rk_child_remove(rk_elem_t* parent, rk_elem_t* child);
/* Attributes. Values set here are plain text; values parsed from the wire keep their entity
 * references. The returned text is owned by the element; null when absent. */
RK_API int rk_elem_set_attr(rk_elem_t* elem, const char* name, const char* value);
RK_API const char* rk_elem_get_attr(rk_elem_t* elem, const char* name);
/* A deep copy of the tree below `elem`, which the caller owns. */
RK_API rk_elem_t* rk_elem_copy(rk_elem_t* elem);

/* Limits applied by rk_elem_parse. */
#define RK_PARSE_MAX_DEPTH 256
#define RK_PARSE_MAX_BYTES (64u * 1024u * 1024u)

/* Parses `len` bytes of XML text into a new tree that the caller owns. Entity references in
 * text and attribute values are kept as they stand. On failure returns null and, when errbuf
 * is not null, a NUL-terminated reason (with the byte offset) in errbuf. Input over
 * RK_PARSE_MAX_BYTES or nested deeper than RK_PARSE_MAX_DEPTH is refused. */
RK_API rk_elem_t* rk_elem_parse(const char* text, size_t len, char* errbuf, int errbuflen);

/* Sets the key text that encrypted values use when their key argument is null; null restores
 * the built-in default. Keys of any length are accepted; the cipher key is derived from them.
 * Returns non-zero on success. */
RK_API int rk_set_default_key(const char* key);

#ifdef __cplusplus
}
#endif

#endif /* RK_H_ */
