#include "pobe/text_private.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "pobe/pobe.h"

namespace pobe {
namespace {

bool is_between(uint8_t byte, uint8_t first, uint8_t last) noexcept {
  return byte >= first && byte <= last;
}

// What may follow a lead byte. The second byte's range is what excludes overlong forms, surrogates and code
// points above U+10FFFF (RFC 3629, section 4); a size of 0 marks a byte that leads nothing.
struct Sequence {
  ptrdiff_t size;
  uint8_t second_first;
  uint8_t second_last;
};

Sequence sequence_of(uint8_t lead) noexcept {
  if (is_between(lead, 0xc2, 0xdf)) return {2, 0x80, 0xbf};
  if (lead == 0xe0) return {3, 0xa0, 0xbf};
  if (lead == 0xed) return {3, 0x80, 0x9f};
  if (is_between(lead, 0xe1, 0xef)) return {3, 0x80, 0xbf};
  if (lead == 0xf0) return {4, 0x90, 0xbf};
  if (is_between(lead, 0xf1, 0xf3)) return {4, 0x80, 0xbf};
  if (lead == 0xf4) return {4, 0x80, 0x8f};
  return {0, 0, 0};
}

// The size of the character at `at`, or a negative code.
ptrdiff_t character_size(const char *at, const char *end) noexcept {
  const auto byte_at = [at](ptrdiff_t i) { return static_cast<uint8_t>(at[i]); };
  const uint8_t lead = byte_at(0);
  if (lead < 0x80) return lead < 0x20 || lead == 0x7f ? ptrdiff_t{POBE_E_CONTROL} : 1;
  const Sequence sequence = sequence_of(lead);
  if (sequence.size == 0 || end - at < sequence.size) return POBE_E_UTF8;
  if (!is_between(byte_at(1), sequence.second_first, sequence.second_last)) return POBE_E_UTF8;
  for (ptrdiff_t i = 2; i < sequence.size; ++i)
    if (!is_between(byte_at(i), 0x80, 0xbf)) return POBE_E_UTF8;
  if (lead == 0xc2 && byte_at(1) < 0xa0) return POBE_E_CONTROL;  // U+0080 to U+009F
  return sequence.size;
}

}  // namespace

int check_text(std::string_view text) noexcept {
  const char *at = text.data();
  const char *const end = at + text.size();
  while (at != end) {
    if (end - at >= 8 && unprintable_bytes(at) == 0) {
      at += 8;
      continue;
    }
    const ptrdiff_t size = character_size(at, end);
    if (size < 0) return static_cast<int>(size);
    at += size;
  }
  return 0;
}

}  // namespace pobe
