#include "liborlith/util/vask_proxy_buffer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/liborlith_module.h"
#include "liborlith/topo/topo.h"
#include "ruxo/util.h"
#include "ruxo/zipkin.h"

ruxo_log_stream_t vask_proxy_buffer_debug_ls = nullptr;
ruxo_log_stream_t vask_proxy_buffer_error_ls = nullptr;

namespace {

constexpr size_t kPathSize = 4096;  // with the NUL
// What libcurl hands over at once at most: fewer and larger writes than by its default of 16 KiB.
constexpr long kReceiveBytes = 256 * 1024;
// Younger than our own server's idle deadline of 60 s, so that a borrowed handle seldom finds its connection closed.
constexpr long kMaxIdleConnectionS = 50;

char *proxy_dir = nullptr;
uint64_t default_connect_timeout_ms = 0;
std::atomic<unsigned> next_spool_number{0};

constexpr auto kAbortTransfer = static_cast<size_t>(-1);

void discard_body(vask_proxy_buffer_t *pb) {
  if (pb->mmap) munmap(pb->mmap_buf, pb->len);
  if (pb->fd >= 0) close(pb->fd);
  pb->fd = -1;
  pb->mmap = false;
  pb->mmap_buf = nullptr;
  pb->len = 0;
}

// An unlinked file, or -1.
int make_spool_file() {
  char path[kPathSize];
  const unsigned number = next_spool_number.fetch_add(1, std::memory_order_relaxed);
  if (proxy_dir == nullptr) return -1;
  const int len = snprintf(path, sizeof path, "%s/proxy_tmp_files/proxy_data_%x_XXXXXX", proxy_dir, number);
  if (len < 0 || static_cast<size_t>(len) >= sizeof path) return -1;
  const int fd = mkstemp(path);
  if (fd < 0) return -1;
  unlink(path);
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  return fd;
}

size_t fail_spooling(vask_proxy_buffer_t *pb) {
  pb->error = 1;
  discard_body(pb);
  return kAbortTransfer;
}

ssize_t write_once(int fd, const void *bytes, size_t len) {
  ssize_t written = 0;
  do {
    written = write(fd, bytes, len);
  } while (written < 0 && errno == EINTR);
  return written;
}

// ---- A request ----

struct Request {
  const char *function;  // as log lines name it
  vask_proxy_buffer_t *pb;
  CURL *curl;
  const char *url;
  int timeout_ms;
  curl_slist *headers;
  http_header_parse_f header_cb;
  void *header_cb_closure;
  const topo_config *tc;
};

struct Transfer {
  CURLcode code;
  CURLcode info_code;  // of asking for the status
  unsigned long total_ms;
};

// Without memory a request goes without the header.
curl_slist *with_header(curl_slist *headers, const char *header) {
  if (header == nullptr) return headers;
  curl_slist *const longer = curl_slist_append(headers, header);
  return longer == nullptr ? headers : longer;
}

curl_slist *with_trace_and_task(curl_slist *headers) {
  char name[1024], header[128], task[80];
  snprintf(name, sizeof name, "curl: %s", "request");
  ruxo_zipkin_client_start(name);
  headers = with_header(headers, ruxo_zipkin_client_trace_header(header, sizeof header));
  headers = with_header(headers, ruxo_zipkin_client_parent_header(header, sizeof header));
  headers = with_header(headers, ruxo_zipkin_client_span_header(header, sizeof header));
  headers = with_header(headers, ruxo_zipkin_client_sampled_header(header, sizeof header));
  const uint64_t task_id = ruxo_task_id();
  if (task_id == 0) return headers;
  snprintf(task, sizeof task, "X-Orlith-TaskId: %lu", static_cast<unsigned long>(task_id));
  return with_header(headers, task);
}

curl_slist *last_of(curl_slist *list) {
  while (list != nullptr && list->next != nullptr) list = list->next;
  return list;
}

Transfer transfer(const Request &request, CURL *curl) {
  vask_proxy_buffer_t *const pb = request.pb;
  Transfer result{};
  const uint64_t begin_ms = ruxo_now_ms();
  result.code = topo_curl_perform(curl, request.tc);
  pb->curl_return_code = result.code;
  const uint64_t end_ms = ruxo_now_ms();
  result.total_ms = end_ms > begin_ms ? end_ms - begin_ms : 0;  // a clock may be set back
  result.info_code = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &pb->httpcode);
  return result;
}

