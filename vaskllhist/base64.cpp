// The stored form as text: standard base64 with padding (RFC 4648, section 4).
#include <array>
#include <cstdint>
#include <memory>
#include <new>
#include <string_view>

#include "vaskllhist/vaskllhist.h"

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t kNoDigit = 0xff;

constexpr std::array<uint8_t, 256> make_digits() {
  std::array<uint8_t, 256> digits{};
  digits.fill(kNoDigit);
  for (size_t i = 0; i < kAlphabet.size(); ++i)
    digits[static_cast<uint8_t>(kAlphabet[i])] = static_cast<uint8_t>(i);
  return digits;
}

constexpr std::array<uint8_t, 256> kDigits = make_digits();

constexpr size_t encoded_size(size_t size) {
  return (size + 2) / 3 * 4;
}

void encode(const uint8_t *bytes, size_t size, char *text) {
  for (size_t at = 0; at < size; at += 3, text += 4) {
    const size_t present = size - at < 3 ? size - at : 3;
    uint32_t bits = 0;
    for (size_t i = 0; i < 3; ++i) bits = bits << 8 | (i < present ? bytes[at + i] : uint32_t{0});
    for (size_t i = 0; i < 4; ++i) text[i] = i <= present ? kAlphabet[bits >> (18 - 6 * i) & 63] : '=';
  }
}

// Decodes whole groups into `bytes`, which has room for 3 bytes each. Returns the number of bytes; -1 for anything but
// the one spelling that they have: foreign characters, padding elsewhere than at the end, bits left over.
ssize_t decode(std::string_view text, uint8_t *bytes) {
  if (text.empty() || text.size() % 4 != 0) return -1;
  const size_t padding = text.ends_with("==") ? 2 : text.ends_with('=') ? 1 : 0;
  ssize_t size = 0;
  for (size_t at = 0; at < text.size(); at += 4) {
    const size_t absent = at + 4 == text.size() ? padding : 0;
    uint32_t bits = 0;
    for (size_t i = 0; i < 4; ++i) {
      const uint8_t digit = i < 4 - absent ? kDigits[static_cast<uint8_t>(text[at + i])] : 0;
      if (digit == kNoDigit) return -1;
      bits = bits << 6 | digit;
    }
    if ((bits & ((uint32_t{1} << (8 * absent)) - 1)) != 0) return -1;
    for (size_t i = 0; i < 3 - absent; ++i) bytes[size++] = static_cast<uint8_t>(bits >> (16 - 8 * i));
  }
  return size;
}

std::unique_ptr<uint8_t[]> buffer_of(size_t size) {
  return std::unique_ptr<uint8_t[]>(new (std::nothrow) uint8_t[size]);
}

}  // namespace

size_t hist_serialized_b64_size(const histogram_t *h) {
  return encoded_size(hist_serialized_size(h));
}

ssize_t hist_serialize_b64(const histogram_t *h, char *text, size_t len) {
  const size_t size = hist_serialized_size(h);
  const size_t text_size = encoded_size(size);
  if (text == nullptr || text_size > len) return -1;
  const auto bytes = buffer_of(size);
  if (!bytes || hist_serialize(h, bytes.get(), size) < 0) return -1;
  encode(bytes.get(), size, text);
  if (text_size < len) text[text_size] = '\0';
  return static_cast<ssize_t>(text_size);
}

ssize_t hist_deserialize_b64(histogram_t *h, const char *text, size_t len) {
  if (text == nullptr) return -1;
  const auto bytes = buffer_of(len / 4 * 3);
  if (!bytes) return -1;
  const ssize_t size = decode({text, len}, bytes.get());
  if (size < 0 || hist_deserialize(h, bytes.get(), static_cast<size_t>(size)) < 0) return -1;
  return static_cast<ssize_t>(len);
}
