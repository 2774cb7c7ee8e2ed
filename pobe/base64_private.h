// Strict decoding of standard base64 (RFC 4648, section 4). Internal to the library.
#ifndef POBE_BASE64_PRIVATE_H
#define POBE_BASE64_PRIVATE_H

#include <cstddef>
#include <optional>
#include <string_view>

namespace pobe {

// Whether `byte` is of the alphabet or is the padding "=".
[[nodiscard]] bool is_base64_byte(char byte) noexcept;

constexpr size_t base64_decoded_capacity(size_t encoded_size) {
  return encoded_size / 4 * 3;
}

// Decodes into `out`, which holds base64_decoded_capacity(encoded.size()) bytes, and returns the decoded
// size. None when the size is no multiple of 4, a byte is not of the alphabet, padding stands anywhere but at
// the end, or the bits that padding leaves unused are not zero: so every byte string has exactly one
// spelling.
[[nodiscard]] std::optional<size_t> base64_decode(std::string_view encoded, char *out) noexcept;

}  // namespace pobe

#endif
