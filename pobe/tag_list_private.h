// A parsed tag list: the grammar of tags, their canonical spelling and order. Internal to the library; tag
// sets and canonical names both come from here, so that they cannot differ in what they accept.
#ifndef POBE_TAG_LIST_PRIVATE_H
#define POBE_TAG_LIST_PRIVATE_H

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "pobe/bounded_writer_private.h"
#include "pobe/pobe.h"

namespace pobe {

// The room that the canonical spelling of a rewritten side needs.
using SideBuffer = char[POBE_MAX_SIDE_BYTES + 1];

// A view of one well-formed tag as written.
struct Tag {
  const char *text;
  uint16_t size;
  uint16_t category_size;  // with the colon
  bool rewrites_category;  // encoded although it can be written plainly
  bool rewrites_value;

  std::string_view category() const noexcept { return {text, category_size - size_t{1}}; }
  std::string_view value() const noexcept { return {text + category_size, size_t{size} - category_size}; }

  // The canonical spelling of a side: a view of the text, or of `buffer` when the side is rewritten.
  std::string_view canonical_category(SideBuffer &buffer) const noexcept;
  std::string_view canonical_value(SideBuffer &buffer) const noexcept;
};
static_assert(sizeof(Tag) == 16, "a list lives on the stack of its user");

// Up to POBE_MAX_TAGS tags, in place. Two stages: parse() any number of texts, then settle() once; only then
// are the canonical members meaningful.
class TagList {
 public:
  // Left uninitialised on purpose: clearing 4 KiB would cost more than parsing an ordinary list.
  TagList() noexcept {}  // NOLINT(modernize-use-equals-default)

  // Appends the tags of a comma-separated list to the end. The text must have passed check_text() and outlive
  // the list. Returns 0, or the code of the first offence; then the list is of no further use.
  [[nodiscard]] int parse(std::string_view text) noexcept;

  // Brings the tags into canonical order and drops repeated ones. Without effect on a list that is in order.
  void settle() noexcept;

  const Tag *begin() const noexcept { return tags_; }
  const Tag *end() const noexcept { return tags_ + count_; }
  size_t size() const noexcept { return count_; }

  // Whether the text of a single parse() is its own canonical form.
  bool is_canonical_as_written() const noexcept { return in_order_ && !rewrites_; }

  size_t canonical_size() const noexcept;
  void write_canonical(BoundedWriter &out) const noexcept;

 private:
  void add(const Tag &tag) noexcept;

  size_t count_ = 0;
  bool in_order_ = true;   // strictly ascending so far: no repeated tag either
  bool rewrites_ = false;  // some side is not written canonically
  Tag tags_[POBE_MAX_TAGS];
};

}  // namespace pobe

#endif
