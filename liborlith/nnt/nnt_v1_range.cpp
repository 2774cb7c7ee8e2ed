// Ranges of slots: as many whole batches as there are with wide instructions, the rest one by one.
#include "liborlith/nnt/nnt_v1_range_private.h"

namespace nnt_v1 {

bool encode_range(const nnt_multitype *v, size_t count, char *records) noexcept {
  const size_t batches = has_wide() ? count / kBatch : 0;
  const size_t done = batches * kBatch;
  return encode_batches(v, batches, records) &&
         encode_one_by_one(v + done, count - done, records + done * kRecordSize);
}

void decode_range(const char *records, size_t count, Refused refused, nnt_multitype *v) noexcept {
  const size_t batches = has_wide() ? count / kBatch : 0;
  const size_t done = batches * kBatch;
  if (batches > 0) decode_batches(records, batches, refused, v);
  const auto rest =
      refused == Refused::zeros ? decode_one_by_one<Refused::zeros> : decode_one_by_one<Refused::absent>;
  rest(records + done * kRecordSize, count - done, v + done);
}

}  // namespace nnt_v1
