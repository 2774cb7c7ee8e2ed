/* Proxy buffers: the answer of a peer to one HTTP request, spooled to a file.
 *
 * The body never stays in memory, however long it is: it goes straight into a file in the folder
 * "DIR/proxy_tmp_files" that is unlinked as soon as it is made and lives through its descriptor. From there it is
 * mapped, read, parsed, or appended to a response.
 *
 * A buffer serves one request and belongs to one thread at a time. vask_proxy_buffer_init() comes before the first
 * request. Requests are made by topo_curl_perform() (topo/topo.h): they carry the trace (ruxo/zipkin.h) and the task
 * ("X-Orlith-TaskId: 4711") in headers, follow no redirection, and speak http and https only. Failures are logged on
 * the module's error stream. */
#ifndef LIBORLITH_UTIL_VASK_PROXY_BUFFER_H
#define LIBORLITH_UTIL_VASK_PROXY_BUFFER_H

#include <curl/curl.h>
#include <sys/types.h>

#include "liborlith/util/http_header_parse.h"
#include "ruxo/http.h"
#include "ruxo/json.h"
#include "ruxo/log.h"

RUXO_BEGIN_DECLS

struct topo_config;

/* The status of a request that failed before the peer had told one. */
#define VASK_PROXY_BUFFER_HTTP_RESPONSE_SERVER_ERROR 500

typedef enum {
  PC_NONE = 0,   /* no byte of a body has come */
  PC_STARTED = 1 /* the file has been made */
} proxy_buffer_state_e;

typedef struct vask_proxy_buffer {
  size_t len;                 /* bytes of the body, and of the map */
  int fd;                     /* the spool file, -1 for none */
  int error;                  /* not 0 once the file could not be made or written */
  long httpcode;              /* the status of the answer, or 500 */
  CURLcode curl_return_code;  /* how the transfer ended */
  proxy_buffer_state_e state; /* never goes back */
  bool mmap;                  /* whether mmap_buf is a map of `len` bytes */
  void *mmap_buf;
} vask_proxy_buffer_t;

/* The module's streams "debug/vask_proxy_buffer" and "error/vask_proxy_buffer". */
RUXO_EXPORT extern ruxo_log_stream_t vask_proxy_buffer_debug_ls;
RUXO_EXPORT extern ruxo_log_stream_t vask_proxy_buffer_error_ls;

/* Opens the streams; once in a process. */
RUXO_EXPORT void vask_proxy_buffer_lib_init(void);

/* Sets the folder (copied, not null) below which bodies are spooled, and makes "proxy_tmp_files" in it with missing
 * parents (mode 0755); and the time-out of connecting, in milliseconds, 0 being libcurl's own. Once in a process: a
 * second call, and a folder that cannot be made, stop the process. */
RUXO_EXPORT void vask_proxy_buffer_init(const char *dir, uint64_t connect_timeout_ms);

/* A new buffer; null when memory ran out. Ended by vask_proxy_buffer_destroy(), which unmaps and closes; null is
 * ignored there. */
RUXO_EXPORT vask_proxy_buffer_t *vask_proxy_buffer_new(void);
RUXO_EXPORT void vask_proxy_buffer_destroy(vask_proxy_buffer_t *pb);

/* ---- Requests ---- */

/* Prepares a handle for a request: `curl`, or a new one where that is null, with the URL and the headers unless null
 * (the headers are borrowed until the handle's next ones), the whole request limited to `timeout_ms` milliseconds when
 * that is above 0. Returns it. */
RUXO_EXPORT CURL *vask_proxy_buffer_make_curl_object(CURL *curl, const char *url, struct curl_slist *headers,
                                                     int timeout_ms);

/* Requests `url` (null: the one that `curl` has) and spools the answer.
 *
 * `curl` may carry options of the caller's (a method, a body) or be null. `headers` (may be null) are sent besides
 * those for trace and task. `header_cb` (may be null) is called for each header of the answer, with keys in lower case,
 * on this thread; then the thread's stack must have room for somewhat over 1 MiB. `tc` (may be null) is the topology
 * that knows the peer.
 *
 * Returns 0 when the peer has answered: with status 200 the body is kept, with any other it is dropped; look at
 * vask_proxy_buffer_get_httpcode(). -1, without a body, when the transfer failed, with the status as far as one had
 * come, else 500; or when the body could not be spooled, with 500.
 *
 * The first two take `curl` and `headers` over and free them. The other two leave them with the caller as they were,
 * except for options: the URL and time-outs stay set, the callbacks for headers are unset. */
