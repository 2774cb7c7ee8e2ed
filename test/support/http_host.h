// A server for a test, whose handlers are lambdas.
#ifndef TEST_SUPPORT_HTTP_HOST_H
#define TEST_SUPPORT_HTTP_HOST_H

#include <cstdlib>
#include <deque>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

#include "ruxo/http.h"
#include "test/support/event_loops.h"

inline ruxo_http_limits_t http_limits() {
  ruxo_http_limits_t limits;
  ruxo_http_limits_default(&limits);
  return limits;
}

// Loop threads and a server on them, while it lives.
class HttpHost {
 public:
  using Work =
      std::function<int(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes)>;

  explicit HttpHost(const ruxo_http_limits_t &limits = http_limits(), unsigned threads = 1)
      : loops_(threads), server_(ruxo_http_server_new(&limits)) {}
  ~HttpHost() { stop(5000); }
  HttpHost(const HttpHost &) = delete;
  HttpHost &operator=(const HttpHost &) = delete;

  ruxo_http_server_t *server() const { return server_; }

  void route(const char *method, const char *path, Work work, uint64_t max_body = 0) {
    works_.push_back(std::move(work));
    if (ruxo_http_server_route(server_, method, path, max_body, call, &works_.back()) != 0)
      throw std::runtime_error("a route was refused");
  }
  // Answers when all has been read.
  void answer(const char *method, const char *path, std::function<void(ruxo_http_session_ctx *ctx)> work,
              uint64_t max_body = 0) {
    route(
        method, path,
        [work = std::move(work)](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
          if (phase == RUXO_HTTP_COMPLETE) work(ctx);
          return 0;
        },
        max_body);
  }

  // The port.
  int listen() {
    char *err = nullptr;
    port_ = ruxo_http_server_listen(server_, "127.0.0.1", 0, &err);
    if (port_ <= 0) throw std::runtime_error(err);
    free(err);
    return port_;
  }
  int port() const { return port_; }

  // The number of connections that were cut; again, 0.
  size_t stop(uint64_t grace_ms) {
    ruxo_http_server_t *const server = std::exchange(server_, nullptr);
    return server == nullptr ? 0 : ruxo_http_server_stop(server, grace_ms);
  }

 private:
  static int call(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *bytes, size_t len,
                  void *closure) {
    return (*static_cast<Work *>(closure))(ctx, phase, {static_cast<const char *>(bytes), len});
  }

  std::deque<Work> works_;
  EventLoops loops_;
  ruxo_http_server_t *server_;
  int port_ = 0;
};

#endif
