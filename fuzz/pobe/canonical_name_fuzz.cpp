// Whatever the short way takes for canonical, the long way must leave as it is, with the same tags.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "pobe/pobe.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void require_same(const pobe_metric_tagset_t &a, const pobe_metric_tagset_t &b) {
  require(a.tag_count == b.tag_count && a.canonical_size == b.canonical_size);
  for (int i = 0; i < a.tag_count; ++i) {
    require(a.tags[i].tag == b.tags[i].tag);
    require(a.tags[i].total_size == b.tags[i].total_size &&
            a.tags[i].category_size == b.tags[i].category_size);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::vector<char> name(data, data + size);
  pobe_metric_tagset_t set;
  if (!pobe_metric_tagset_init_if_canonical(&set, name.data(), name.size(), nullptr)) return 0;
  std::vector<char> out(size + 1);
  const ssize_t len =
      pobe_metric_canonicalize_ex(name.data(), name.size(), out.data(), out.size(), true, true, false);
  require(len >= 0 && std::string(out.data(), static_cast<size_t>(len)) == std::string(name.data(), size));
  pobe_metric_tagset_t parsed{};
  if (set.tag_count > 0) {
    const size_t block = std::string(name.data(), size).rfind("|ST[");
    require(pobe_metric_tagset_init(&parsed, name.data() + block + 4, size - block - 5) == 0);
  }
  require_same(set, parsed);
  pobe_metric_tagset_cleanup(&parsed);
  pobe_metric_tagset_cleanup(&set);
  return 0;
}