RUXO_EXPORT int vask_proxy_buffer_perform_curl(vask_proxy_buffer_t *pb, CURL *curl, const char *url,
                                               int timeout_ms, struct curl_slist *headers,
                                               http_header_parse_f header_cb, void *header_cb_closure);
RUXO_EXPORT int vask_proxy_buffer_perform_curl_topo(vask_proxy_buffer_t *pb, CURL *curl, const char *url,
                                                    int timeout_ms, struct curl_slist *headers,
                                                    http_header_parse_f header_cb, void *header_cb_closure,
                                                    const struct topo_config *tc);
RUXO_EXPORT int vask_proxy_buffer_perform_borrow_curl(vask_proxy_buffer_t *pb, CURL *curl, const char *url,
                                                      int timeout_ms, struct curl_slist *headers,
                                                      http_header_parse_f header_cb, void *header_cb_closure);
RUXO_EXPORT int vask_proxy_buffer_perform_borrow_curl_topo(
    vask_proxy_buffer_t *pb, CURL *curl, const char *url, int timeout_ms, struct curl_slist *headers,
    http_header_parse_f header_cb, void *header_cb_closure, const struct topo_config *tc);

/* libcurl's write callback: appends to the spool file, which the first bytes make. `pb` is a vask_proxy_buffer_t,
 * without a type for libcurl. Returns the number of bytes; (size_t)-1, which ends the transfer, when they could not be
 * written in one piece: then `error` is set and the body dropped. */
RUXO_EXPORT size_t vask_proxy_buffer_handle_curl_data(void *buff, size_t size, size_t nmemb, void *pb);

/* ---- The answer ----
 * A buffer has a descriptor from the first byte of a body on, and as long as the body is kept. */

/* The whole body as JSON (a new root); null without a body and for anything that ruxo_json_from_fd() refuses. */
RUXO_EXPORT ruxo_json_object *vask_proxy_buffer_to_json_object(vask_proxy_buffer_t *pb);

RUXO_EXPORT bool vask_proxy_buffer_has_valid_fd(const vask_proxy_buffer_t *pb);
/* Gives the descriptor (-1: none) to the caller, who closes it. */
RUXO_EXPORT int vask_proxy_buffer_transfer_fd_ownership(vask_proxy_buffer_t *pb);
RUXO_EXPORT size_t vask_proxy_buffer_get_len(const vask_proxy_buffer_t *pb);
RUXO_EXPORT long vask_proxy_buffer_get_httpcode(const vask_proxy_buffer_t *pb);
RUXO_EXPORT CURLcode vask_proxy_buffer_get_curl_error_code(const vask_proxy_buffer_t *pb);

/* Lets the next read begin at the first byte. False without a descriptor or when seeking failed. */
RUXO_EXPORT bool vask_proxy_buffer_reset_fd_position(vask_proxy_buffer_t *pb);
/* Reads up to `bytes` bytes from where the descriptor stands (after a request: the end). As read(2). */
RUXO_EXPORT ssize_t vask_proxy_buffer_read_fd(vask_proxy_buffer_t *pb, void *buffer, size_t bytes);
/* Maps the body for reading; `flags` are mmap(2)'s. The map is made once, has `len` bytes and lives until the buffer
 * ends. Null without a body and when it cannot be mapped. */
RUXO_EXPORT uint8_t *vask_proxy_buffer_mmap(vask_proxy_buffer_t *pb, int flags);
/* Appends the body from `offset` on to a response, as ruxo_http_response_append_mmap_from_fd() does with the buffer's
 * descriptor and its whole length: so an offset other than 0 asks for bytes beyond the end. The buffer may be destroyed
 * before the response has been sent. False without a body, and when that call fails. */
RUXO_EXPORT bool vask_proxy_buffer_ruxo_http_append_mmap_from_fd(vask_proxy_buffer_t *pb,
                                                                 ruxo_http_session_ctx *ctx, int flags,
                                                                 off_t offset);

RUXO_END_DECLS

#endif
