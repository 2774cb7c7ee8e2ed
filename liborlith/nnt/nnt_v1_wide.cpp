// Batches of records with 64-byte instructions, where the processor has them.
//
// A value is 64 bytes and a record 32, and each field of one lies whole in the other. So one permutation of bytes
// turns one into the other, but for the few bytes that follow from the type and from whether there is a deviation.
// These two together, four bits as in the low half of `typeinfo`, choose a shape: which bytes are moved, what the
// others are, and which bytes of a value a read may touch. Checksums are folded for a batch at a time.
//
// Most series have one shape throughout. So a run of batches of one shape is done in a loop of its own, which keeps
// the shape in registers and only checks that it still holds; the first batch that differs ends the run.
#include "liborlith/nnt/nnt_v1_range_private.h"

#if defined(__x86_64__)

#ifndef __clang__
// Instructions without a merged operand are given an uninitialised one by the compiler's own header, and it then
// warns of that wherever they are inlined.
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

#include <immintrin.h>

#include <array>

#define WIDE_TARGET __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi")))
#define WIDE_INLINE WIDE_TARGET __attribute__((always_inline)) inline

namespace nnt_v1 {
namespace {

// Bits first..first+count-1 of a mask with one bit a byte.
constexpr uint64_t bytes(unsigned first, unsigned count) noexcept {
  return ((uint64_t{1} << count) - 1) << first;
}

struct Shape {
  alignas(64) uint8_t fixed_value[64];   // a value read: the bytes that do not come from the record
  alignas(32) uint8_t fixed_record[32];  // a record written: the bytes that do not come from the value
  uint64_t value_from_record;            // bytes of a value that are moved from the record
  uint64_t value_stored;                 // bytes of a value that a read sets
  uint64_t record_from_value;            // bytes of a record that are moved from the value
};

constexpr unsigned value_bytes(unsigned type) noexcept {
  if (type == NNT_TYPE_NULL) return 0;
  return type == NNT_TYPE_INT32 || type == NNT_TYPE_UINT32 ? 4 : 8;
}

constexpr Shape shape_of(unsigned typeinfo) noexcept {
  const unsigned type = typeinfo & NNT_V1_TYPE_MASK;
  const bool has_stddev = (typeinfo & NNT_V1_NO_STDDEV) == 0;
  Shape s{};
  s.fixed_value[offsetof(nnt_multitype, type)] = static_cast<uint8_t>(type);
  s.fixed_value[offsetof(nnt_multitype, stddev_present)] = has_stddev;
  s.fixed_record[offsetof(nnt_datum_v1, typeinfo)] = static_cast<uint8_t>(typeinfo);
  const uint64_t moved = bytes(offsetof(nnt_multitype, stddev), has_stddev ? 4 : 0) |
                         bytes(offsetof(nnt_multitype, derivative), 8) |
                         bytes(offsetof(nnt_multitype, counter), 8);
  s.value_from_record = moved | bytes(offsetof(nnt_multitype, count), 2) |
                        bytes(offsetof(nnt_multitype, value), value_bytes(type));
  s.value_stored = moved | bytes(offsetof(nnt_multitype, type), 4) |
                   bytes(offsetof(nnt_multitype, count), 4) |
                   bytes(offsetof(nnt_multitype, stddev_present), 1) |
                   bytes(offsetof(nnt_multitype, value), type == NNT_TYPE_NULL ? 0 : 8);
  s.record_from_value =
      bytes(offsetof(nnt_datum_v1, count), 2) | bytes(offsetof(nnt_datum_v1, std), has_stddev ? 4 : 0) |
      bytes(offsetof(nnt_datum_v1, value), value_bytes(type)) | bytes(offsetof(nnt_datum_v1, derivative), 16);
  return s;
}

// Types 0 and 7 have no shape: a slot with one of them goes the long way.
constexpr std::array<Shape, 16> kShapes = [] {
  std::array<Shape, 16> shapes{};
  for (unsigned i = 0; i < shapes.size(); ++i) shapes[i] = shape_of(i);
  return shapes;
}();

// Where each byte of a value comes from in a record, and the other way round. Bytes that are not moved are masked.
struct Moves {
  alignas(64) std::array<uint8_t, 64> to_value_from_first{}, to_value_from_second{};
  alignas(64) std::array<uint8_t, 64> to_record{};  // the same for the first and the second record of a pair
  alignas(64) std::array<uint8_t, 64> to_pair{};    // from two values at once, the second one after the first
};

constexpr Moves kMoves = [] {
  struct Field {
    size_t in_value, in_record, size_bytes;
  };
  constexpr Field kFields[] = {
      {offsetof(nnt_multitype, count), offsetof(nnt_datum_v1, count), 2},
      {offsetof(nnt_multitype, stddev), offsetof(nnt_datum_v1, std), 4},
      {offsetof(nnt_multitype, value), offsetof(nnt_datum_v1, value), 8},
      {offsetof(nnt_multitype, derivative), offsetof(nnt_datum_v1, derivative), 8},
      {offsetof(nnt_multitype, counter), offsetof(nnt_datum_v1, counter), 8},
  };
  Moves moves{};
  for (const Field &field : kFields) {
    for (size_t i = 0; i < field.size_bytes; ++i) {
      const size_t value_at = field.in_value + i;
      const size_t record_at = field.in_record + i;
      moves.to_value_from_first[value_at] = static_cast<uint8_t>(record_at);
      moves.to_value_from_second[value_at] = static_cast<uint8_t>(kRecordSize + record_at);
      moves.to_record[record_at] = static_cast<uint8_t>(value_at);
      moves.to_record[kRecordSize + record_at] = static_cast<uint8_t>(value_at);
      moves.to_pair[record_at] = static_cast<uint8_t>(value_at);
      moves.to_pair[kRecordSize + record_at] = static_cast<uint8_t>(sizeof(nnt_multitype) + value_at);
    }
  }
  return moves;
}();

// A batch of records, two in each register.
struct Batch {
  __m512i pair[4];
};

// Where the words of each record end up when a batch is turned so that each has one column.
constexpr unsigned kColumnOf[kBatch] = {0, 2, 1, 3, 4, 6, 5, 7};

WIDE_INLINE __m512i load_64(const void *from) noexcept {
  return _mm512_loadu_si512(from);
}

WIDE_INLINE Batch load_batch(const char *records) noexcept {
  return {{load_64(records), load_64(records + 64), load_64(records + 128), load_64(records + 192)}};
}

// The first word of every record, in its column.
WIDE_INLINE __m512i heads(const Batch &b) noexcept {
  return _mm512_shuffle_i64x2(_mm512_unpacklo_epi64(b.pair[0], b.pair[1]),
                              _mm512_unpacklo_epi64(b.pair[2], b.pair[3]), 0x88);
}

// The XOR of the 32 bytes of every record, in the low byte of its column; the bytes above are what is left of folding.
WIDE_INLINE __m512i checksums(const Batch &b) noexcept {
  const __m512i low = _mm512_xor_si512(_mm512_unpacklo_epi64(b.pair[0], b.pair[1]),
                                       _mm512_unpackhi_epi64(b.pair[0], b.pair[1]));
  const __m512i high = _mm512_xor_si512(_mm512_unpacklo_epi64(b.pair[2], b.pair[3]),
                                        _mm512_unpackhi_epi64(b.pair[2], b.pair[3]));
  __m512i x = _mm512_xor_si512(_mm512_shuffle_i64x2(low, high, 0x88), _mm512_shuffle_i64x2(low, high, 0xdd));
  x = _mm512_xor_si512(x, _mm512_srli_epi64(x, 32));
  x = _mm512_xor_si512(x, _mm512_srli_epi64(x, 16));
  return _mm512_xor_si512(x, _mm512_srli_epi64(x, 8));
}

// Whether all checksums are right and all types have a shape; `typeinfos` takes the low half of `typeinfo` of each
// record, one byte a column.
WIDE_INLINE bool is_usual(const Batch &b, uint64_t *typeinfos) noexcept {
  const __m512i sums = checksums(b);
  const __m512i shifted = _mm512_srli_epi64(heads(b), 8);
  const __m512i types = _mm512_and_si512(shifted, _mm512_set1_epi64(NNT_V1_TYPE_MASK));
  const __m512i from_null = _mm512_sub_epi64(types, _mm512_set1_epi64(NNT_TYPE_NULL));
  const __mmask8 wrong = _mm512_test_epi64_mask(sums, _mm512_set1_epi64(0xff));
  const __mmask8 unusual =
      _mm512_cmpgt_epu64_mask(from_null, _mm512_set1_epi64(NNT_TYPE_DOUBLE - NNT_TYPE_NULL));
  const __m128i narrow = _mm512_maskz_cvtepi64_epi8(0xff, shifted);
  *typeinfos = static_cast<uint64_t>(_mm_cvtsi128_si64(narrow)) & UINT64_C(0x0f0f0f0f0f0f0f0f);
  return (wrong | unusual) == 0;
}

WIDE_INLINE void store_value(nnt_multitype *v, const Shape &shape, __m512i move, __m512i pair) noexcept {
  const __m512i fixed = load_64(shape.fixed_value);
  _mm512_mask_storeu_epi8(v, shape.value_stored,
                          _mm512_mask_permutexvar_epi8(fixed, shape.value_from_record, move, pair));
}

WIDE_INLINE void store_values(const Batch &b, uint64_t typeinfos, nnt_multitype *v) noexcept {
  const __m512i first = load_64(kMoves.to_value_from_first.data());
  const __m512i second = load_64(kMoves.to_value_from_second.data());
  const auto shape_at = [typeinfos](unsigned i) -> const Shape & {
    return kShapes[typeinfos >> 8 * kColumnOf[i] & 0xff];
  };
#pragma GCC unroll 4
  for (unsigned i = 0; i < 4; ++i) {
    store_value(&v[2 * i], shape_at(2 * i), first, b.pair[i]);
    store_value(&v[2 * i + 1], shape_at(2 * i + 1), second, b.pair[i]);
  }
}

// Most runs have one type throughout: their shape stays in registers.
WIDE_INLINE void store_values_alike(const Batch &b, const Shape &shape, nnt_multitype *v) noexcept {
  const __m512i first = load_64(kMoves.to_value_from_first.data());
  const __m512i second = load_64(kMoves.to_value_from_second.data());
#pragma GCC unroll 4
  for (unsigned i = 0; i < 4; ++i) {
    store_value(&v[2 * i], shape, first, b.pair[i]);
    store_value(&v[2 * i + 1], shape, second, b.pair[i]);
  }
}

// The bytes come from the registers: the records may have changed since they were loaded.
template <Refused refused>
WIDE_TARGET __attribute__((noinline)) void decode_unusual(const Batch *b, nnt_multitype *v) noexcept {
  alignas(64) char records[kBatch * kRecordSize];
  for (unsigned i = 0; i < 4; ++i) _mm512_store_si512(records + 64 * i, b->pair[i]);
  decode_one_by_one<refused>(records, kBatch, v);
}

// In a long range, slots far ahead are asked for early: it is bound by how fast its memory comes in. A short one is
// mostly in the cache, where asking only costs.
constexpr size_t kAhead = 8 * kBatch;
constexpr size_t kLong = 1024;

WIDE_INLINE void prefetch_batch(const char *records, const nnt_multitype *v) noexcept {
#pragma GCC unroll 4
  for (unsigned i = 0; i < 4; ++i) __builtin_prefetch(records + 64 * i);
#pragma GCC unroll 8
  for (unsigned i = 0; i < kBatch; ++i) __builtin_prefetch(v + i, 1);
}

// The lowest byte of every 64-bit column.
WIDE_INLINE __m512i low_bytes() noexcept {
  return _mm512_set1_epi64(0xff);
}

// Decodes batches for as long as every record has the low half of `typeinfo` given, which has a shape, and a right
// checksum. Returns how many; the next one is untouched. Of the first `prefetched` batches each asks for memory ahead.
WIDE_TARGET size_t decode_alike(const char *records, size_t batches, size_t prefetched, uint8_t typeinfo,
                                nnt_multitype *v) noexcept {
  const Shape &shape = kShapes[typeinfo];
  const __m512i typeinfo_bits = _mm512_maskz_set1_epi16(0x00010001, 0x0f00);
  const __m512i typeinfos = _mm512_maskz_set1_epi16(0x00010001, static_cast<int16_t>(typeinfo << 8));
  for (size_t done = 0; done < batches; ++done, records += kBatch * kRecordSize, v += kBatch) {
    if (done < prefetched) prefetch_batch(records + kAhead * kRecordSize, v + kAhead);
    const Batch b = load_batch(records);
    const __m512i first_half =
        _mm512_or_si512(_mm512_xor_si512(b.pair[0], typeinfos), _mm512_xor_si512(b.pair[1], typeinfos));
    const __m512i second_half =
        _mm512_or_si512(_mm512_xor_si512(b.pair[2], typeinfos), _mm512_xor_si512(b.pair[3], typeinfos));
    const __m512i differ = _mm512_and_si512(_mm512_or_si512(first_half, second_half), typeinfo_bits);
    const __m512i wrong = _mm512_and_si512(checksums(b), low_bytes());
    const __m512i either = _mm512_or_si512(differ, wrong);
    if (_mm512_test_epi64_mask(either, either) != 0) return done;
    store_values_alike(b, shape, v);
  }
  return batches;
}

template <Refused refused>
WIDE_TARGET void decode_with(const char *records, size_t batches, nnt_multitype *v) noexcept {
  const size_t prefetched = batches * kBatch >= kLong ? batches - kAhead / kBatch : 0;
  for (size_t done = 0; done < batches; ++done) {
    const char *const from = records + done * kBatch * kRecordSize;
    nnt_multitype *const to = v + done * kBatch;
    if (done < prefetched) prefetch_batch(from + kAhead * kRecordSize, to + kAhead);
    const Batch b = load_batch(from);
    uint64_t typeinfos = 0;
    if (!is_usual(b, &typeinfos)) {
      decode_unusual<refused>(&b, to);
    } else if (typeinfos != (typeinfos & 0xff) * UINT64_C(0x0101010101010101)) {
      store_values(b, typeinfos, to);
    } else {
      const uint8_t typeinfo = static_cast<uint8_t>(typeinfos & 0xff);
      store_values_alike(b, kShapes[typeinfo], to);
      const size_t ahead = prefetched > done + 1 ? prefetched - done - 1 : 0;
      done += decode_alike(from + kBatch * kRecordSize, batches - done - 1, ahead, typeinfo, to + kBatch);
    }
  }
}

// The shape to write a value in; nothing for a type that has none.
WIDE_INLINE const Shape *shape_to_write(const nnt_multitype &v) noexcept {
  const uint32_t type = v.type;
  if (type - NNT_TYPE_NULL > NNT_TYPE_DOUBLE - NNT_TYPE_NULL) return nullptr;
  return &kShapes[type | (v.stddev_present == 0 ? NNT_V1_NO_STDDEV : 0)];
}

WIDE_INLINE __m512i count_held(const nnt_multitype &v) noexcept {
  // The count is the second of the value's sixteen numbers of 32 bits.
  static_assert(offsetof(nnt_multitype, count) == 4);
  const __m512i limits = _mm512_mask_set1_epi32(_mm512_set1_epi32(-1), 1 << 1, 65535);
  return _mm512_min_epu32(load_64(&v), limits);
}

// Two records without their checksums.
WIDE_INLINE __m512i pair_of(const nnt_multitype *v, const Shape &first, const Shape &second) noexcept {
  const __m512i move = load_64(kMoves.to_record.data());
  const __m256i *const fixed_first = reinterpret_cast<const __m256i *>(first.fixed_record);
  const __m256i *const fixed_second = reinterpret_cast<const __m256i *>(second.fixed_record);
  const __m512i fixed = _mm512_inserti64x4(_mm512_castsi256_si512(_mm256_load_si256(fixed_first)),
                                           _mm256_load_si256(fixed_second), 1);
  const __m512i half = _mm512_mask_permutexvar_epi8(fixed, first.record_from_value, move, count_held(v[0]));
  return _mm512_mask_permutexvar_epi8(half, second.record_from_value << 32, move, count_held(v[1]));
}

// Puts the checksums, each in its column, into the first bytes of the records.
WIDE_INLINE void store_batch(const Batch &b, __m512i sums, char *records) noexcept {
#pragma GCC unroll 4
  for (unsigned i = 0; i < 4; ++i) {
    const __m512i columns = _mm512_set_epi64(0, 0, 0, kColumnOf[2 * i + 1], 0, 0, 0, kColumnOf[2 * i]);
    const __m512i placed = _mm512_maskz_permutexvar_epi64(0x11, columns, sums);
    _mm512_storeu_si512(records + 64 * i, _mm512_or_si512(b.pair[i], placed));
  }
}

// False when a value of the batch has no shape; nothing is written then.
WIDE_INLINE bool encode_usual(const nnt_multitype *v, char *records) noexcept {
  Batch b;
#pragma GCC unroll 4
  for (unsigned i = 0; i < 4; ++i) {
    const Shape *const first = shape_to_write(v[2 * i]);
    const Shape *const second = shape_to_write(v[2 * i + 1]);
    if (first == nullptr || second == nullptr) return false;
    b.pair[i] = pair_of(v + 2 * i, *first, *second);
  }
  store_batch(b, _mm512_and_si512(checksums(b), low_bytes()), records);
  return true;
}

// Which bits of a value must be those of a sample for both to be written alike: what chooses the shape, and what a
// count above 65535 has.
alignas(64) constexpr std::array<uint8_t, 64> kAlikeBits = [] {
  std::array<uint8_t, 64> bits{};
  for (size_t i = 0; i < sizeof(nnt_multitype::type); ++i) bits[offsetof(nnt_multitype, type) + i] = 0xff;
  for (size_t i = 2; i < 4; ++i) bits[offsetof(nnt_multitype, count) + i] = 0xff;
  bits[offsetof(nnt_multitype, stddev_present)] = 0xff;
  return bits;
}();

// Those of the bits above in which any of eight values differs from the sample: a bit is the same in all of them
// when their AND and their OR both have it as the sample does.
WIDE_INLINE __mmask16 unlike(const __m512i *values, __m512i sample) noexcept {
  __m512i any = values[0], all = values[0];
#pragma GCC unroll 8
  for (unsigned i = 1; i < kBatch; ++i) {
    any = _mm512_or_si512(any, values[i]);
    all = _mm512_and_si512(all, values[i]);
  }
  const __m512i differ = _mm512_or_si512(_mm512_xor_si512(any, sample), _mm512_xor_si512(all, sample));
  return _mm512_test_epi32_mask(differ, load_64(kAlikeBits.data()));
}

// Encodes batches for as long as every value has the shape of the first one and a count that needs no limit. Returns
// how many; of the next one nothing is written.
WIDE_TARGET size_t encode_alike(const nnt_multitype *v, size_t batches, char *records) noexcept {
  const Shape *const shape = shape_to_write(*v);
  if (shape == nullptr) return 0;
  nnt_multitype sample{};
  sample.type = v->type;
  sample.stddev_present = v->stddev_present;
  const __m512i like = load_64(&sample);
  const __m512i move = load_64(kMoves.to_pair.data());
  const __m512i fixed =
      _mm512_broadcast_i64x4(_mm256_load_si256(reinterpret_cast<const __m256i *>(shape->fixed_record)));
  const __mmask64 moved = shape->record_from_value | shape->record_from_value << kRecordSize;
  for (size_t done = 0; done < batches; ++done, v += kBatch, records += kBatch * kRecordSize) {
    __m512i values[kBatch];
#pragma GCC unroll 8
    for (unsigned i = 0; i < kBatch; ++i) values[i] = load_64(v + i);
    if (unlike(values, like) != 0) return done;
    Batch b;
#pragma GCC unroll 4
    for (unsigned i = 0; i < 4; ++i) {
      b.pair[i] = _mm512_or_si512(
          _mm512_maskz_permutex2var_epi8(moved, values[2 * i], move, values[2 * i + 1]), fixed);
    }
    store_batch(b, _mm512_and_si512(checksums(b), low_bytes()), records);
  }
  return batches;
}

WIDE_TARGET bool encode_with(const nnt_multitype *v, size_t batches, char *records) noexcept {
  for (size_t done = 0; done < batches; ++done) {
    done += encode_alike(v + done * kBatch, batches - done, records + done * kBatch * kRecordSize);
    if (done == batches) break;
    const nnt_multitype *const from = v + done * kBatch;
    char *const to = records + done * kBatch * kRecordSize;
    if (!encode_usual(from, to) && !encode_one_by_one(from, kBatch, to)) return false;
  }
  return true;
}

}  // namespace

bool has_wide() noexcept {
  return __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
         __builtin_cpu_supports("avx512vl") && __builtin_cpu_supports("avx512vbmi");
}

bool encode_batches(const nnt_multitype *v, size_t batches, char *records) noexcept {
  return batches == 0 || encode_with(v, batches, records);
}

void decode_batches(const char *records, size_t batches, Refused refused, nnt_multitype *v) noexcept {
  if (refused == Refused::zeros) {
    decode_with<Refused::zeros>(records, batches, v);
  } else {
    decode_with<Refused::absent>(records, batches, v);
  }
}

}  // namespace nnt_v1

#else

namespace nnt_v1 {

bool has_wide() noexcept {
  return false;
}

bool encode_batches(const nnt_multitype *, size_t, char *) noexcept {
  return true;
}

void decode_batches(const char *, size_t, Refused, nnt_multitype *) noexcept {}

}  // namespace nnt_v1

#endif
