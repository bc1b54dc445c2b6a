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

/* Starts the library, libcurl's global state included. Non-zero when started; otherwise a
 * NUL-terminated reason is left in errbuf (when errbuf is not null and errbuflen > 0).
 * Starting twice is harmless. Calls on server handles fail with RK_ERR_NOT_STARTED while the
 * library is not started. */
RK_API int rk_startup(char* errbuf, int errbuflen);
/* Stops the library. libcurl's global state is released once no handle holds a connection. */
RK_API void rk_shutdown(void);
/* Non-zero while the library is started. */
RK_API int rk_is_started(void);

/* ---- Server handles ------------------------------------------------------------------- */

/* Connection styles, set with rk_server_set_style; what each sends is in docs/wire-format.md.
 *  - RK_STYLE_LOGIN_PASSWORD: HTTP basic authentication with the admin user's login and
 *    password (rk_server_set_admin_user). A client certificate, when one is set, is presented
 *    too.
 *  - RK_STYLE_CERTIFICATE: mutual TLS. The handle presents its client certificate
 *    (rk_server_set_client_cert, or the process-wide rk_set_default_client_cert) and sends no
 *    login or password. HTTPS only: over another transport, or without a certificate, every
 *    call fails with RK_ERR_CERT_STYLE before anything is sent.
 *  - RK_STYLE_TOKEN: "Authorization: Bearer <token>", where the token is the admin user's
 *    password (the login is not sent). Through the runtime, the token is therefore the
 *    descriptor's password. Without a user, or with an empty token, every call fails with
 *    RK_ERR_NO_TOKEN before anything is sent.
 *  - RK_STYLE_NONE: no credentials are sent. */
#define RK_STYLE_LOGIN_PASSWORD 0 /* HTTP basic authentication with the admin user (default) */
#define RK_STYLE_CERTIFICATE 1    /* mutual TLS with the client certificate; HTTPS only */
#define RK_STYLE_TOKEN 2          /* bearer token: the admin user's password */
#define RK_STYLE_NONE 3           /* no credentials are sent */

/* Server types, set with rk_server_set_server_type; the server refuses a type it is not. */
#define RK_SERVER_TYPE_ANY 0 /* default: any server answers */
#define RK_SERVER_TYPE_NODE 1
#define RK_SERVER_TYPE_CLUSTER 2
#define RK_SERVER_TYPE_AGENT 3
#define RK_SERVER_TYPE_DEPOT 4

/* Transports, set with rk_server_set_transport_type. The host given to rk_server_open is a
 * host name or address for HTTP and HTTPS, the name of a registered in-process server for
 * RK_TRANSPORT_IN_PROCESS and the path of the server's socket for RK_TRANSPORT_UNIX_SOCKET. */
#define RK_TRANSPORT_HTTP 0        /* default; port 0 means 80 */
#define RK_TRANSPORT_HTTPS 1       /* server certificate and host name verified; port 0 means 443 */
#define RK_TRANSPORT_IN_PROCESS 2  /* a server registered with rk_inprocess_register */
#define RK_TRANSPORT_UNIX_SOCKET 3 /* plain HTTP over a Unix domain socket; the port is unused */

