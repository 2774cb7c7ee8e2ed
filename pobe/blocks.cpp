#include "pobe/blocks_private.h"

#include <cstring>

namespace pobe {
namespace {

// Whether `text` holds the three bytes of `marker`. Its last byte, a bracket, is the rare one: look for that.
bool has_marker(std::string_view text, const char (&marker)[4]) noexcept {
  size_t from = 2;
  while (from < text.size()) {
    const void *found = std::memchr(text.data() + from, marker[2], text.size() - from);
    if (found == nullptr) return false;
    const char *bracket = static_cast<const char *>(found);
    if (bracket[-2] == marker[0] && bracket[-1] == marker[1]) return true;
    from = static_cast<size_t>(bracket - text.data()) + 1;
  }
  return false;
}

BlockKind kind_of(std::string_view text) noexcept {
  if (text.empty()) return BlockKind::none;
  if (has_marker(text, "MT{")) return text.back() == '}' ? BlockKind::measurement : BlockKind::none;
  return text.back() == ']' && has_marker(text, "ST[") ? BlockKind::stream : BlockKind::none;
}

}  // namespace

Block take_last_block(std::string_view &name) noexcept {
  if (name.empty()) return {BlockKind::none, {}};
  const void *found = memrchr(name.data(), '|', name.size());
  if (found == nullptr) return {BlockKind::none, {}};
  const size_t bar = static_cast<size_t>(static_cast<const char *>(found) - name.data());
  const std::string_view text = name.substr(bar + 1);
  const BlockKind kind = kind_of(text);
  if (kind == BlockKind::none) return {BlockKind::none, {}};
  name = name.substr(0, bar);
  return {kind, text};
}

}  // namespace pobe
