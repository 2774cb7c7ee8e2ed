// A request that has been read, and the one answer to it, which is logged.
#ifndef ORLITHD_EXCHANGE_H
#define ORLITHD_EXCHANGE_H

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

#include "ruxo/http.h"
#include "ruxo/log.h"

// One line a request, once its answer is ready: "PEER METHOD PATH STATUS BYTES MICROSECONDS us".
extern ruxo_log_stream_t request_log;

class Exchange {
 public:
  using Clock = std::chrono::steady_clock;
  explicit Exchange(ruxo_http_session_ctx *ctx) : ctx_(ctx), start_(Clock::now()) {}

  ruxo_http_session_ctx *context() const { return ctx_; }
  // The path behind a route's prefix, percent-decoded; nothing where it is not fit to be below a folder.
  std::optional<std::string> path_behind(std::string_view prefix) const;
  const char *path() const;
  const char *query() const;  // never null

  // Each of these answers and ends the session, which must not be used any more. None throws.
  void text(int status, const char *content_type, std::string_view body) noexcept;
  // {"error": MESSAGE}
  void error(int status, const char *message) noexcept;
  // `len` bytes of the file from its begin.
  void file(int fd, size_t len) noexcept;

 private:
  void end(int status, size_t body_bytes) noexcept;

  ruxo_http_session_ctx *ctx_;
  Clock::time_point start_;
};

#endif
