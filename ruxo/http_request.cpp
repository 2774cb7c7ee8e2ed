// What handlers ask about a request.
#include <strings.h>

#include <cstring>

#include "ruxo/guard_private.h"
#include "ruxo/http_private.h"

namespace ruxo::http {

size_t Request::keep(std::string_view bytes) {
  const size_t offset = text.size();
  text.append(bytes).push_back('\0');
  return offset;
}

void Request::clear() {
  constexpr size_t kMostKept = 8192;
  if (text.capacity() > kMostKept) text = {};
  text.clear();
  fields.clear();
  joined.clear();
  method = path = 0;
  query = kNone;
  content_length = 0;
  http11 = keep_alive = expects_continue = false;
}

const char *Request::header(std::string_view name) {
  const Field *found = nullptr;
  std::string *all = nullptr;
  for (const Field &field : fields) {
    if (field.name_len != name.size() || strncasecmp(at(field.name), name.data(), name.size()) != 0) continue;
    if (found == nullptr) {
      found = &field;
    } else {
      if (all == nullptr) all = &joined.emplace_front(at(found->value));
      all->append(", ").append(at(field.value));
    }
  }
  if (all != nullptr) return all->c_str();
  return found == nullptr ? nullptr : at(found->value);
}

}  // namespace ruxo::http

namespace {

int hex_digit(char byte) {
  if (byte >= '0' && byte <= '9') return byte - '0';
  if (byte >= 'a' && byte <= 'f') return byte - 'a' + 10;
  if (byte >= 'A' && byte <= 'F') return byte - 'A' + 10;
  return -1;
}

bool is_control(char byte) {
  return static_cast<unsigned char>(byte) < 0x20 || byte == 0x7f;
}

// A component of a path that stays where it is.
bool is_plain(std::string_view component) {
  if (component.empty() || component == "." || component == "..") return false;
  for (const char byte : component) {
    if (is_control(byte)) return false;
  }
  return true;
}

}  // namespace

ssize_t ruxo_http_percent_decode(const char *text, char *buff, size_t size) {
  size_t len = 0;
  for (; *text != '\0'; ++text) {
    char byte = *text;
    if (byte == '%') {
      const int high = hex_digit(text[1]);
      const int low = high < 0 ? -1 : hex_digit(text[2]);
      if (low < 0 || high + low == 0) return -1;
      byte = static_cast<char>(high * 16 + low);
      text += 2;
    }
    if (len + 1 >= size) return -1;
    buff[len++] = byte;
  }
  if (size == 0) return -1;
  buff[len] = '\0';
  return static_cast<ssize_t>(len);
}

ssize_t ruxo_http_safe_path(const char *text, char *buff, size_t size) {
  const ssize_t len = ruxo_http_percent_decode(text, buff, size);
  if (len < 0) return -1;
  std::string_view rest(buff, static_cast<size_t>(len));
  for (;;) {
    const size_t slash = rest.find('/');
    if (!is_plain(rest.substr(0, slash))) return -1;
    if (slash == std::string_view::npos) return len;
    rest.remove_prefix(slash + 1);
  }
}

const char *ruxo_http_request_method(const ruxo_http_session_ctx *ctx) {
  return ctx->request->at(ctx->request->method);
}

const char *ruxo_http_request_path(const ruxo_http_session_ctx *ctx) {
  return ctx->request->at(ctx->request->path);
}

const char *ruxo_http_request_query(const ruxo_http_session_ctx *ctx) {
  const ruxo::http::Request &request = *ctx->request;
  return request.query == ruxo::http::Request::kNone ? nullptr : request.at(request.query);
}

const char *ruxo_http_request_header(ruxo_http_session_ctx *ctx, const char *name) {
  return ruxo::guarded<const char *>(nullptr, [&] { return ctx->request->header(name); });
}

int64_t ruxo_http_request_content_length(const ruxo_http_session_ctx *ctx) {
  return ctx->request->content_length;
}

const char *ruxo_http_request_peer(const ruxo_http_session_ctx *ctx) {
  return ctx->connection->peer();
}

void ruxo_http_session_set_closure(ruxo_http_session_ctx *ctx, void *closure) {
  ctx->closure = closure;
}
void *ruxo_http_session_closure(const ruxo_http_session_ctx *ctx) {
  return ctx->closure;
}
