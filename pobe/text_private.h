// What every text of a name must be: UTF-8 without control characters. Internal to the library.
#ifndef POBE_TEXT_PRIVATE_H
#define POBE_TEXT_PRIVATE_H

#include <cstdint>
#include <cstring>
#include <string_view>

namespace pobe {

// 0 when `text` is well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF)
// without U+0000 to U+001F, U+007F and U+0080 to U+009F; otherwise POBE_E_UTF8 or POBE_E_CONTROL for the
// first offence.
[[nodiscard]] int check_text(std::string_view text) noexcept;

// Zero when the eight bytes at `bytes` are all in 0x20 to 0x7e. A byte above 0x7f shows in the word itself, the
// lowest byte below 0x20 borrows in the difference, and 0x7f carries into its own top bit in the sum.
inline uint64_t unprintable_bytes(const char *bytes) noexcept {
  constexpr uint64_t each = 0x0101010101010101u;
  uint64_t word;
  std::memcpy(&word, bytes, sizeof(word));
  return (word | (word - 0x20 * each) | (word + each)) & 0x80 * each;
}

}  // namespace pobe

#endif