// The parser's context, just over 1 MiB, is part of this frame: only requests that ask for headers need that room.
__attribute__((noinline)) Transfer transfer_with_headers(const Request &request, CURL *curl) {
  http_header_parse_ctx_t ctx;
  http_header_parse_ctx_init(&ctx, request.header_cb, request.header_cb_closure);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &ctx);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, http_header_parse);
  const Transfer result = transfer(request, curl);
  // A borrowed handle must not keep what ends with this frame.
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, nullptr);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, nullptr);
  return result;
}

void log_failed_transfer(const Request &request, const Transfer &done, const char *url, bool status_came) {
  char status[32] = "(not set)";
  if (status_came) snprintf(status, sizeof status, "%ld", request.pb->httpcode);
  const char *const reason = curl_easy_strerror(done.code);
  if (done.code == CURLE_OPERATION_TIMEDOUT) {
    ruxo_log(
        vask_proxy_buffer_error_ls,
        "%s: curl to %s failed - curl error code %d (\"%s\"), httpcode %s - timeout set to %dms - total time "
        "%lums\n",
        request.function, url, static_cast<int>(done.code), reason, status, request.timeout_ms,
        done.total_ms);
  } else {
    ruxo_log(vask_proxy_buffer_error_ls,
             "%s: curl to %s failed - curl error code %d (\"%s\"), httpcode %s - total time %lums\n",
             request.function, url, static_cast<int>(done.code), reason, status, done.total_ms);
  }
}

// The outcome of a transfer, as documented for the perform functions.
int judge(const Request &request, const Transfer &done, const char *url) {
  vask_proxy_buffer_t *const pb = request.pb;
  const bool status_came = done.info_code == CURLE_OK && pb->httpcode != 0;
  if (pb->error == 0 && done.code == CURLE_OK && done.info_code == CURLE_OK) {
    if (pb->httpcode != 200) discard_body(pb);
    return 0;
  }
  if (pb->error != 0) {
    ruxo_log(vask_proxy_buffer_error_ls,
             "%s: curl to %s failed - internal file handling error - total time %lums\n", request.function,
             url, done.total_ms);
    pb->httpcode = VASK_PROXY_BUFFER_HTTP_RESPONSE_SERVER_ERROR;
  } else if (done.code != CURLE_OK) {
    log_failed_transfer(request, done, url, status_came);
    if (!status_came) pb->httpcode = VASK_PROXY_BUFFER_HTTP_RESPONSE_SERVER_ERROR;
  } else {
    ruxo_log(
        vask_proxy_buffer_error_ls,
        "%s: curl to %s failed - failed to fetch info from response: error code %d (\"%s\") - total time "
        "%lums\n",
        request.function, url, static_cast<int>(done.info_code), curl_easy_strerror(done.info_code),
        done.total_ms);
    pb->httpcode = VASK_PROXY_BUFFER_HTTP_RESPONSE_SERVER_ERROR;
  }
  discard_body(pb);
  return -1;
}

// For log lines: a borrowed handle may bring its own URL.
const char *url_of(const Request &request, CURL *curl) {
  const char *url = request.url;
  if (url == nullptr) curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &url);
  return url == nullptr ? "(no URL)" : url;
}

int perform(const Request &request, CURL *curl, curl_slist *headers) {
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, request.pb);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, vask_proxy_buffer_handle_curl_data);
  const Transfer done =
      request.header_cb == nullptr ? transfer(request, curl) : transfer_with_headers(request, curl);
  const int result = judge(request, done, url_of(request, curl));
  if (headers != request.headers) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, nullptr);
  return result;
}

int perform_and_free(const Request &request) {
  curl_slist *const headers = with_trace_and_task(request.headers);
  CURL *const curl =
      vask_proxy_buffer_make_curl_object(request.curl, request.url, headers, request.timeout_ms);
  const int result = perform(request, curl, headers);
  curl_easy_cleanup(curl);
  curl_slist_free_all(headers);
  return result;
}

