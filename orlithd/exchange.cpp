#include "orlithd/exchange.h"

#include <sys/mman.h>

#include <new>

#include "orlithd/metrics.h"
#include "ruxo/json.h"

ruxo_log_stream_t request_log = nullptr;

std::optional<std::string> Exchange::path_behind(std::string_view prefix) const {
  const std::string_view whole = path();
  const std::string rest(whole.substr(prefix.size()));
  std::string decoded(rest.size() + 1, '\0');
  const ssize_t len = ruxo_http_safe_path(rest.c_str(), decoded.data(), decoded.size());
  if (len < 0) return std::nullopt;
  decoded.resize(static_cast<size_t>(len));
  return decoded;
}

const char *Exchange::path() const {
  return ruxo_http_request_path(ctx_);
}

const char *Exchange::query() const {
  const char *const query = ruxo_http_request_query(ctx_);
  return query == nullptr ? "" : query;
}

void Exchange::text(int status, const char *content_type, std::string_view body) noexcept {
  ruxo_http_response_header(ctx_, "Content-Type", content_type);
  if (!body.empty() && !ruxo_http_response_append(ctx_, body.data(), body.size())) {
    status = 503;
    body = {};
  }
  ruxo_http_response_status(ctx_, status);
  end(status, body.size());
}

void Exchange::error(int status, const char *message) noexcept {
  ruxo_json_object *const answer = ruxo_json_new_object();
  ruxo_json_object *const value = ruxo_json_new_string(message);
  if (!ruxo_json_object_set(answer, "error", value)) ruxo_json_free(value);
  const char *const body = ruxo_json_text(answer);
  text(status, "application/json", body == nullptr ? "{\"error\":\"out of memory\"}" : body);
  ruxo_json_free(answer);
}

void Exchange::file(int fd, size_t len) noexcept {
  if (len > 0 && !ruxo_http_response_append_mmap_from_fd(ctx_, fd, len, MAP_SHARED, 0)) {
    error(503, "the file became shorter, or memory ran out");
    return;
  }
  ruxo_http_response_header(ctx_, "Content-Type", "application/octet-stream");
  end(200, len);
}

void Exchange::end(int status, size_t body_bytes) noexcept {
  const auto taken = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start_);
  ruxo_log(request_log, "%s %s %s %d %zu %lld us\n", ruxo_http_request_peer(ctx_),
           ruxo_http_request_method(ctx_), ruxo_http_request_path(ctx_), status, body_bytes,
           static_cast<long long>(taken.count()));
  count_answer(status, body_bytes, std::chrono::duration<double>(taken).count());
  ruxo_http_response_end(ctx_);
}
