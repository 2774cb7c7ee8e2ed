// An image of arbitrary bytes, as a peer might send it, read through a view. Timestamps come from the input too.
#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "liborlith/nnt/nnt.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void read_slot(nnt_handle_readfast *rf, uint64_t whence) {
  nnt_multitype v;
  memset(&v, 0x5a, sizeof(v));
  const int result = nnt_get_fast(rf, whence, &v);
  require(result == 1 || result == -1);
  require(v.type <= NNT_TYPE_DOUBLE);
  if (result == -1) require(v.type == NNT_TYPE_ABSENT);
}

void read_raw(nnt_handle_readfast *rf, uint64_t whence, int cnt) {
  nnt_range_raw_data raw{};
  require(nnt_get_raw_range(rf, whence, cnt, &raw) == 0);
  require(raw.data_size == static_cast<int>(raw.datapoints * 32));
  require(cnt > 0 ? raw.datapoints <= static_cast<uint32_t>(cnt) : raw.datapoints == 0);
  if (raw.datapoints > 0) {
    const char *end = static_cast<const char *>(rf->addr) + rf->len;
    require(raw.data >= static_cast<const char *>(rf->addr) + 16 && raw.data + raw.data_size <= end);
  }
  free(raw.new_hdr);
}

// A range gives what its slots give one by one, as long as the timestamps do not end.
void read_range(nnt_handle_readfast *rf, uint64_t whence) {
  constexpr int kCount = 5;
  nnt_multitype values[kCount] = {};
  require(nnt_get_fast_range(rf, whence, kCount, values) == kCount);
  if (whence > UINT64_MAX - uint64_t{kCount} * rf->hdr.period) return;
  for (int i = 0; i < kCount; ++i) {
    nnt_multitype v{};
    nnt_get_fast(rf, whence + static_cast<uint64_t>(i) * rf->hdr.period, &v);
    require(memcmp(&values[i], &v, sizeof(v)) == 0);
  }
}

void read_around(nnt_handle_readfast *rf, uint64_t whence, int cnt) {
  for (const uint64_t t :
       {whence - 1, whence, whence + 1, whence + rf->hdr.period, whence - rf->hdr.period}) {
    read_slot(rf, t);
    read_range(rf, t);
    for (const int count : {cnt, 0, 1, -1, INT_MAX, INT_MIN}) read_raw(rf, t, count);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  void *image = malloc(size);
  memcpy(image, data, size);
  nnt_handle_readfast *rf = nnt_acquire_transient(image, size);
  if (rf == nullptr) {
    free(image);
    return 0;
  }
  uint64_t epoch = 0, apocalypse = 0;
  require(nnt_get_fast_epoch(rf, &epoch) == 0 && nnt_get_fast_apocalypse(rf, &apocalypse) == 0);
  for (const uint64_t whence : {epoch, apocalypse, uint64_t{0}, UINT64_MAX, UINT64_MAX / 32, UINT64_MAX / 2})
    read_around(rf, whence, 2);
  for (size_t at = 0; at + 8 <= std::min<size_t>(size, 256); at += 8) {
    uint64_t whence = 0;
    memcpy(&whence, data + at, sizeof(whence));
    read_around(rf, whence, static_cast<int>(whence >> 32));
    read_around(rf, epoch + whence % 4096 * rf->hdr.period, static_cast<int>(whence & 0xff));
  }
  nnt_release_readfast(rf);
  return 0;
}