/* Error numbers of failed results that the library makes itself (docs/wire-format.md). */
#define RK_ERR_NOT_STARTED 13001     /* rk_startup was not called, or rk_shutdown was */
#define RK_ERR_STYLE 13010           /* unknown connection style */
#define RK_ERR_TRANSPORT 13011       /* transport unknown or not available */
#define RK_ERR_PORT 13012            /* port outside 0 to 65535 */
#define RK_ERR_HOST 13013            /* no host, or one that cannot be put in a URL */
#define RK_ERR_REQUEST 13014         /* no request, a bad name, or text XML cannot carry */
#define RK_ERR_CERT_STYLE 13015      /* certificate style without HTTPS or without a certificate */
#define RK_ERR_NO_TOKEN 13016        /* token style without a token */
#define RK_ERR_NO_MEMORY 13020       /* memory exhausted */
#define RK_ERR_REFUSED 13055         /* the server refused the connection */
#define RK_ERR_RESOLVE 13056         /* the host name could not be resolved */
#define RK_ERR_CONNECT_TIMEOUT 13057 /* no connection within the time-out */
#define RK_ERR_CONNECT 13058         /* any other failure to connect */
#define RK_ERR_TIMEOUT 13060         /* no complete, parsed answer within the time-out */
#define RK_ERR_CLOSED 13062          /* the server closed the connection without an answer */
#define RK_ERR_RECV 13063            /* receiving failed (connection reset...) */
#define RK_ERR_SEND 13064            /* sending failed */
#define RK_ERR_TLS_HANDSHAKE 13070   /* TLS handshake failed */
#define RK_ERR_TLS_UNTRUSTED 13071   /* server certificate not trusted or not for this host */
#define RK_ERR_TLS_SETUP 13072       /* CA file, client certificate or key unusable */
#define RK_ERR_HTTP_STATUS 13080     /* HTTP error status without a TEZA result */
#define RK_ERR_MALFORMED 13081       /* answer not well-formed XML 1.0 in UTF-8, or empty */
#define RK_ERR_TRUNCATED 13082       /* header or answer cut short: connection lost */
#define RK_ERR_TOO_LARGE 13083       /* answer past the handle's size limit or one derived */
#define RK_ERR_NOT_RESULT 13084      /* answer not a results element, or errno not an int */
#define RK_ERR_PROTOCOL 13085        /* the server's HTTP cannot be understood or accepted */
#define RK_ERR_NO_SERVER 13090       /* no in-process server of that name is registered */
#define RK_ERR_NO_ANSWER 13091       /* the in-process server gave no result */
#define RK_ERR_OTHER 13099           /* any other transfer failure; the reason says which */

/* What librk accepts of a server's HTTP answer, beyond the body's size limit
 * (rk_server_set_max_response_size). An answer past any of these fails with RK_ERR_PROTOCOL
 * and a reason naming the part that is too large, as do: a header line of 100 KiB or more (a
 * status line too), two Content-Length values that differ, a Content-Length that is not a
 * decimal number, Transfer-Encoding together with Content-Length, a Content-Encoding other
 * than identity and gzip (librk asks for gzip alone), and a gzip body that cannot be decoded.
 * The size limit holds for the decoded body: a small compressed answer that would decode past
 * it fails with RK_ERR_TOO_LARGE as soon as the limit is passed. Redirections are never
 * followed: a 3xx answer is an HTTP status without a TEZA result (RK_ERR_HTTP_STATUS). The
 * first two limits count all header lines of one call together: status lines, fields, interim
 * answers and trailers. */
#define RK_HTTP_MAX_HEADER_BYTES 65536
#define RK_HTTP_MAX_HEADER_LINES 256
#define RK_HTTP_MAX_INTERIM_ANSWERS 16 /* interim (1xx) answers before the final one */

/* Each request is written to the network at most once. When a kept-open connection turns out
 * to be closed before any byte of a request was written to it, the request goes out on a new
 * connection; once it was written, a connection lost without an answer fails the call with
 * RK_ERR_CLOSED (RK_ERR_RECV when the server reset it) and a reason saying that the request
 * may have been carried out. Whether to call again is the caller's decision, never the
 * library's.
 *
 * While an answer is received its body is held in one buffer that never grows past the
 * handle's limit: receiving an answer costs about that limit at most, whatever the server
 * sends.
 *
 * HTTPS needs TLS 1.2 or later, whatever the system's OpenSSL configuration allows.
 *
 * Proxies: a call over HTTP or HTTPS goes through the proxy that the environment names, as
 * libcurl reads it: http_proxy (lower case only) for HTTP, https_proxy or HTTPS_PROXY for
 * HTTPS, otherwise all_proxy or ALL_PROXY; the lower-case name wins when both are set. The
 * login and password travel to the server through the proxy (readable by it over plain HTTP).
 * no_proxy or NO_PROXY lists host names (and their subdomains) and addresses to call
 * directly; NO_PROXY=* turns proxies off for the whole program, as does leaving the proxy
 * variables unset. Calls to a loopback host (localhost, 127.0.0.0/8, ::1, written as such,
 * not a name that resolves there) and over Unix sockets never use a proxy. */

