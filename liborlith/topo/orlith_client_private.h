// What the files of the cluster client share.
#ifndef LIBORLITH_TOPO_ORLITH_CLIENT_PRIVATE_H
#define LIBORLITH_TOPO_ORLITH_CLIENT_PRIVATE_H

#include <curl/curl.h>

#include <cstdlib>
#include <memory>
#include <string>

#include "liborlith/topo/orlith_client.h"
#include "ruxo/json.h"

struct OrlithClientFree {
  void operator()(void *memory) const { free(memory); }
};
using OrlithClientText = std::unique_ptr<char, OrlithClientFree>;

struct OrlithClientCurlCleanup {
  void operator()(CURL *curl) const { curl_easy_cleanup(curl); }
};
using OrlithClientCurl = std::unique_ptr<CURL, OrlithClientCurlCleanup>;

struct OrlithClientJsonFree {
  void operator()(ruxo_json_object *o) const { ruxo_json_free(o); }
};
using OrlithClientJson = std::unique_ptr<ruxo_json_object, OrlithClientJsonFree>;

// An answer, of which no more than the buffer holds is taken.
struct OrlithClientResponse {
  char text[ORLITH_CLIENT_RESPONSE_BYTES] = "";
  size_t len = 0;
};

// libcurl's write callback; `response` is an OrlithClientResponse.
size_t orlith_client_take_response(char *bytes, size_t size, size_t nmemb, void *response);

// Only http and https, and no redirection: a peer does not choose where else this process goes.
void orlith_client_stay_with_peer(CURL *curl);

// The signature in an answer about a node's state: "-" when no topology is active there, null with *parsed false when
// it is not what it should be.
OrlithClientText orlith_client_parse_state(const char *text, size_t len, bool *parsed);

// The topology in force, read without the lock.
inline topo_config *orlith_client_peek_topo(const orlith_client_t *c) {
  return __atomic_load_n(&c->active_topo, __ATOMIC_ACQUIRE);
}

#endif
