// Reading a version 1 image in memory. The image and its header come from outside: no arithmetic on them is trusted
// before it has been held against the length of the image.
#include <algorithm>
#include <limits>

#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1.h"
#include "liborlith/nnt/nnt_v1_private.h"
#include "liborlith/nnt/nnt_v1_range_private.h"

namespace {

using nnt_v1::kRecordSize;
using nnt_v1::kStart;

// The most records whose size `data_size` can tell.
constexpr uint64_t kMaxRawRecords = std::numeric_limits<int>::max() / kRecordSize;

int cleared(nnt_multitype *v, int result) noexcept {
  memset(v, 0, sizeof(*v));
  return result;
}

const char *record_at(const nnt_handle_readfast *rf, uint64_t slot) noexcept {
  return static_cast<const char *>(rf->addr) + kStart + slot * kRecordSize;
}

// Reads a record of the image. The bytes are loaded once: they may be changing.
int read_record(const char *record, nnt_multitype *v) noexcept {
  return nnt_v1::decode(nnt_v1::load(record), v) == 0 ? 1 : cleared(v, -1);
}

void clear_all(nnt_multitype *v, uint64_t count) noexcept {
  memset(v, 0, count * sizeof(*v));
}

// Of `count` timestamps: how many lie before the epoch, and how many after those have a record, from which slot on.
struct Run {
  uint64_t before, first_slot, slots;
};

Run run_in_image(const nnt_handle_readfast *rf, uint64_t whence, uint64_t count) noexcept {
  const uint64_t period = rf->hdr.period;
  if (period == 0) return {0, 0, 0};
  const uint64_t before = std::min(count, nnt_v1::values_before_epoch(rf->hdr, whence));
  uint64_t first = 0;
  if (before == count || __builtin_add_overflow(whence, before * period, &first)) return {before, 0, 0};
  const uint64_t slot = nnt_v1::slot_of(rf->hdr, first);
  const uint64_t held = nnt_v1::records_in(rf->len);
  if (slot >= held) return {before, 0, 0};
  const uint64_t timestamps_after_first = (std::numeric_limits<uint64_t>::max() - first) / period;
  const uint64_t wanted = std::min(count - before - 1, timestamps_after_first) + 1;
  return {before, slot, std::min(wanted, held - slot)};
}

// Whole records from `start` on, at most `cnt`. `start` is not before the epoch and the period is not 0.
uint64_t raw_records_from(const nnt_handle_readfast *rf, uint64_t start_slot, int cnt) noexcept {
  const uint64_t held = nnt_v1::records_in(rf->len);
  if (cnt < 1 || start_slot >= held) return 0;
  return std::min({held - start_slot, static_cast<uint64_t>(cnt), kMaxRawRecords});
}

}  // namespace

int nnt_v1_get_readfast(nnt_handle_readfast *rf, uint64_t whence, nnt_multitype *v) noexcept {
  if (whence < rf->hdr.epoch) return cleared(v, 1);
  if (rf->hdr.period == 0) return cleared(v, -1);
  const uint64_t slot = nnt_v1::slot_of(rf->hdr, whence);
  if (slot >= nnt_v1::records_in(rf->len)) return cleared(v, 1);
  return read_record(record_at(rf, slot), v);
}

int nnt_v1_get_readfast_range(nnt_handle_readfast *rf, uint64_t whence, int cnt, nnt_multitype *v) noexcept {
  if (cnt < 1) return cnt;
  const uint64_t count = static_cast<uint64_t>(cnt);
  const Run run = run_in_image(rf, whence, count);
  clear_all(v, run.before);
  v += run.before;
  if (run.slots > 0) {
    nnt_v1::decode_range(record_at(rf, run.first_slot), run.slots, nnt_v1::Refused::zeros, v);
  }
  clear_all(v + run.slots, count - run.before - run.slots);
  return cnt;
}

int nnt_v1_get_readfast_apocalypse(nnt_handle_readfast *rf, uint64_t *whence) noexcept {
  // The product wraps at 32 bits on purpose: existing readers depend on it. len / 32 is the number of records,
  // since half a record's worth of header comes before them.
  const uint32_t span = static_cast<uint32_t>(rf->len / kRecordSize) * rf->hdr.period;
  *whence = rf->hdr.epoch + span;
  return 0;
}

int nnt_v1_get_raw_range(nnt_handle_readfast *rf, uint64_t whence, int cnt,
                         nnt_range_raw_data *data) noexcept {
  nnt_io::heap_ptr<nnt_hdr> header(static_cast<nnt_hdr *>(malloc(sizeof(nnt_hdr))));
  if (!header) return -1;
  nnt_range_raw_data raw{};
  raw.original_epoch = rf->hdr.epoch;
  nnt_get_fast_apocalypse(rf, &raw.original_apocalypse);
  const uint64_t start = std::max(whence, rf->hdr.epoch);
  *header = rf->hdr;
  // An apocalypse after the start also means that the period is not 0.
  if (raw.original_apocalypse > start) {
    header->epoch = start;
    const uint64_t slot = nnt_v1::slot_of(rf->hdr, start);
    raw.datapoints = static_cast<uint32_t>(raw_records_from(rf, slot, cnt));
    raw.data_size = static_cast<int>(raw.datapoints * kRecordSize);
    // Past the last whole record of an image with a ragged end there is nothing to point at.
    const uint64_t held = nnt_v1::records_in(rf->len);
    if (rf->len >= kStart) raw.data = const_cast<char *>(record_at(rf, std::min(slot, held)));
  }
  raw.new_hdr = header.release();
  *data = raw;
  return 0;
}