/* A new handle for a server; the connection itself is made by the first call and kept open
 * for the calls that follow (one persistent HTTP/1.1 connection per handle). Never null for
 * a non-null host. The caller owns the handle and closes it with rk_server_close, which
 * closes its connection. */
RK_API rk_server_t* rk_server_open(const char* host, int major, int minor);
RK_API int rk_server_close(rk_server_t* server);
/* The setters store their value and return non-zero for any non-null handle, whatever the
 * value: an unsupported or invalid setting is reported by the next call, as a failed result
 * with a reason. */
RK_API int rk_server_set_style(rk_server_t* server, int style);
RK_API int rk_server_set_server_type(rk_server_t* server, int type);
RK_API int rk_server_set_transport_type(rk_server_t* server, int transport, const void* reserved);
RK_API int rk_server_set_port(rk_server_t* server, int port);
RK_API int rk_server_set_admin_user(rk_server_t* server, const char* login, const char* password);
/* Seconds for connecting and for each whole call, parsing the answer included; 0 (the
 * default) or less means no limit of the library's own (libcurl's default limit of 300 s on
 * connecting still applies). The in-process transport has no time-out. */
RK_API int rk_server_set_timeout(rk_server_t* server, int seconds);
/* HTTPS: the PEM file of the certificates that the server's certificate must chain to; null
 * or "" uses the system's trusted certificates (the default). The file is parsed once for the
 * process and again after it changes on disk. */
RK_API int rk_server_set_ca_file(rk_server_t* server, const char* path);
/* HTTPS: a client certificate and its private key (PEM files) for servers that ask for one,
 * with the key's pass phrase or null. A null key_path means the key is in the certificate's
 * file; a null cert_path removes both. Replaces the default of rk_set_default_client_cert.
 * RK_STYLE_CERTIFICATE needs one; other styles present it when the server asks. */
RK_API int rk_server_set_client_cert(rk_server_t* server, const char* cert_path,
                                     const char* key_path, const char* key_passphrase);
/* The largest answer body accepted, in bytes; 0 restores the default, RK_PARSE_MAX_BYTES. A
 * larger answer fails with RK_ERR_TOO_LARGE. This is the one limit of an answer that the user
 * sets: the counts of elements and attributes and the memory of its tree follow from it
 * ("Limits of parsing" below), so that an answer costs at most about 4 times this limit once
 * it is a tree. */
RK_API int rk_server_set_max_response_size(rk_server_t* server, size_t bytes);

/* Sends the API named `api` with (name, value) text pairs as its children; a null name ends
 * the pairs (a null value sends the empty text). Returns a result element for every outcome
 * on a non-null handle (never null then, short of memory exhaustion); the caller frees it.
 * Results of failures made by the library carry an error number of 13000 to 13999 (above).
 * The reason of every result returned here is in wire form, entity references as they stand,
 * whether the server or the library made it.
 * A request that cannot be written as well-formed XML 1.0 in UTF-8 (a name, text or attribute
 * value holding invalid UTF-8 or a character outside XML's Char production, such as a control
 * character other than tab, line feed and carriage return) is refused before anything is
 * sent, on every transport, with RK_ERR_REQUEST and a reason naming the element.
 * The errno rule: a failed result from a server whose errno attribute is not a plain decimal
 * int (an optional "-" and decimal digits, within the range of int) is replaced by a failed
 * result RK_ERR_NOT_RESULT whose reason quotes the text (escaped); a failed result without
 * errno reads as 0; a passed result is passed on unchanged and has no error number. */
RK_API rk_elem_t* rk_server_invoke(rk_server_t* server, const char* api, ...);
/* Sends `request` (not taken over); its name is the API name. Returns a result element as
 * rk_server_invoke does. */
RK_API rk_elem_t* rk_server_invoke_elem(rk_server_t* server, rk_elem_t* request);

