// A histogram line. First byte: bundled or not; second byte: the size of the buffer for the check field. What a
// result promises must hold, and a text that is kept must be a histogram that can be written again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "liborlith/util/histogram.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void check_text(const std::string &text) {
  const size_t end = text.find_last_not_of('\n');
  const std::string trimmed = text.substr(0, end == std::string::npos ? 0 : end + 1);
  histogram_t *h = hist_alloc();
  require(hist_deserialize_b64(h, trimmed.data(), trimmed.size()) >= 0);
  std::string again(hist_serialized_b64_size(h), '\0');
  require(hist_serialize_b64(h, again.data(), again.size()) == static_cast<ssize_t>(again.size()));
  histogram_t *same = hist_alloc();
  require(hist_deserialize_b64(same, again.data(), again.size()) >= 0);
  require(hist_bucket_count(same) == hist_bucket_count(h));
  hist_free(same);
  hist_free(h);
}

void check_cid(const char *cid, size_t size, const std::string &line) {
  if (size == 0) return;
  const size_t len = strnlen(cid, size);
  require(len < size && line.find(cid) != std::string::npos);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const bool bundled = (data[0] & 1) != 0;
  const size_t cid_size = data[1];
  const std::string line(reinterpret_cast<const char *>(data + 2), size - 2);
  const std::unique_ptr<char[]> cid(new char[cid_size]);

  uint64_t rawtime = 0;
  orlith_metric_locator_t *loc = nullptr;
  metric_value_t value;
  const int code =
      decode_histogram_string(line.c_str(), &rawtime, &loc, &value, bundled, cid.get(), cid_size);
  require((code == 1) == (loc != nullptr));
  require(code == 1 || (code <= -1 && code >= -8 && code != -5));
  require(rawtime == value.whence_ms);
  if (code != 1) {
    require(value.storage.v_string == nullptr);
    return 0;
  }
  check_cid(cid.get(), cid_size, line);
  require(orlith_metric_locator_get_type(loc) == METRIC_TYPE_HISTOGRAM);
  require(value.type == ORLITH_METRIC_STRING && value.is_null == (value.storage.v_string == nullptr));
  if (!value.is_null) check_text(value.storage.v_string);

  histogram_data_t list = {};
  require(add_histogram_to_list(&list, rawtime, loc, &value, 0, nullptr) == 1);
  require(value.is_null && list.count == 1 && list.head == list.tail);
  free_histogram_entry_chain(list.head);
  orlith_metric_locator_deref(loc);
  return 0;
}
