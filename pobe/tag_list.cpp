#include "pobe/tag_list_private.h"

#include <algorithm>

#include "pobe/base64_private.h"
#include "pobe/side_bytes_private.h"
#include "pobe/text_private.h"

namespace pobe {
namespace {

constexpr char kBlank = ' ';
constexpr std::string_view kOpeningQuote = "b\"";
constexpr char kQuote = '"';
// The encoding of the longest side; 255 bytes encode to the same length, so decoding has the last word.
constexpr size_t kMaxEncodedBytes = (POBE_MAX_SIDE_BYTES + 2) / 3 * 4;
static_assert(base64_decoded_capacity(kMaxEncodedBytes) <= sizeof(SideBuffer));

// What differs between the two sides of a tag.
struct SideRules {
  uint8_t stop_bit;  // of kSideStops
  size_t min_size;
  int length_error;
  int byte_error;
  int blank_error;
};

constexpr SideRules kCategoryRules{kStopsCategory, 1, POBE_E_CATEGORY_LENGTH, POBE_E_CATEGORY_BYTE,
                                   POBE_E_CATEGORY_BLANK};
constexpr SideRules kValueRules{kStopsValue, 0, POBE_E_VALUE_LENGTH, POBE_E_VALUE_BYTE, POBE_E_VALUE_BLANK};

bool stops(char byte, const SideRules &rules) noexcept {
  return (kSideStops[static_cast<uint8_t>(byte)] & rules.stop_bit) != 0;
}

bool is_blank_ended(std::string_view side) noexcept {
  return !side.empty() && (side.front() == kBlank || side.back() == kBlank);
}

bool is_plain(std::string_view decoded, const SideRules &rules) noexcept {
  return !is_blank_ended(decoded) &&
         std::none_of(decoded.begin(), decoded.end(), [&](char byte) { return stops(byte, rules); });
}

// No plain side holds a quote, so its opening alone tells an encoded one.
bool is_encoded(std::string_view side) noexcept {
  return side.starts_with(kOpeningQuote);
}

// What stands between the quotes of a well-formed encoded side.
std::string_view encoded_body(std::string_view side) noexcept {
  return side.substr(2, side.size() - 3);
}

// The bytes that a well-formed side means.
std::string_view decoded(std::string_view side, SideBuffer &buffer) noexcept {
  if (!is_encoded(side)) return side;
  return {buffer, base64_decode(encoded_body(side), buffer).value_or(0)};
}

// Reads tags from left to right; every method takes what it names off the front or returns its code.
class Reader {
 public:
  explicit Reader(std::string_view text) noexcept : at_(text.data()), end_(text.data() + text.size()) {}

  bool at_end() const noexcept { return at_ == end_; }
  void skip_comma() noexcept { ++at_; }

  [[nodiscard]] int tag(Tag &tag) noexcept {
    tag.text = at_;
    if (at_tag_end()) return POBE_E_EMPTY_TAG;
    if (const int error = side(kCategoryRules, tag.rewrites_category)) return error;
    if (at_tag_end()) return POBE_E_NO_COLON;
    if (*at_ != ':') return unexpected(tag.text, kCategoryRules);
    if (const int error = check_size(tag.text, kCategoryRules)) return error;
    ++at_;
    const char *const value = at_;
    if (const int error = side(kValueRules, tag.rewrites_value)) return error;
    if (!at_tag_end()) return unexpected(value, kValueRules);
    if (const int error = check_size(value, kValueRules)) return error;
    tag.category_size = static_cast<uint16_t>(value - tag.text);
    tag.size = static_cast<uint16_t>(at_ - tag.text);
    return 0;
  }

 private:
  bool at_tag_end() const noexcept { return at_ == end_ || *at_ == ','; }
  std::string_view since(const char *start) const noexcept {
    return {start, static_cast<size_t>(at_ - start)};
  }

  // Something other than the end of a side follows the side that began at `start`.
  int unexpected(const char *start, const SideRules &rules) const noexcept {
    return is_encoded(since(start)) ? int{POBE_E_QUOTE_TRAILER} : rules.byte_error;
  }

  [[nodiscard]] int side(const SideRules &rules, bool &rewrites) noexcept {
    if (is_encoded({at_, static_cast<size_t>(end_ - at_)})) return encoded_side(rules, rewrites);
    rewrites = false;
    while (at_ != end_ && !stops(*at_, rules)) ++at_;
    return 0;
  }

