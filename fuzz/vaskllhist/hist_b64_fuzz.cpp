// Any characters as the text of a histogram: refused and nothing changed, or the very text that it writes again. What a
// library for base64 makes of the text must be a stored form exactly when the text is accepted.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/vaskllhist/hist_checks.h"
#include "ruxo/b64.h"

using hist_fuzz::Owned;
using hist_fuzz::require;

namespace {

bool is_stored_form(const std::string &text) {
  std::vector<uint8_t> bytes(ruxo_b64_max_decode_len(text.size()));
  const size_t size = ruxo_b64_decode(text.data(), text.size(), bytes.data(), bytes.size());
  const Owned h(hist_alloc());
  return size != 0 && hist_deserialize(h.get(), bytes.data(), size) >= 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  const Owned h(hist_alloc());
  hist_insert(h.get(), 7, 7);
  const ssize_t result = hist_deserialize_b64(h.get(), text.data(), size);
  require((result >= 0) == is_stored_form(text));
  if (result < 0) {
    require(result == -1);
    require(hist_bucket_count(h.get()) == 1 && hist_count_at(h.get(), hist_bucket_of(7)) == 7);
    return 0;
  }
  require(static_cast<size_t>(result) == size);
  std::string again(hist_serialized_b64_size(h.get()), '#');
  require(hist_serialize_b64(h.get(), again.data(), again.size()) == result && again == text);
  hist_fuzz::check_all(h.get());
  return 0;
}
