// Whole ranges between values and records, with wide instructions where the processor has them.
#ifndef LIBORLITH_NNT_NNT_V1_RANGE_PRIVATE_H
#define LIBORLITH_NNT_NNT_V1_RANGE_PRIVATE_H

#include "liborlith/nnt/nnt_v1_private.h"

namespace nnt_v1 {

// What a record that decode refuses leaves in its slot.
enum class Refused {
  absent,  // the type absent, and what decode set before it refused
  zeros    // nothing but zeros
};

// Decodes one record, already loaded, into its slot of a range.
template <Refused refused>
inline void decode_slot(const Words &record, nnt_multitype *v) noexcept {
  if constexpr (refused == Refused::absent) v->type = NNT_TYPE_ABSENT;
  if (decode(record, v) != 0 && refused == Refused::zeros) memset(v, 0, sizeof(*v));
}

// Fills `records` from `count` values, an absent one as zeros; false when a value has no record for another reason.
bool encode_range(const nnt_multitype *v, size_t count, char *records) noexcept;

// Fills `v` from `count` records. Each record is loaded once: it may be changing.
void decode_range(const char *records, size_t count, Refused refused, nnt_multitype *v) noexcept;

// The part of a range that wide instructions can do: whole batches of kBatch from its beginning. They may be called
// where has_wide() only, and do nothing at all on other machines.
inline constexpr size_t kBatch = 8;
bool has_wide() noexcept;
bool encode_batches(const nnt_multitype *v, size_t batches, char *records) noexcept;
void decode_batches(const char *records, size_t batches, Refused refused, nnt_multitype *v) noexcept;

// One value after another: what does the rest of a range, any batch with an unusual slot, and all on other machines.
inline bool encode_one_by_one(const nnt_multitype *v, size_t count, char *records) noexcept {
  for (size_t i = 0; i < count; ++i) {
    // A value without a record leaves zeros: an absent slot.
    if (encode(v[i], records + i * kRecordSize) != 0 && v[i].type != NNT_TYPE_ABSENT) return false;
  }
  return true;
}

template <Refused refused>
inline void decode_one_by_one(const char *records, size_t count, nnt_multitype *v) noexcept {
  for (size_t i = 0; i < count; ++i) decode_slot<refused>(load(records + i * kRecordSize), &v[i]);
}

}  // namespace nnt_v1

#endif
