#include "pobe/base64_private.h"

#include <array>
#include <cstdint>

namespace pobe {
namespace {

constexpr uint8_t kNoDigit = 0xff;

constexpr std::array<uint8_t, 256> make_digits() {
  constexpr std::string_view alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<uint8_t, 256> digits{};
  digits.fill(kNoDigit);
  for (size_t i = 0; i < alphabet.size(); ++i)
    digits[static_cast<uint8_t>(alphabet[i])] = static_cast<uint8_t>(i);
  return digits;
}

constexpr std::array<uint8_t, 256> kDigits = make_digits();

uint32_t digit(char byte) noexcept {
  return kDigits[static_cast<uint8_t>(byte)];
}

size_t padding_size(std::string_view encoded) noexcept {
  if (encoded.ends_with("==")) return 2;
  return encoded.ends_with('=') ? 1 : 0;
}

// The 24 bits of four bytes, the last `padding` of which are "=" and count as zero; none on a foreign byte.
std::optional<uint32_t> quantum(const char *four, size_t padding) noexcept {
  uint32_t bits = 0;
  for (size_t i = 0; i < 4; ++i) {
    const uint32_t value = i < 4 - padding ? digit(four[i]) : 0;
    if (value == kNoDigit) return std::nullopt;
    bits = bits << 6 | value;
  }
  return bits;
}

}  // namespace

bool is_base64_byte(char byte) noexcept {
  return byte == '=' || digit(byte) != kNoDigit;
}

std::optional<size_t> base64_decode(std::string_view encoded, char *out) noexcept {
  if (encoded.size() % 4 != 0) return std::nullopt;
  const size_t padding = padding_size(encoded);
  size_t size = 0;
  for (size_t at = 0; at < encoded.size(); at += 4) {
    const size_t absent = at + 4 == encoded.size() ? padding : 0;
    const std::optional<uint32_t> bits = quantum(encoded.data() + at, absent);
    if (!bits) return std::nullopt;
    const uint32_t unused = (uint32_t{1} << (8 * absent)) - 1;
    if ((*bits & unused) != 0) return std::nullopt;
    for (size_t i = 0; i < 3 - absent; ++i) out[size++] = static_cast<char>(*bits >> (16 - 8 * i) & 0xff);
  }
  return size;
}

}  // namespace pobe
