#include <cstring>

#include "orlithd/handlers.h"

namespace {

// No exception may reach the server: the client is told 500 instead.
template <void (*answer)(Node &, Exchange &)>
int on_complete(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *, size_t,
                void *closure) noexcept {
  if (phase != RUXO_HTTP_COMPLETE) return 0;
  try {
    Exchange exchange(ctx);
    answer(*static_cast<Node *>(closure), exchange);
    return 0;
  } catch (...) {
    return -1;
  }
}

// What the server would answer by itself, but with a body as all errors have, and logged.
void get_unknown(Node &, Exchange &exchange) {
  constexpr const char kUpload[] = "/upload/";
  if (strncmp(exchange.path(), kUpload, sizeof kUpload - 1) != 0)
    return exchange.error(404, "there is no such path");
  ruxo_http_response_header(exchange.context(), "Allow", "PUT");
  exchange.error(405, "uploads are put");
}

}  // namespace

int add_routes(ruxo_http_server_t *server, Node *node) {
  const struct {
    const char *path;
    ruxo_http_handler_f handler;
  } gets[] = {
      {"/state", on_complete<get_state>},      {"/topology/xml/", on_complete<get_topology>},
      {"/nnt/", on_complete<get_nnt>},         {"/livez", on_complete<get_livez>},
      {"/readyz", on_complete<get_readyz>},    {"/metrics", on_complete<get_metrics>},
      {"/proxy/nnt/", on_complete<get_proxy>}, {"/", on_complete<get_unknown>},
  };
  for (const auto &[path, handler] : gets)
    if (ruxo_http_server_route(server, "GET", path, 0, handler, node) != 0) return -1;
  return ruxo_http_server_route(server, "PUT", "/upload/", node->max_upload_bytes, put_upload, node);
}
