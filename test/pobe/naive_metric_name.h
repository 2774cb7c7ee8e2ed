// The grammar of metric names and tags once more, written for plainness and independent of the library:
// strings, sets, one character at a time. What the library is compared with.
#ifndef TEST_POBE_NAIVE_METRIC_NAME_H
#define TEST_POBE_NAIVE_METRIC_NAME_H

#include <cstdint>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace naive {

using Pair = std::pair<std::string, std::string>;  // std::string compares as unsigned bytes

inline std::string utf8_of(uint32_t c) {
  const auto tail = [c](int shift) { return static_cast<char>(0x80 | (c >> shift & 0x3f)); };
  if (c < 0x80) return {static_cast<char>(c)};
  if (c < 0x800) return {static_cast<char>(0xc0 | c >> 6), tail(0)};
  if (c < 0x10000) return {static_cast<char>(0xe0 | c >> 12), tail(6), tail(0)};
  return {static_cast<char>(0xf0 | c >> 18), tail(12), tail(6), tail(0)};
}

// Reads each character as its lead byte says, and accepts it if writing it again gives the same bytes.
inline bool is_clean_text(const std::string &text) {
  for (size_t at = 0; at < text.size();) {
    const auto byte = [&](size_t i) { return static_cast<uint32_t>(static_cast<uint8_t>(text[at + i])); };
    const uint32_t lead = byte(0);
    const size_t size = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    if (size == 0 || at + size > text.size()) return false;
    uint32_t c = size == 1 ? lead : lead & (0x7fu >> size);
    for (size_t i = 1; i < size; ++i) c = c << 6 | (byte(i) & 0x3f);
    if (utf8_of(c) != text.substr(at, size)) return false;
    if (c > 0x10ffff || (c >= 0xd800 && c <= 0xdfff)) return false;
    if (c < 0x20 || (c >= 0x7f && c <= 0x9f)) return false;
    at += size;
  }
  return true;
}

constexpr const char *kBase64Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

inline std::string base64_encode(const std::string &bytes) {
  std::string bits;
  for (const char byte : bytes)
    for (int i = 7; i >= 0; --i) bits += static_cast<uint8_t>(byte) >> i & 1 ? '1' : '0';
  while (bits.size() % 6 != 0) bits += '0';
  std::string text;
  for (size_t at = 0; at < bits.size(); at += 6)
    text += kBase64Alphabet[std::stoul(bits.substr(at, 6), nullptr, 2)];
  while (text.size() % 4 != 0) text += '=';
  return text;
}

// Every spelling but the encoder's own is refused.
inline std::optional<std::string> base64_decode(const std::string &text) {
  std::string bits;
  for (const char c : text.substr(0, text.find('='))) {
    const size_t digit = std::string(kBase64Alphabet).find(c);
    if (digit == std::string::npos) return std::nullopt;
    for (int i = 5; i >= 0; --i) bits += digit >> i & 1 ? '1' : '0';
  }
  std::string bytes;
  for (size_t at = 0; at + 8 <= bits.size(); at += 8)
    bytes += static_cast<char>(std::stoul(bits.substr(at, 8), nullptr, 2));
  if (base64_encode(bytes) != text) return std::nullopt;
  return bytes;
}

inline std::vector<std::string> split(const std::string &text, char separator) {
  std::vector<std::string> parts(1);
  for (const char c : text) {
    if (c == separator)
      parts.emplace_back();
    else
      parts.back() += c;
  }
  return parts;
}

inline bool can_be_plain(const std::string &side, bool is_category) {
  if (side.find_first_of(is_category ? ",:|[]{}\"" : ",|[]{}\"") != std::string::npos) return false;
  return side.empty() || (side.front() != ' ' && side.back() != ' ');
}

// What a written side means.
inline std::optional<std::string> read_side(const std::string &written, bool is_category) {
  std::optional<std::string> side = written;
  if (written.size() >= 3 && written.substr(0, 2) == "b\"" && written.back() == '"')
    side = base64_decode(written.substr(2, written.size() - 3));
  else if (!can_be_plain(written, is_category))
    return std::nullopt;
  if (!side || side->size() > 254 || (is_category && side->empty()) || !is_clean_text(*side))
    return std::nullopt;
  return side;
}

inline std::string write_side(const std::string &side, bool is_category) {
  return can_be_plain(side, is_category) ? side : "b\"" + base64_encode(side) + "\"";
}

inline std::string write_category(const Pair &tag) {
  return write_side(tag.first, true);
}
inline std::string write_value(const Pair &tag) {
  return write_side(tag.second, false);
}

// The tags of a list in the order of the text.
inline std::optional<std::vector<Pair>> read_tags(const std::string &list) {
  std::vector<Pair> tags;
  if (list.empty()) return tags;
  for (const std::string &tag : split(list, ',')) {
    const size_t colon = tag.find(':');  // no base64 holds a colon
    if (colon == std::string::npos) return std::nullopt;
    const auto category = read_side(tag.substr(0, colon), true);
    const auto value = read_side(tag.substr(colon + 1), false);
    if (!category || !value) return std::nullopt;
    tags.emplace_back(*category, *value);
  }
  if (tags.size() > 256) return std::nullopt;
  return tags;
}

inline std::string write_tags(const std::set<Pair> &tags) {
  std::string text;
  for (const Pair &tag : tags)
    text += (text.empty() ? "" : ",") + write_category(tag) + ":" + write_value(tag);
  return text;
}

struct Flags {
  bool accept_stream_tags = true;
  bool accept_measurement_tags = true;
  bool keep_measurement_tags = false;
};

struct Name {
  std::string plain;
  std::set<Pair> stream_tags;
  std::set<Pair> measurement_tags;  // only when they are kept
};

// Takes a name apart; none when it is refused.
inline std::optional<Name> read_name(const std::string &text, Flags flags = {}) {
  if (!is_clean_text(text)) return std::nullopt;
  Name name{text, {}, {}};
  size_t stream_blocks = 0;
  size_t measurement_tags = 0;
  for (;;) {
    const size_t bar = name.plain.rfind('|');
    if (bar == std::string::npos || bar + 1 == name.plain.size()) return name;
    const std::string block = name.plain.substr(bar + 1);
    const bool is_measurement = block.find("MT{") != std::string::npos;
    if (is_measurement ? block.back() != '}' : block.find("ST[") == std::string::npos || block.back() != ']')
      return name;
    name.plain.resize(bar);
    if (is_measurement ? !flags.accept_measurement_tags : !flags.accept_stream_tags) return std::nullopt;
    if (is_measurement && !flags.keep_measurement_tags) continue;
    if (block.substr(0, 3) != (is_measurement ? "MT{" : "ST[")) return std::nullopt;
    if (!is_measurement && ++stream_blocks == 2) return std::nullopt;
    const auto tags = read_tags(block.substr(3, block.size() - 4));
    if (!tags) return std::nullopt;
    if (is_measurement) measurement_tags += tags->size();
    if (measurement_tags > 256) return std::nullopt;
    (is_measurement ? name.measurement_tags : name.stream_tags).insert(tags->begin(), tags->end());
  }
}

inline std::string write_name(const Name &name) {
  std::string text = name.plain;
  if (!name.stream_tags.empty()) text += "|ST[" + write_tags(name.stream_tags) + "]";
  if (!name.measurement_tags.empty()) text += "|MT{" + write_tags(name.measurement_tags) + "}";
  return text;
}

inline std::optional<std::string> canonicalize(const std::string &text, Flags flags = {}) {
  const auto name = read_name(text, flags);
  if (!name) return std::nullopt;
  return write_name(*name);
}

}  // namespace naive

#endif
