// What the client asks the boot nodes: the signature of the active topology, and the topology.
#include <libxml/tree.h>

#include <cstdio>
#include <cstring>

#include "liborlith/topo/orlith_client.h"
#include "liborlith/topo/orlith_client_private.h"
#include "liborlith/topo/topo_private.h"

namespace {

constexpr long kFetchTimeoutMs = 5000;  // fixed, whatever the client's time-out for uploads

// A signature comes from a peer and goes into a URL.
bool is_plain(const char *hash) {
  const auto is_plain_byte = [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  };
  for (const char *at = hash; *at != '\0'; ++at) {
    if (!is_plain_byte(*at)) return false;
  }
  return *hash != '\0';
}

// Null when memory ran out.
OrlithClientText text_of(const char *format, const char *first, const char *second) {
  char *text = nullptr;
  if (asprintf(&text, format, first, second) < 0) return nullptr;
  return OrlithClientText(text);
}

// Without the first three there is no request; the others only bound it.
bool prepare_state_request(CURL *curl, const char *function, const char *url, int connect_timeout_ms,
                           OrlithClientResponse *response) {
  if (curl_easy_setopt(curl, CURLOPT_URL, url) != CURLE_OK) {
    ruxo_log(ruxo_error, "%s: unable to set CURLOPT_URL value of %s\n", function, url);
    return false;
  }
  if (curl_easy_setopt(curl, CURLOPT_WRITEDATA, response) != CURLE_OK) {
    ruxo_log(ruxo_error, "%s: unable to set CURLOPT_WRITEDATA closure\n", function);
    return false;
  }
  if (curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, orlith_client_take_response) != CURLE_OK) {
    ruxo_log(ruxo_error, "%s: unable to set CURLOPT_WRITEFUNCTION callback\n", function);
    return false;
  }
  if (curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L) != CURLE_OK) {
    ruxo_log(ruxo_error, "%s: WARNING: unable to set CURLOPT_NOSIGNAL value of 1\n", function);
  }
  if (curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(connect_timeout_ms)) != CURLE_OK) {
    ruxo_log(ruxo_error, "%s: WARNING: unable to set CURLOPT_CONNECTTIMEOUT_MS value of %d\n", function,
             connect_timeout_ms);
  }
  if (curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, kFetchTimeoutMs) != CURLE_OK) {
    ruxo_log(ruxo_error, "%s: WARNING: unable to set CURLOPT_TIMEOUT_MS value of 5000\n", function);
  }
  orlith_client_stay_with_peer(curl);
  return true;
}

// Whether the node has answered with status 200; else that is logged.
bool fetch(CURL *curl, const topo_config *tc, const char *function, const char *host) {
  const CURLcode code = topo_curl_perform(curl, tc);
  long httpcode = 500;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &httpcode);
  if (code == CURLE_OK && httpcode == 200) return true;
  ruxo_log(ruxo_error, "%s from %s failed - code %d (%s), httpcode %ld\n", function, host,
           static_cast<int>(code), curl_easy_strerror(code), httpcode);
  return false;
}

topo_config *compile_response(const OrlithClientResponse &response, const char *hash) {
  xmlDocPtr doc = topo_parse_document(response.text, response.len, nullptr);
  if (doc == nullptr) {
    ruxo_log(ruxo_error, "error parsing xml memory in orlith_client_get_topo - len %d\n",
             static_cast<int>(response.len));
    ruxo_log(topo_debug, "error parsing xml memory - buffer was -%s-\n", response.text);
    return nullptr;
  }
  char *err = nullptr;
  topo_config *const tc = topo_compile(doc, hash, &err);
  xmlFreeDoc(doc);
  const OrlithClientText message(err);
  if (tc == nullptr)
    ruxo_log(ruxo_error, "topology compiler error: %s\n", err == nullptr ? "out of memory" : err);
  return tc;
}

}  // namespace

size_t orlith_client_take_response(char *bytes, size_t size, size_t nmemb, void *closure) {
  auto *const response = static_cast<OrlithClientResponse *>(closure);
  const size_t len = size * nmemb;
  // Anything but the chunk's length ends the transfer.
  if (len >= sizeof response->text - response->len) return 0;
  memcpy(response->text + response->len, bytes, len);
  response->len += len;
  response->text[response->len] = '\0';
  return len;
}

void orlith_client_stay_with_peer(CURL *curl) {
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 0L);
}

OrlithClientText orlith_client_parse_state(const char *text, size_t len, bool *parsed) {
  const OrlithClientJson state(ruxo_json_parse_n(text, len));
  size_t current_len = 0;
  const char *const current =
      ruxo_json_string(ruxo_json_object_get(state.get(), "current", nullptr), &current_len);
  *parsed = current != nullptr && strlen(current) == current_len;
  return OrlithClientText(*parsed ? strdup(current) : nullptr);
}

char *orlith_client_get_active_hash(orlith_client_t *c, const char *host) {
  const OrlithClientText url = text_of("%s/state%s", host, "");
  const OrlithClientCurl curl(curl_easy_init());
  if (url == nullptr || curl == nullptr) return nullptr;
  OrlithClientResponse response;
  const int connect_timeout_ms = __atomic_load_n(&c->connecttimeout, __ATOMIC_RELAXED);
  if (!prepare_state_request(curl.get(), __func__, url.get(), connect_timeout_ms, &response)) return nullptr;
  if (!fetch(curl.get(), orlith_client_peek_topo(c), __func__, host)) return nullptr;
  bool parsed = false;
  OrlithClientText current = orlith_client_parse_state(response.text, response.len, &parsed);
  if (!parsed) ruxo_log(ruxo_error, "Error: Couldn't parse state data coming from %s\n", host);
  const bool is_none = current == nullptr || strcmp(current.get(), "-") == 0;
  return is_none ? nullptr : current.release();
}

topo_config *orlith_client_get_topo(const char *host, const char *hash) {
  if (host == nullptr || hash == nullptr) return nullptr;
  if (!is_plain(hash)) {
    ruxo_log(ruxo_error, "orlith_client_get_topo from %s: \"%s\" is no signature\n", host, hash);
    return nullptr;
  }
  const OrlithClientText url = text_of("%s/topology/xml/%s", host, hash);
  const OrlithClientCurl curl(curl_easy_init());
  if (url == nullptr || curl == nullptr) return nullptr;
  OrlithClientResponse response;
  curl_easy_setopt(curl.get(), CURLOPT_URL, url.get());
  curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &response);
  curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, orlith_client_take_response);
  curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, kFetchTimeoutMs);
  orlith_client_stay_with_peer(curl.get());
  if (!fetch(curl.get(), topo_active(), __func__, host)) return nullptr;
  return compile_response(response, hash);
}