// Takes back off the caller's list what was appended, so that it can serve another request.
int perform_borrowed(const Request &request) {
  curl_slist *const last = last_of(request.headers);
  curl_slist *const headers = with_trace_and_task(request.headers);
  CURL *const curl =
      vask_proxy_buffer_make_curl_object(request.curl, request.url, headers, request.timeout_ms);
  const int result = perform(request, curl, headers);
  if (request.curl == nullptr) curl_easy_cleanup(curl);
  if (last == nullptr) {
    curl_slist_free_all(headers);
  } else {
    curl_slist_free_all(last->next);
    last->next = nullptr;
  }
  return result;
}

}  // namespace

void vask_proxy_buffer_lib_init(void) {
  static int once = 0;
  if (!liborlith::first_call(once)) return;
  liborlith::open_streams(vask_proxy_buffer_debug_ls, "debug/vask_proxy_buffer", vask_proxy_buffer_error_ls,
                          "error/vask_proxy_buffer");
}

void vask_proxy_buffer_init(const char *dir, uint64_t connect_timeout_ms) {
  ruxo_log(vask_proxy_buffer_debug_ls, "Begin %s\n", "vask_proxy_buffer_init");
  liborlith_assert(dir != NULL);
  liborlith_assert(proxy_dir == NULL);
  proxy_dir = strdup(dir);
  liborlith_assert(proxy_dir != NULL);
  char probe[kPathSize];
  const int len = snprintf(probe, sizeof probe, "%s/proxy_tmp_files/dummy", proxy_dir);
  const bool fits = len >= 0 && static_cast<size_t>(len) < sizeof probe;
  if (!fits) errno = ENAMETOOLONG;
  if (!fits || mkdir_for_file(probe, 0755) != 0) {
    const int error = errno;
    liborlith_fatal(vask_proxy_buffer_error_ls,
                    "[FATAL] vask_proxy_buffer_init: could not create dir for %s - %d (%s)\n", probe, error,
                    strerror(error));
  }
  default_connect_timeout_ms = connect_timeout_ms;
  ruxo_log(vask_proxy_buffer_debug_ls, "Finish %s\n", "vask_proxy_buffer_init");
}

vask_proxy_buffer_t *vask_proxy_buffer_new(void) {
  auto *pb = static_cast<vask_proxy_buffer_t *>(calloc(1, sizeof(vask_proxy_buffer_t)));
  if (pb == nullptr) return nullptr;
  pb->fd = -1;
  pb->state = PC_NONE;
  return pb;
}

void vask_proxy_buffer_destroy(vask_proxy_buffer_t *pb) {
  if (pb == nullptr) return;
  discard_body(pb);
  free(pb);
}