  // Sizes and blanks of a plain side; an encoded one was checked when it was decoded.
  [[nodiscard]] int check_size(const char *start, const SideRules &rules) const noexcept {
    const std::string_view side = since(start);
    if (is_encoded(side)) return 0;
    if (side.size() < rules.min_size) return POBE_E_EMPTY_CATEGORY;
    if (side.size() > POBE_MAX_SIDE_BYTES) return rules.length_error;
    return is_blank_ended(side) ? rules.blank_error : 0;
  }

  [[nodiscard]] int encoded_side(const SideRules &rules, bool &rewrites) noexcept {
    at_ += kOpeningQuote.size();
    const char *const body = at_;
    while (at_ != end_ && is_base64_byte(*at_)) ++at_;
    if (at_tag_end()) return POBE_E_QUOTE_OPEN;
    if (*at_ != kQuote) return POBE_E_BASE64;
    const int error = check_encoded(since(body), rules, rewrites);
    ++at_;
    return error;
  }

  [[nodiscard]] static int check_encoded(std::string_view body, const SideRules &rules,
                                         bool &rewrites) noexcept {
    if (body.size() > kMaxEncodedBytes) return rules.length_error;
    SideBuffer buffer;
    const std::optional<size_t> size = base64_decode(body, buffer);
    if (!size) return POBE_E_BASE64;
    if (*size < rules.min_size) return POBE_E_EMPTY_CATEGORY;
    if (*size > POBE_MAX_SIDE_BYTES) return rules.length_error;
    const std::string_view bytes{buffer, *size};
    rewrites = is_plain(bytes, rules);
    return check_text(bytes);
  }

  const char *at_;
  const char *end_;
};

int compare_sides(std::string_view a, std::string_view b) noexcept {
  if (!is_encoded(a) && !is_encoded(b)) return a.compare(b);
  SideBuffer a_buffer;
  SideBuffer b_buffer;
  return decoded(a, a_buffer).compare(decoded(b, b_buffer));
}

// Canonical order: by the bytes that the category means, then by those of the value. Comparison is of
// unsigned bytes, a prefix comes first. Decoding at every comparison keeps a list free of storage of its own.
int compare_tags(const Tag &a, const Tag &b) noexcept {
  const int by_category = compare_sides(a.category(), b.category());
  return by_category != 0 ? by_category : compare_sides(a.value(), b.value());
}

}  // namespace

std::string_view Tag::canonical_category(SideBuffer &buffer) const noexcept {
  return rewrites_category ? decoded(category(), buffer) : category();
}

std::string_view Tag::canonical_value(SideBuffer &buffer) const noexcept {
  return rewrites_value ? decoded(value(), buffer) : value();
}

int TagList::parse(std::string_view text) noexcept {
  if (text.empty()) return 0;
  Reader reader(text);
  for (;;) {
    if (count_ == POBE_MAX_TAGS) return POBE_E_TOO_MANY_TAGS;
    if (const int error = reader.tag(tags_[count_])) return error;
    add(tags_[count_]);
    if (reader.at_end()) return 0;
    reader.skip_comma();
  }
}

void TagList::add(const Tag &tag) noexcept {
  rewrites_ = rewrites_ || tag.rewrites_category || tag.rewrites_value;
  if (count_ > 0 && in_order_) in_order_ = compare_tags(tags_[count_ - 1], tag) < 0;
  ++count_;
}

void TagList::settle() noexcept {
  if (in_order_) return;
  Tag *const first = tags_;
  Tag *const last = tags_ + count_;
  std::sort(first, last, [](const Tag &a, const Tag &b) { return compare_tags(a, b) < 0; });
  const auto equal = [](const Tag &a, const Tag &b) { return compare_tags(a, b) == 0; };
  count_ = static_cast<size_t>(std::unique(first, last, equal) - first);
}

size_t TagList::canonical_size() const noexcept {
  BoundedWriter counter(nullptr, 0);
  write_canonical(counter);
  return counter.size();
}

void TagList::write_canonical(BoundedWriter &out) const noexcept {
  SideBuffer buffer;
  for (const Tag &tag : *this) {
    if (&tag != begin()) out.append(",");
    out.append(tag.canonical_category(buffer));
    out.append(":");
    out.append(tag.canonical_value(buffer));
  }
}

}  // namespace pobe
