// Splitting any bytes: views stay inside the input, a failure leaves an empty set, and on clean text the splitter
// and the naive model agree on what a name is.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "liborlith/util/metric_name.h"
#include "test/pobe/naive_metric_name.h"

namespace {

void require(bool condition) {
  if (!condition) std::abort();
}

bool is_reserved(const std::string &category) {
  return category == "__name" || category == "__type" || category == "__activity" ||
         category == "__check_uuid";
}

bool model_accepts(const std::string &text) {
  const auto name = naive::read_name(text);
  if (!name) return false;
  for (const naive::Pair &tag : name->stream_tags)
    if (is_reserved(tag.first)) return false;
  return true;
}

void check_tag(const pobe_metric_tag_t &tag, const char *begin, const char *end) {
  require(tag.tag >= begin && tag.tag + tag.total_size <= end);
  require(tag.category_size >= 2 && tag.category_size <= tag.total_size);
  require(tag.tag[tag.category_size - 1] == ':');
  const auto meant = naive::read_tags({tag.tag, tag.total_size});
  require(meant && meant->size() == 1 && !is_reserved(meant->front().first));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  mem_reader_t in, out;
  mem_reader_init_mem(&in, data, size);
  pobe_metric_tagset_t set;
  const bool accepted = metric_name_v1_parse(&in, &out, &set);
  const std::string text(reinterpret_cast<const char *>(data), size);
  if (naive::is_clean_text(text)) require(accepted == model_accepts(text));
  if (!accepted) {
    require(set.tags == nullptr && set.tag_count == 0 && set.canonical_size == 0);
    return 0;
  }
  require(out.input_buffer == data && out.input_buffer_size <= size);
  const char *const begin = reinterpret_cast<const char *>(data);
  for (int i = 0; i < set.tag_count; ++i) check_tag(set.tags[i], begin, begin + size);
  pobe_metric_tagset_cleanup(&set);
  return 0;
}
