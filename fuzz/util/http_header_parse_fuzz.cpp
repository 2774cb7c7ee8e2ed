// Response header lines of any bytes: nothing is read beyond the line, and what is handed on is a split of it.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <vector>

#include "liborlith/util/http_header_parse.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void check(char *key, char *value, void *closure) {
  const std::string_view line = *static_cast<std::string_view *>(closure);
  require(line.find("HTTP/") == std::string_view::npos);
  require(strlen(key) + strlen(value) + 3 <= line.size());
  for (const char *c = key; *c != '\0'; ++c) require(*c != ':' && !(*c >= 'A' && *c <= 'Z'));
  require(strstr(value, "\r\n") == nullptr);
  require(line.find(value) != std::string_view::npos);
  memset(key, 'k', strlen(key));  // both are the callee's to change
  memset(value, 'v', strlen(value));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const auto ctx = std::make_unique<http_header_parse_ctx_t>();
  std::string_view line(reinterpret_cast<const char *>(data), size);
  std::vector<char> bytes(data, data + size);
  http_header_parse_ctx_init(ctx.get(), check, &line);
  require(http_header_parse(bytes.data(), 1, bytes.size(), ctx.get()) == size);
  require(ctx->key == nullptr && ctx->value == nullptr && ctx->filled == 0);
  return 0;
}