/* ---- In-process servers --------------------------------------------------------------- */

/* What an in-process server learns of a call besides its request. */
typedef struct rk_inprocess_call {
    const char* host;     /* the name the handle was opened with */
    int major, minor;     /* the handle's API version */
    int style;            /* RK_STYLE_LOGIN_PASSWORD, RK_STYLE_TOKEN or RK_STYLE_NONE */
    int server_type;      /* the handle's server type */
    const char* login;    /* the admin user; null unless the style is RK_STYLE_LOGIN_PASSWORD */
    const char* password; /* null unless the style is RK_STYLE_LOGIN_PASSWORD */
    const char* token;    /* the bearer token; null unless the style is RK_STYLE_TOKEN */
} rk_inprocess_call_t;

/* Answers one call on the calling thread, possibly on several threads at once. `request`
 * belongs to the library and lives for the call; its texts are in wire form (entity
 * references as they stand), as a server reading it from the network would see them. Returns
 * a new result element, which the library takes over, or null: the caller then gets a failed
 * result RK_ERR_NO_ANSWER. */
typedef rk_elem_t* (*rk_inprocess_handler_t)(void* context, const rk_inprocess_call_t* call,
                                             rk_elem_t* request);
/* Makes `handler` answer the calls of handles opened with host `name` and the in-process
 * transport. Zero when the name is empty or already registered, or the handler is null. */
RK_API int rk_inprocess_register(const char* name, rk_inprocess_handler_t handler, void* context);
/* Ends the registration, after waiting for the calls in progress; the context may be freed
 * once it returns. Must not be called from the handler. Zero when the name is not registered. */
RK_API int rk_inprocess_unregister(const char* name);

/* ---- Results -------------------------------------------------------------------------- */

/* 1 when the call passed, 0 otherwise (a null result too). */
RK_API int rk_results_status(rk_elem_t* result);
/* The failure reason, owned by the element; null when there is none. */
RK_API const char* rk_results_reason(rk_elem_t* result);
/* The error number of a failed result; 0 when there is none: for a result that is not
 * failed, and for an errno that is not a plain decimal int (see the errno rule above). */
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
/* Receives consecutive pieces of a text: `len` bytes at `data`, valid during the call only.
 * Returns non-zero to go on, zero to stop. */
typedef int (*rk_write_fn)(void* context, const char* data, size_t len);
/* rk_elem_sprintf's text of elem, handed to `write` in pieces as it is made, so that a large
 * text can be sent or stored without ever being held whole. Each piece ends at the end of a
 * line; every piece but the last holds at least `piece_size` bytes (and one line more at
 * most). Non-zero when the whole text was handed over; zero when elem or write is null,
 * memory ran out, or write returned zero (nothing more is then written). */
RK_API int rk_elem_write(rk_elem_t* elem, size_t piece_size, rk_write_fn write, void* context);

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

/* Limits of parsing (rk_elem_parse and every answer of a server).
 *
 * One limit is the user's: the size of a document in bytes, RK_PARSE_MAX_BYTES for
 * rk_elem_parse and the handle's rk_server_set_max_response_size for answers. Every other
 * limit follows from it, for a document of at most L bytes:
 *  - at most max(L / RK_PARSE_BYTES_PER_ELEMENT, 1024) elements;
 *  - at most max(L / RK_PARSE_BYTES_PER_ATTRIBUTE, 1024) attributes in all;
 *  - elements nested at most RK_PARSE_MAX_DEPTH deep (whatever L);
 *  - the tree taking at most max(3 x L, 1 MiB) bytes of memory, so that a document and its
 *    tree together take at most about 4 x L whatever their shape. An element costs about 64
 *    bytes, an attribute 24, a text or name its length: a document made of nothing but empty
 *    elements ("<a/>", 4 bytes each) reaches this limit before the count of elements.
 * A document over L bytes, or past one of the counts or the tree's memory, is refused with a
 * reason that names the limit (RK_ERR_TOO_LARGE for an answer); one nested too deep is
 * malformed (RK_ERR_MALFORMED). A dense real document (records of a few hundred bytes, a few
 * tens of bytes per element) is far inside every limit. Parsing an answer counts against the
 * call's time-out: a parse still running when it is over fails with RK_ERR_TIMEOUT.
 *
 * Documents are XML 1.0 in UTF-8, checked strictly: invalid UTF-8, a NUL byte or another
 * character outside XML's Char production (control characters but tab, line feed and carriage
 * return; U+FFFE, U+FFFF) anywhere in the text, after the root element too, makes a document
 * malformed, with the byte offset. "&" stands only as an entity or character reference, kept
 * as it stands; document type declarations are skipped and their entities never expanded. */
