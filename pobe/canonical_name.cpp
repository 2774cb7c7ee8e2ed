// Recognising, in one pass, names that are canonical as they stand: nearly all are, since they come from where they
// were made canonical before. Everything that is not of the plain common kind is left to the full parser.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "pobe/pobe.h"
#include "pobe/side_bytes_private.h"
#include "pobe/text_private.h"

namespace pobe {
namespace {

constexpr std::string_view kBlockStart = "|ST[";
constexpr size_t kMostTags = 32;

bool is_printable_ascii(std::string_view text) noexcept {
  const char *at = text.data();
  const char *const end = at + text.size();
  if (text.size() >= 8) {
    uint64_t faults = unprintable_bytes(end - 8);  // the last bytes, some of them once more below
    for (; end - at >= 8; at += 8) faults |= unprintable_bytes(at);
    return faults == 0;
  }
  for (; at != end; ++at)
    if (*at < 0x20 || *at > 0x7e) return false;
  return true;
}

bool has_good_ends(const char *start, const char *end) noexcept {
  return end - start <= POBE_MAX_SIDE_BYTES && (start == end || (*start != ' ' && end[-1] != ' '));
}

// Whether `a` comes before `b` in canonical order; most tags differ in their first byte.
bool precedes(const pobe_metric_tag_t &a, const pobe_metric_tag_t &b) noexcept {
  const auto a_first = static_cast<uint8_t>(*a.tag);
  const auto b_first = static_cast<uint8_t>(*b.tag);
  if (a_first != b_first) return a_first < b_first;
  const std::string_view a_category(a.tag, a.category_size - size_t{1});
  const std::string_view b_category(b.tag, b.category_size - size_t{1});
  const int by_category = a_category.compare(b_category);
  if (by_category != 0) return by_category < 0;
  const std::string_view a_value(a.tag + a.category_size, a.total_size - size_t{a.category_size});
  const std::string_view b_value(b.tag + b.category_size, b.total_size - size_t{b.category_size});
  return a_value < b_value;
}

// Cuts the tag at `at`, which ends before `end` or with a comma; null when it is not a plain one. An encoded side
// holds a quote, which stops it.
const char *cut_tag(const char *at, const char *end, pobe_metric_tag_t &tag) noexcept {
  const char *const category = at;
  while (at != end && (kSideStops[static_cast<uint8_t>(*at)] & kStopsCategory) == 0) ++at;
  if (at == end || *at != ':' || at == category || !has_good_ends(category, at)) return nullptr;
  const char *const value = ++at;
  while (at != end && (kSideStops[static_cast<uint8_t>(*at)] & kStopsValue) == 0) ++at;
  if ((at != end && *at != ',') || !has_good_ends(value, at)) return nullptr;
  tag = {category, static_cast<uint16_t>(at - category), static_cast<uint16_t>(value - category)};
  return at;
}

struct Tags {
  std::array<pobe_metric_tag_t, kMostTags> views;
  size_t count = 0;
};

// Cuts a list of plain tags in strictly ascending order; false for any other list.
bool cut_list(std::string_view body, Tags &tags) noexcept {
  const char *at = body.data();
  const char *const end = at + body.size();
  while (tags.count < kMostTags) {
    pobe_metric_tag_t &tag = tags.views[tags.count];
    at = cut_tag(at, end, tag);
    if (at == nullptr) return false;
    if (tags.count > 0 && !precedes(tags.views[tags.count - 1], tag)) return false;
    ++tags.count;
    if (at == end) return true;
    ++at;
  }
  return false;
}

// Where the last block starts, if the name ends in a stream-tag block and has no other block before it.
size_t find_only_block(std::string_view name) noexcept {
  const void *bar = memrchr(name.data(), '|', name.size());
  if (bar == nullptr) return std::string_view::npos;
  const auto start = static_cast<size_t>(static_cast<const char *>(bar) - name.data());
  if (!name.substr(start).starts_with(kBlockStart)) return std::string_view::npos;
  const bool block_before = start > 0 && (name[start - 1] == ']' || name[start - 1] == '}');
  return block_before ? std::string_view::npos : start;
}

bool offer(const Tags &tags, pobe_metric_tagset_validate_f validate) noexcept {
  for (size_t i = 0; i < tags.count; ++i) {
    const pobe_metric_tag_t &tag = tags.views[i];
    if (!validate(tag.tag, tag.category_size, tag.tag + tag.category_size,
                  size_t{tag.total_size} - tag.category_size))
      return false;
  }
  return true;
}

bool keep(const Tags &tags, size_t body_size, pobe_metric_tagset_t &set) noexcept {
  if (tags.count == 0) return false;  // the canonical form of an empty block is none
  auto *const views = static_cast<pobe_metric_tag_t *>(std::malloc(tags.count * sizeof(pobe_metric_tag_t)));
  if (views == nullptr) return false;
  std::memcpy(views, tags.views.data(), tags.count * sizeof(pobe_metric_tag_t));
  set = {views, static_cast<int>(tags.count), body_size};
  return true;
}

bool init_if_canonical(pobe_metric_tagset_t &set, std::string_view name,
                       pobe_metric_tagset_validate_f validate) noexcept {
  if (name.empty() || !is_printable_ascii(name) || name.back() == '}') return false;
  if (name.back() != ']') return true;  // without a closing byte at its end a name has no block
  const size_t start = find_only_block(name);
  if (start == std::string_view::npos) return false;
  const size_t body_start = start + kBlockStart.size();
  const std::string_view body = name.substr(body_start, name.size() - 1 - body_start);
  Tags tags;
  return cut_list(body, tags) && (validate == nullptr || offer(tags, validate)) &&
         keep(tags, body.size(), set);
}

}  // namespace
}  // namespace pobe

bool pobe_metric_tagset_init_if_canonical(pobe_metric_tagset_t *set, const char *name, size_t len,
                                          pobe_metric_tagset_validate_f validate) {
  if (set == nullptr || (name == nullptr && len > 0)) return false;
  *set = {nullptr, 0, 0};
  return pobe::init_if_canonical(*set, {name, len}, validate);
}
