#include <cstddef>
#include <cstdlib>

#include "pobe/context_private.h"
#include "pobe/tag_list_private.h"
#include "pobe/text_private.h"

// Hosts allocate these themselves.
static_assert(sizeof(pobe_metric_tagset_t) == 24 && offsetof(pobe_metric_tagset_t, tags) == 0 &&
              offsetof(pobe_metric_tagset_t, tag_count) == 8 &&
              offsetof(pobe_metric_tagset_t, canonical_size) == 16);
static_assert(sizeof(pobe_metric_tag_t) == 16 && offsetof(pobe_metric_tag_t, total_size) == 8 &&
              offsetof(pobe_metric_tag_t, category_size) == 10);

namespace pobe {
namespace {

int offer_tags(const TagList &list, pobe_metric_tagset_validate_f validate) noexcept {
  SideBuffer category_buffer;
  SideBuffer value_buffer;
  for (const Tag &tag : list) {
    const std::string_view category = tag.canonical_category(category_buffer);
    const std::string_view value = tag.canonical_value(value_buffer);
    // The colon follows a category in the text; after a rewritten one it has to be put there.
    if (tag.rewrites_category) category_buffer[category.size()] = ':';
    if (!validate(category.data(), category.size() + 1, value.data(), value.size()))
      return POBE_E_TAG_REFUSED;
  }
  return 0;
}

pobe_metric_tag_t *copy_views(const TagList &list) noexcept {
  auto *const tags = static_cast<pobe_metric_tag_t *>(std::malloc(list.size() * sizeof(pobe_metric_tag_t)));
  if (tags == nullptr) return nullptr;
  pobe_metric_tag_t *next = tags;
  for (const Tag &tag : list) *next++ = {tag.text, tag.size, tag.category_size};
  return tags;
}

int parse_tagset(pobe_metric_tagset_t &set, std::string_view text,
                 pobe_metric_tagset_validate_f validate) noexcept {
  if (const int error = check_text(text)) return error;
  TagList list;
  if (const int error = list.parse(text)) return error;
  if (list.size() == 0) return 0;
  if (validate != nullptr)
    if (const int error = offer_tags(list, validate)) return error;
  pobe_metric_tag_t *const tags = copy_views(list);
  if (tags == nullptr) return POBE_E_MEMORY;
  const int tag_count = static_cast<int>(list.size());
  if (list.is_canonical_as_written()) {
    set = {tags, tag_count, text.size()};
    return 0;
  }
  list.settle();
  set = {tags, tag_count, list.canonical_size()};
  return 0;
}

}  // namespace
}  // namespace pobe

int pobe_metric_tagset_init(pobe_metric_tagset_t *set, const char *bytes, size_t len) {
  return pobe_metric_tagset_init_with_context(set, bytes, len, nullptr);
}

int pobe_metric_tagset_init_with_context(pobe_metric_tagset_t *set, const char *bytes, size_t len,
                                         pobe_metric_tagset_context_t *ctx) {
  if (set == nullptr) return POBE_E_ARGUMENT;
  *set = {nullptr, 0, 0};
  if (len == 0) return 0;
  if (bytes == nullptr) return POBE_E_ARGUMENT;
  return pobe::parse_tagset(*set, {bytes, len}, ctx == nullptr ? nullptr : ctx->validate);
}

void pobe_metric_tagset_cleanup(pobe_metric_tagset_t *set) {
  if (set == nullptr) return;
  std::free(set->tags);
  *set = {nullptr, 0, 0};
}
