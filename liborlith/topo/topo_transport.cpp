// Requests to peers: where libcurl finds a node, whom it trusts, and what tracing learns of the request.
#include <cstdlib>
#include <cstring>

#include "liborlith/topo/topo.h"
#include "ruxo/zipkin.h"

namespace {

// For topologies without a bundle of authorities of their own.
char *global_ca_chain = nullptr;

void topo_curl_set_tls(CURL *curl, const topo_config *tc) {
  const char *const own = tc == nullptr ? nullptr : tc->ca_chain;
  const char *const ca_chain = own == nullptr ? global_ca_chain : own;
  if (ca_chain == nullptr) return;
  if (curl_easy_setopt(curl, CURLOPT_CAINFO, ca_chain) == CURLE_OK) return;
  ruxo_log(ruxo_error, "%s: could not set CURLOPT_CAINFO via curl_easy_setopt\n", "topo_curl_set_tls");
}

// What libcurl knows about the answer. An item that it cannot tell is left out.
void annotate_answer(ruxo_zipkin_span *span, CURL *curl) {
  long number = 0;
  const char *text = nullptr;
  if (curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &number) == CURLE_OK) {
    ruxo_zipkin_span_bannotate_i32(span, "http.status_code", static_cast<int32_t>(number));
  }
  if (curl_easy_getinfo(curl, CURLINFO_PRIMARY_PORT, &number) == CURLE_OK && number != 0) {
    ruxo_zipkin_span_bannotate_i32(span, "peer.port", static_cast<int32_t>(number));
  }
  if (curl_easy_getinfo(curl, CURLINFO_PRIMARY_IP, &text) == CURLE_OK && text != nullptr) {
    const bool is_ipv6 = strchr(text, ':') != nullptr;
    ruxo_zipkin_span_bannotate_str(span, is_ipv6 ? "peer.ipv6" : "peer.ipv4", text);
  }
  if (curl_easy_getinfo(curl, CURLINFO_EFFECTIVE_URL, &text) == CURLE_OK && text != nullptr) {
    ruxo_zipkin_span_bannotate_str(span, "http.uri", text);
  }
}

}  // namespace

const char *topo_host_config_url_prefix(const host_config *hc) {
  return hc->url_prefix;
}

const curl_slist *topo_curl_connect_to(const topo_config *tc) {
  return tc == nullptr ? nullptr : tc->connect_to;
}

bool topo_curl_tls_enabled(const topo_config *tc) {
  return tc != nullptr && tc->use_tls;
}

void topo_set_ca_chain(topo_config *tc, const char *ca_chain) {
  char *const copy = ca_chain == nullptr ? nullptr : strdup(ca_chain);
  if (ca_chain != nullptr && copy == nullptr) {
    ruxo_log(ruxo_error, "topo_set_ca_chain: no memory, %s is not used\n", ca_chain);
    return;
  }
  char *&kept = tc == nullptr ? global_ca_chain : tc->ca_chain;
  free(kept);
  kept = copy;
}

void topo_curl_setup(CURL *curl, const topo_config *tc) {
  topo_curl_set_tls(curl, tc);
  if (tc == nullptr) return;
  if (curl_easy_setopt(curl, CURLOPT_CONNECT_TO, tc->connect_to) == CURLE_OK) return;
  ruxo_log(ruxo_error, "%s: Unable to set CURLOPT_CONNECT_TO value via curl_easy_setopt\n",
           "topo_curl_setup");
}

CURLcode topo_curl_perform(CURL *curl, const topo_config *tc) {
  topo_curl_setup(curl, tc);
  ruxo_zipkin_span *const span = ruxo_zipkin_client_span();
  ruxo_zipkin_span_annotate(span, ZIPKIN_CLIENT_SEND);
  const CURLcode result = curl_easy_perform(curl);
  // A request made from this one's callbacks has put an end to the span.
  if (span == nullptr || span != ruxo_zipkin_client_span()) return result;
  annotate_answer(span, curl);
  ruxo_zipkin_span_annotate(span, ZIPKIN_CLIENT_RECV);
  ruxo_zipkin_client_publish();
  return result;
}
