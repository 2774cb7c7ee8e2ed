// Base64 both ways: what is decoded encodes to the very text again, what is encoded decodes to the very
// bytes.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "ruxo/b64.h"

namespace {

void check(bool holds) {
  if (!holds) abort();
}

std::string encode(const void *bytes, size_t len) {
  std::string text(ruxo_b64_encode_len(len), '\0');
  check(ruxo_b64_encode(bytes, len, text.data(), text.size()) == text.size());
  return text;
}

// Empty when refused.
std::string decode(const char *text, size_t len) {
  std::string bytes(ruxo_b64_max_decode_len(len), '\0');
  bytes.resize(ruxo_b64_decode(text, len, bytes.data(), bytes.size()));
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string as_text = decode(reinterpret_cast<const char *>(data), size);
  if (!as_text.empty()) {
    const std::string again = encode(as_text.data(), as_text.size());
    check(again.size() == size && memcmp(again.data(), data, size) == 0);
    // The same with exactly the room that is needed, and refused with a byte less.
    std::string exact(as_text.size(), '\0');
    check(ruxo_b64_decode(again.data(), size, exact.data(), exact.size()) == exact.size() &&
          exact == as_text);
    check(ruxo_b64_decode(again.data(), size, exact.data(), exact.size() - 1) == 0);
  }
  const std::string text = encode(data, size);
  const std::string bytes = decode(text.data(), text.size());
  check(bytes.size() == size && (size == 0 || memcmp(bytes.data(), data, size) == 0));
  return 0;
}
