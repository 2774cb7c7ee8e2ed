#include "ruxo/utf8_private.h"

#include <cstdint>

namespace {

uint8_t byte_at(std::string_view text, size_t index) {
  return static_cast<uint8_t>(text[index]);
}

struct Lead {
  size_t len;  // 0: not a lead byte
  uint8_t second_min, second_max;
};

// The second byte's range excludes overlong forms, surrogates and what lies above U+10FFFF (RFC 3629, section
// 4).
Lead classify(uint8_t lead) {
  if (lead < 0x80) return {1, 0, 0};
  if (lead < 0xc2) return {0, 0, 0};
  if (lead < 0xe0) return {2, 0x80, 0xbf};
  if (lead == 0xe0) return {3, 0xa0, 0xbf};
  if (lead == 0xed) return {3, 0x80, 0x9f};
  if (lead < 0xf0) return {3, 0x80, 0xbf};
  if (lead == 0xf0) return {4, 0x90, 0xbf};
  if (lead < 0xf4) return {4, 0x80, 0xbf};
  if (lead == 0xf4) return {4, 0x80, 0x8f};
  return {0, 0, 0};
}

}  // namespace

size_t ruxo::utf8_character_len(std::string_view text) {
  if (text.empty()) return 0;
  const Lead lead = classify(byte_at(text, 0));
  if (lead.len <= 1) return lead.len;
  if (text.size() < lead.len) return 0;
  if (byte_at(text, 1) < lead.second_min || byte_at(text, 1) > lead.second_max) return 0;
  for (size_t i = 2; i < lead.len; ++i) {
    if ((byte_at(text, i) & 0xc0) != 0x80) return 0;
  }
  return lead.len;
}

bool ruxo::utf8_is_valid(std::string_view text) {
  while (!text.empty()) {
    const size_t len = utf8_character_len(text);
    if (len == 0) return false;
    text.remove_prefix(len);
  }
  return true;
}

std::string ruxo::utf8_repaired(std::string_view text) {
  std::string repaired;
  while (!text.empty()) {
    const size_t len = utf8_character_len(text);
    repaired.append(len == 0 ? std::string_view("\xef\xbf\xbd") : text.substr(0, len));
    text.remove_prefix(len == 0 ? 1 : len);
  }
  return repaired;
}