#define RK_PARSE_MAX_DEPTH 256
#define RK_PARSE_MAX_BYTES (64u * 1024u * 1024u)
#define RK_PARSE_BYTES_PER_ELEMENT 16
#define RK_PARSE_BYTES_PER_ATTRIBUTE 16

/* Parses `len` bytes of XML text into a new tree that the caller owns. Entity references in
 * text and attribute values are kept as they stand. On failure returns null and, when errbuf
 * is not null, a NUL-terminated reason (with the byte offset where the text is at fault) in
 * errbuf. The limits above apply, for a document of at most RK_PARSE_MAX_BYTES bytes, without
 * a time limit. */
RK_API rk_elem_t* rk_elem_parse(const char* text, size_t len, char* errbuf, int errbuflen);

/* Server handles made and given back since the library was loaded, process-wide: every
 * handle that rk_server_open returned counts once in `handles_opened`, and every non-null
 * handle given to rk_server_close once in `handles_closed`. Their difference is the number of
 * handles open now, so a program (or its tests) can check that it closes every handle it
 * opens. May be called at any time from any thread; `handles_opened` is never below
 * `handles_closed`. */
typedef struct rk_stats {
    unsigned long long handles_opened;
    unsigned long long handles_closed;
} rk_stats_t;
RK_API void rk_get_stats(rk_stats_t* stats);

/* Sets the key text that encrypted values use when their key argument is null; null restores
 * the built-in default. Keys of any length are accepted; the cipher key is derived from them.
 * Returns non-zero on success. */
RK_API int rk_set_default_key(const char* key);

/* HTTPS: the PEM file of the certificates that handles opened from now on trust, until
 * rk_server_set_ca_file replaces it on a handle; null or "" goes back to the system's trusted
 * certificates (the default). Process-wide, for handles that code opens without a CA setting
 * of its own, such as the runtime's connections. Handles already open keep theirs. Returns
 * non-zero on success. The file is checked at once: when it cannot be opened and read, the
 * result is zero with errno saying why (ENOENT, EACCES, EISDIR...) and the setting stays as it
 * was. */
RK_API int rk_set_default_ca_file(const char* path);

/* HTTPS: the client certificate and key (PEM files) and the key's pass phrase (or null) that
 * handles opened from now on present, until rk_server_set_client_cert replaces them on a
 * handle; a null cert_path goes back to none (the default), a null key_path means the key is
 * in the certificate's file. Process-wide, like rk_set_default_ca_file: this is how the
 * runtime's own handles (the connection cache, the quarantine probes) connect in
 * RK_STYLE_CERTIFICATE. Handles already open keep theirs. The pass phrase is kept in memory
 * only and never appears in a reason. Returns non-zero on success. */
RK_API int rk_set_default_client_cert(const char* cert_path, const char* key_path,
                                      const char* key_passphrase);

/* HTTPS: TLS session resumption across handles, on (non-zero, the default) or off. While on,
 * a new handle's first connection to a host and port that an earlier handle of the process
 * reached, with the same TLS settings (CA file, client certificate...), resumes that TLS
 * session instead of making a full handshake; the sessions are shared through libcurl's share
 * interface, safe across threads. Turning it off serves measurements (the benchmarks compare
 * both) and servers that mishandle resumption; it applies to connections set up from then on.
 * Returns the previous setting. */
RK_API int rk_set_tls_session_resumption(int enabled);

#ifdef __cplusplus
}
#endif

#endif /* RK_H_ */