CURL *vask_proxy_buffer_make_curl_object(CURL *curl, const char *url, curl_slist *headers, int timeout_ms) {
  CURL *const local_curl = curl == nullptr ? curl_easy_init() : curl;
  liborlith_assert(local_curl);
  if (url != nullptr) curl_easy_setopt(local_curl, CURLOPT_URL, url);
  if (headers != nullptr) curl_easy_setopt(local_curl, CURLOPT_HTTPHEADER, headers);
  const auto connect_timeout_ms = static_cast<long>(std::min<uint64_t>(default_connect_timeout_ms, INT_MAX));
  curl_easy_setopt(local_curl, CURLOPT_CONNECTTIMEOUT_MS, connect_timeout_ms);
  if (timeout_ms > 0) curl_easy_setopt(local_curl, CURLOPT_TIMEOUT_MS, static_cast<long>(timeout_ms));
  curl_easy_setopt(local_curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(local_curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(local_curl, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(local_curl, CURLOPT_BUFFERSIZE, kReceiveBytes);
  curl_easy_setopt(local_curl, CURLOPT_MAXAGE_CONN, kMaxIdleConnectionS);
  return local_curl;
}

int vask_proxy_buffer_perform_curl(vask_proxy_buffer_t *pb, CURL *curl, const char *url, int timeout_ms,
                                   curl_slist *headers, http_header_parse_f header_cb,
                                   void *header_cb_closure) {
  return vask_proxy_buffer_perform_curl_topo(pb, curl, url, timeout_ms, headers, header_cb, header_cb_closure,
                                             nullptr);
}

int vask_proxy_buffer_perform_curl_topo(vask_proxy_buffer_t *pb, CURL *curl, const char *url, int timeout_ms,
                                        curl_slist *headers, http_header_parse_f header_cb,
                                        void *header_cb_closure, const topo_config *tc) {
  return perform_and_free({__func__, pb, curl, url, timeout_ms, headers, header_cb, header_cb_closure, tc});
}

int vask_proxy_buffer_perform_borrow_curl(vask_proxy_buffer_t *pb, CURL *curl, const char *url,
                                          int timeout_ms, curl_slist *headers, http_header_parse_f header_cb,
                                          void *header_cb_closure) {
  return vask_proxy_buffer_perform_borrow_curl_topo(pb, curl, url, timeout_ms, headers, header_cb,
                                                    header_cb_closure, nullptr);
}

int vask_proxy_buffer_perform_borrow_curl_topo(vask_proxy_buffer_t *pb, CURL *curl, const char *url,
                                               int timeout_ms, curl_slist *headers,
                                               http_header_parse_f header_cb, void *header_cb_closure,
                                               const topo_config *tc) {
  return perform_borrowed({__func__, pb, curl, url, timeout_ms, headers, header_cb, header_cb_closure, tc});
}

size_t vask_proxy_buffer_handle_curl_data(void *buff, size_t size, size_t nmemb, void *closure) {
  auto *const pb = static_cast<vask_proxy_buffer_t *>(closure);
  if (pb->error != 0) return kAbortTransfer;
  const size_t len = size * nmemb;
  if (len == 0) return 0;  // no file without data
  if (pb->state == PC_NONE) {
    if (pb->fd >= 0) {
      ruxo_log(
          vask_proxy_buffer_error_ls,
          "warning: vask_proxy_buffer_handle_curl_data - trying to create file handle, but already exists\n");
      discard_body(pb);
    }
    pb->fd = make_spool_file();
    if (pb->fd < 0) return fail_spooling(pb);
    pb->state = PC_STARTED;
  }
  pb->len += len;
  if (write_once(pb->fd, buff, len) != static_cast<ssize_t>(len)) return fail_spooling(pb);
  return len;
}

ruxo_json_object *vask_proxy_buffer_to_json_object(vask_proxy_buffer_t *pb) {
  return vask_proxy_buffer_reset_fd_position(pb) ? ruxo_json_from_fd(pb->fd, RUXO_JSON_MAX_BYTES) : nullptr;
}

bool vask_proxy_buffer_has_valid_fd(const vask_proxy_buffer_t *pb) {
  return pb->fd >= 0;
}

int vask_proxy_buffer_transfer_fd_ownership(vask_proxy_buffer_t *pb) {
  const int fd = pb->fd;
  pb->fd = -1;
  return fd;
}

size_t vask_proxy_buffer_get_len(const vask_proxy_buffer_t *pb) {
  return pb->len;
}

long vask_proxy_buffer_get_httpcode(const vask_proxy_buffer_t *pb) {
  return pb->httpcode;
}

CURLcode vask_proxy_buffer_get_curl_error_code(const vask_proxy_buffer_t *pb) {
  return pb->curl_return_code;
}

bool vask_proxy_buffer_reset_fd_position(vask_proxy_buffer_t *pb) {
  return pb->fd >= 0 && lseek(pb->fd, 0, SEEK_SET) == 0;
}

ssize_t vask_proxy_buffer_read_fd(vask_proxy_buffer_t *pb, void *buffer, size_t bytes) {
  ssize_t got = 0;
  do {
    got = read(pb->fd, buffer, bytes);
  } while (got < 0 && errno == EINTR);
  return got;
}

uint8_t *vask_proxy_buffer_mmap(vask_proxy_buffer_t *pb, int flags) {
  auto *const current = static_cast<uint8_t *>(pb->mmap_buf);
  if (pb->mmap || !vask_proxy_buffer_reset_fd_position(pb)) return current;
  void *const map = mmap(nullptr, pb->len, PROT_READ, flags, pb->fd, 0);
  if (map == MAP_FAILED) return current;
  posix_madvise(map, pb->len, POSIX_MADV_SEQUENTIAL);
  pb->mmap = true;
  pb->mmap_buf = map;
  return static_cast<uint8_t *>(map);
}
