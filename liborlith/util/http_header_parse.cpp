#include "liborlith/util/http_header_parse.h"

#include <cstring>

#include "ruxo/util.h"

namespace {

// What isspace() takes in the "C" locale; the process may have another.
bool is_space(char c) noexcept {
  return c == ' ' || (c >= '\t' && c <= '\r');
}

const char *skip_space(const char *from, const char *end) noexcept {
  while (from != end && is_space(*from)) ++from;
  return from;
}

bool is_status_line(const char *line, size_t len) noexcept {
  return ruxo_memmem(line, len, "HTTP/", 5) != nullptr;
}

void to_lower(char *text) noexcept {
  for (; *text != '\0'; ++text) {
    if (*text >= 'A' && *text <= 'Z') *text = static_cast<char>(*text - 'A' + 'a');
  }
}

// Sets key and value within the `len` bytes of the buffer; false for a line that is no header.
bool split(http_header_parse_ctx_t *ctx, size_t len) noexcept {
  char *const end = ctx->buffer + len;
  auto *colon = static_cast<char *>(memchr(ctx->buffer, ':', len));
  if (colon == nullptr) return false;
  *colon = '\0';
  ctx->key = ctx->buffer;
  to_lower(ctx->key);
  ctx->value = ctx->buffer + (skip_space(colon + 1, end) - ctx->buffer);
  auto *line_end = static_cast<char *>(
      const_cast<void *>(ruxo_memmem(ctx->value, static_cast<size_t>(end - ctx->value), "\r\n", 2)));
  if (line_end == nullptr) return false;
  *line_end = '\0';
  return true;
}

}  // namespace

void http_header_parse_ctx_init(http_header_parse_ctx_t *ctx, http_header_parse_f cb, void *closure) {
  ctx->parse_cb = cb;
  ctx->parse_closure = closure;
  http_header_parse_ctx_reset(ctx);
}

void http_header_parse_ctx_reset(http_header_parse_ctx_t *ctx) {
  ctx->state = HTTP_HEADER_PARSE_STATE_EMPTY;
  ctx->key = nullptr;
  ctx->value = nullptr;
  ctx->filled = 0;
}

size_t http_header_parse(char *ptr, size_t size, size_t nmemb, void *closure) {
  auto *ctx = static_cast<http_header_parse_ctx_t *>(closure);
  const size_t len = size * nmemb;
  if (len == 0 || len > sizeof ctx->buffer || is_status_line(ptr, len)) return len;
  const char *const end = ptr + len;
  const char *const line = skip_space(ptr, end);
  const auto line_len = static_cast<size_t>(end - line);
  memcpy(ctx->buffer, line, line_len);
  if (split(ctx, line_len)) ctx->parse_cb(ctx->key, ctx->value, ctx->parse_closure);
  http_header_parse_ctx_reset(ctx);
  return len;
}
