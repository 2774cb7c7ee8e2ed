// Uploading a file to a node.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "liborlith/topo/orlith_client.h"
#include "liborlith/topo/orlith_client_private.h"
#include "liborlith/topo/topo_private.h"

namespace {

constexpr size_t kHeaderSize = 1000;  // with the NUL; longer ones are cut

struct SlistFree {
  void operator()(curl_slist *list) const { curl_slist_free_all(list); }
};
using Slist = std::unique_ptr<curl_slist, SlistFree>;

// libcurl's read callback; `closure` points to the descriptor.
size_t simple_readfile(char *buffer, size_t size, size_t nmemb, void *closure) {
  const int fd = *static_cast<int *>(closure);
  for (;;) {
    const ssize_t got = read(fd, buffer, size * nmemb);
    if (got >= 0) return static_cast<size_t>(got);
    const int error = errno;
    if (error != EINTR) {
      ruxo_log(ruxo_error, "simple_readfile: got %d (%s), aborting read\n", error, strerror(error));
      return CURL_READFUNC_ABORT;
    }
    ruxo_log(topo_debug, "simple_readfile: got %d (%s), trying again\n", error, strerror(error));
  }
}

// The size of the file, which is left at its first byte; -1 on failure.
off_t rewind_and_measure(int fd) {
  if (lseek(fd, 0, SEEK_SET) != 0) return -1;
  struct stat info {};
  int result = 0;
  do {
    result = fstat(fd, &info);
  } while (result != 0 && errno == EINTR);
  return result == 0 ? info.st_size : -1;
}

void append(Slist &list, const char *line) {
  if (curl_slist *const longer = curl_slist_append(list.get(), line); longer != nullptr) {
    (void)list.release();
    list.reset(longer);
  }
}

void append_entry(const void *key, size_t key_len, void *data, void *closure) {
  char line[kHeaderSize];
  snprintf(line, sizeof line, "%.*s: %s", static_cast<int>(key_len), static_cast<const char *>(key),
           static_cast<const char *>(data));
  append(*static_cast<Slist *>(closure), line);
}

Slist upload_headers(int timeout_ms, ruxo_hash_table *hdrs) {
  Slist list;
  char line[kHeaderSize];
  snprintf(line, sizeof line, "X-Orlith-Timeout: %dms", timeout_ms);
  append(list, line);
  if (hdrs != nullptr) {
    ruxo_hash_each(hdrs, append_entry, &list);
    ruxo_hash_destroy(hdrs, free);
  }
  return list;
}

// 0, -1 or -2, as documented for orlith_client_api_put().
int judge(long httpcode, const OrlithClientResponse &response) {
  if (httpcode != 200) return -1;
  const OrlithClientJson answer(ruxo_json_parse_n(response.text, response.len));
  if (answer == nullptr) return -1;
  ruxo_boolean has_error = ruxo_false;
  ruxo_json_object_get(answer.get(), "error", &has_error);
  if (has_error) return -1;
  const ruxo_json_object *const errors = ruxo_json_object_get(answer.get(), "errors", nullptr);
  const bool is_zero = ruxo_json_is_int64(errors) && ruxo_json_int(errors) == 0;
  return ruxo_json_type(errors) != RUXO_JSON_INT || is_zero ? 0 : -2;
}

struct Upload {
  int fd;
  off_t size;
  const char *url;
  const char *method;
  int timeout_ms, connect_timeout_ms;
};

void prepare(CURL *curl, Upload *upload, curl_slist *headers, OrlithClientResponse *response) {
  curl_easy_setopt(curl, CURLOPT_URL, upload->url);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(upload->connect_timeout_ms));
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, static_cast<long>(upload->timeout_ms));
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, response);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, orlith_client_take_response);
  curl_easy_setopt(curl, CURLOPT_UPLOAD, 1L);
  curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, upload->method);
  curl_easy_setopt(curl, CURLOPT_READFUNCTION, simple_readfile);
  curl_easy_setopt(curl, CURLOPT_READDATA, &upload->fd);
  curl_easy_setopt(curl, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(upload->size));
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  orlith_client_stay_with_peer(curl);
}

void log_refusal(int result, const char *url, long httpcode, const OrlithClientResponse &response) {
  ruxo_log(ruxo_error, "(%s) - >>>>>>\n%s\n%03ld>>>\n%s\n>>>>>>\n", result == -1 ? "fatal" : "non-fatal", url,
           httpcode, response.text);
}

// The libcurl code of the transfer, or of asking for the status.
CURLcode perform(CURL *curl, const topo_config *tc, const char *url, long *httpcode) {
  CURLcode code = topo_curl_perform(curl, tc);
  if (code == CURLE_OK) code = curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, httpcode);
  if (code != CURLE_OK) {
    ruxo_log(ruxo_error, "orlith_client_api_put to %s failed - code %d (%s)\n", url, static_cast<int>(code),
             curl_easy_strerror(code));
  }
  return code;
}

}  // namespace

int orlith_client_api_put(orlith_client_t *c, const char *host, const char *api, int fd,
                          const char *custom_request, ruxo_hash_table *hdrs, int *ret_code) {
  int ignored = 0;
  int &told = ret_code == nullptr ? ignored : *ret_code;
  told = -1;
  const off_t size = rewind_and_measure(fd);
  char *text = nullptr;
  if (size < 0 || asprintf(&text, "%s%s", host, api) < 0) return -1;
  const OrlithClientText url(text);
  const OrlithClientCurl curl(curl_easy_init());
  if (curl == nullptr) return -1;

  Upload upload = {fd,
                   size,
                   url.get(),
                   custom_request == nullptr ? "PUT" : custom_request,
                   __atomic_load_n(&c->timeout, __ATOMIC_RELAXED),
                   __atomic_load_n(&c->connecttimeout, __ATOMIC_RELAXED)};
  const Slist headers = upload_headers(upload.timeout_ms, hdrs);
  OrlithClientResponse response;
  prepare(curl.get(), &upload, headers.get(), &response);
  long httpcode = 500;
  told = perform(curl.get(), orlith_client_peek_topo(c), url.get(), &httpcode);
  if (told != CURLE_OK) return told;
  const int result = judge(httpcode, response);
  if (result != 0) log_refusal(result, url.get(), httpcode, response);
  if (result == -1) told = -1;
  return result;
}
