// Writing and reading the stored form: doc/histogram.md.
#include "vaskllhist/format_private.h"
#include "vaskllhist/histogram_private.h"

namespace vaskllhist {
namespace {

uint8_t *write_varint(uint8_t *out, uint64_t number) {
  while (number > 0x7f) {
    *out++ = static_cast<uint8_t>(number | 0x80);
    number >>= 7;
  }
  *out++ = static_cast<uint8_t>(number);
  return out;
}

uint64_t stored_count(const histogram &h, size_t index) {
  return h.is_difference ? zigzag(h.counts[index]) : h.counts[index];
}

// The first code is stored whole, every other as its distance from the one before.
size_t size_of_code(const histogram &h, size_t index) {
  if (index == 0) return kFirstCodeBytes;
  return varint_size(static_cast<uint64_t>(h.codes[index] - h.codes[index - 1]));
}

uint8_t *write_code(uint8_t *out, const histogram &h, size_t index) {
  if (index != 0) return write_varint(out, static_cast<uint64_t>(h.codes[index] - h.codes[index - 1]));
  out[0] = static_cast<uint8_t>(h.codes[0]);
  out[1] = static_cast<uint8_t>(h.codes[0] >> 8);
  return out + kFirstCodeBytes;
}

// Reads a stored form once, front to back; no call reads outside of the bytes. After a refusal there is nothing more to
// be read.
class Reader {
 public:
  Reader(const void *bytes, size_t len) : at_(static_cast<const uint8_t *>(bytes)), end_(at_ + len) {}

  size_t rest() const { return static_cast<size_t>(end_ - at_); }

  [[nodiscard]] int header(bool *is_difference) {
    if (rest() < kHeaderBytes) return HIST_E_TRUNCATED;
    if (at_[0] != kMark || (at_[1] | kDifferenceFlag) != (kVersion | kDifferenceFlag)) return HIST_E_VERSION;
    *is_difference = (at_[1] & kDifferenceFlag) != 0;
    at_ += kHeaderBytes;
    return 0;
  }

  // Refuses what write_varint does not write, so that a number has one spelling.
  [[nodiscard]] int varint(uint64_t *number) {
    uint64_t value = 0;
    for (unsigned shift = 0; at_ != end_; shift += 7) {
      const uint64_t digit = *at_ & 0x7f;
      const bool is_last = *at_++ < 0x80;
      if (shift == 63 && (digit > 1 || !is_last)) return HIST_E_NUMBER;
      value |= digit << shift;
      if (!is_last) continue;
      if (digit == 0 && shift != 0) return HIST_E_NUMBER;
      *number = value;
      return 0;
    }
    return HIST_E_TRUNCATED;
  }

  [[nodiscard]] int first_code(Code *code) {
    if (rest() < kFirstCodeBytes) return HIST_E_TRUNCATED;
    *code = static_cast<Code>(at_[0] | at_[1] << 8);
    at_ += kFirstCodeBytes;
    return is_code(*code) ? 0 : HIST_E_BUCKET;
  }

  [[nodiscard]] int next_code(Code *code) {
    uint64_t step = 0;
    if (const int error = varint(&step)) return error;
    if (step == 0 || step > static_cast<uint64_t>(kNoNumberCode - *code)) return HIST_E_BUCKET;
    *code = static_cast<Code>(*code + step);
    return is_code(*code) ? 0 : HIST_E_BUCKET;
  }

 private:
  const uint8_t *at_, *end_;
};

int read_buckets(Reader &in, uint64_t buckets, histogram &h) {
  // Checked before any memory is taken for them.
  if (buckets > in.rest() / kMinBytesPerBucket) return HIST_E_TRUNCATED;
  if (buckets > HIST_MAX_BUCKETS) return HIST_E_NUMBER;
  h.codes.reserve(buckets);
  h.counts.reserve(buckets);
  Code code = 0;
  for (uint64_t i = 0; i < buckets; ++i) {
    uint64_t count = 0;
    if (const int error = i == 0 ? in.first_code(&code) : in.next_code(&code)) return error;
    if (const int error = in.varint(&count)) return error;
    h.codes.push_back(code);
    h.counts.push_back(h.is_difference ? from_zigzag(count) : count);
  }
  return in.rest() == 0 ? 0 : HIST_E_TRAILING;
}

int read(Reader in, histogram &h) {
  uint64_t buckets = 0;
  if (const int error = in.header(&h.is_difference)) return error;
  if (const int error = in.varint(&buckets)) return error;
  return read_buckets(in, buckets, h);
}

const histogram kEmpty;

}  // namespace
}  // namespace vaskllhist

size_t hist_serialized_size(const histogram_t *h) {
  if (h == nullptr) return hist_serialized_size(&vaskllhist::kEmpty);
  size_t size = vaskllhist::kHeaderBytes + vaskllhist::varint_size(h->size());
  for (size_t i = 0; i < h->size(); ++i)
    size += vaskllhist::size_of_code(*h, i) + vaskllhist::varint_size(vaskllhist::stored_count(*h, i));
  return size;
}

ssize_t hist_serialize(const histogram_t *h, void *out, size_t len) {
  if (h == nullptr) return hist_serialize(&vaskllhist::kEmpty, out, len);
  if (out == nullptr) return HIST_E_ARGUMENT;
  const size_t size = hist_serialized_size(h);
  if (size > len) return HIST_E_ROOM;
  auto *at = static_cast<uint8_t *>(out);
  *at++ = vaskllhist::kMark;
  *at++ = h->is_difference ? vaskllhist::kVersion | vaskllhist::kDifferenceFlag : vaskllhist::kVersion;
  at = vaskllhist::write_varint(at, h->size());
  for (size_t i = 0; i < h->size(); ++i) {
    at = vaskllhist::write_code(at, *h, i);
    at = vaskllhist::write_varint(at, vaskllhist::stored_count(*h, i));
  }
  return static_cast<ssize_t>(size);
}

ssize_t hist_deserialize(histogram_t *h, const void *bytes, size_t len) {
  if (h == nullptr || (bytes == nullptr && len != 0)) return HIST_E_ARGUMENT;
  return vaskllhist::or_out_of_memory([&]() -> ssize_t {
    histogram result;
    if (const int error = vaskllhist::read({bytes, len}, result)) return error;
    *h = std::move(result);
    return static_cast<ssize_t>(len);
  });
}
