// Reading and writing the slots of a version 1 file through its descriptor.
#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1.h"
#include "liborlith/nnt/nnt_v1_private.h"
#include "liborlith/nnt/nnt_v1_range_private.h"

namespace {

using nnt_v1::kRecordSize;

// Records of a range on their way between values and file: on the stack up to a few days of 5-minute slots, on the
// heap beyond. The content is not initialised.
class RecordBuffer {
 public:
  explicit RecordBuffer(size_t records) noexcept {
    if (records <= kOnStack) {
      bytes_ = stack_;
    } else {
      heap_.reset(static_cast<char *>(malloc(records * kRecordSize)));
      bytes_ = heap_.get();
    }
  }
  RecordBuffer(const RecordBuffer &) = delete;
  RecordBuffer &operator=(const RecordBuffer &) = delete;

  char *bytes() noexcept { return bytes_; }
  explicit operator bool() const noexcept { return bytes_ != nullptr; }

  static constexpr size_t kOnStack = 1024;

 private:
  alignas(64) char stack_[kOnStack * kRecordSize];
  nnt_io::heap_ptr<char> heap_;
  char *bytes_;
};

int records_written(int64_t bytes) noexcept {
  if (bytes < 0 || bytes % static_cast<int64_t>(kRecordSize) != 0) return -1;
  return static_cast<int>(bytes / static_cast<int64_t>(kRecordSize));
}

int put_one(int fd, const nnt_multitype &v, int64_t offset) noexcept {
  char record[kRecordSize];
  if (nnt_v1::encode(v, record) != 0) return -1;
  return records_written(nnt_io::write_records_at(fd, record, sizeof(record), offset));
}

int put_many(int fd, const nnt_multitype *v, size_t count, int64_t offset) noexcept {
  RecordBuffer buffer(count);
  if (!buffer || !nnt_v1::encode_range(v, count, buffer.bytes())) return -1;
  return records_written(nnt_io::write_records_at(fd, buffer.bytes(), count * kRecordSize, offset));
}

// Marks the values before the epoch absent and returns how many there are. The distance from `whence` is counted in
// 32 bits and wraps, as it does in every reader: past 2^32 the count starts over at `whence`.
size_t mark_before_epoch(const nnt_hdr &hdr, uint64_t whence, size_t count, nnt_multitype *v,
                         uint64_t *first_read) noexcept {
  uint32_t distance = 0;
  size_t skipped = 0;
  while (skipped < count && whence + distance < hdr.epoch) {
    v[skipped++].type = NNT_TYPE_ABSENT;
    distance += hdr.period;
  }
  *first_read = whence + distance;
  return skipped;
}

// How many of `count` records from `offset` on to ask for: no more than the file holds, so that a long range over a
// short file costs no memory. Short ranges are read as they are, without asking for the size first.
size_t records_to_read(int fd, size_t count, int64_t offset) noexcept {
  if (count <= RecordBuffer::kOnStack) return count;
  const int64_t size_bytes = nnt_io::file_size(fd);
  if (size_bytes < 0) return count;
  if (size_bytes <= offset) return 0;
  const auto held = (static_cast<uint64_t>(size_bytes - offset) + kRecordSize - 1) / kRecordSize;
  return held < count ? static_cast<size_t>(held) : count;
}

void mark_absent(nnt_multitype *v, size_t count) noexcept {
  for (size_t i = 0; i < count; ++i) v[i].type = NNT_TYPE_ABSENT;
}

// Reads `count` slots from file offset `offset` on. False when the read fails or ends inside a record.
bool read_slots(int fd, int64_t offset, size_t count, nnt_multitype *v) noexcept {
  const size_t due = records_to_read(fd, count, offset);
  RecordBuffer buffer(due);
  if (!buffer) return false;
  const int64_t got = nnt_io::read_at(fd, buffer.bytes(), due * kRecordSize, offset);
  if (got < 0 || got % static_cast<int64_t>(kRecordSize) != 0) return false;
  const size_t read = static_cast<size_t>(got) / kRecordSize;
  // A damaged record leaves its slot absent; the others are still good.
  nnt_v1::decode_range(buffer.bytes(), read, nnt_v1::Refused::absent, v);
  mark_absent(v + read, count - read);
  return true;
}

}  // namespace

int nnt_v1_get(nnt_handle *h, uint64_t whence, nnt_multitype *v) noexcept {
  const auto absent = [v] {
    v->type = NNT_TYPE_ABSENT;
    return 1;
  };
  if (whence < h->hdr.epoch) return absent();
  const auto offset = nnt_v1::offset_of(nnt_v1::slot_of(h->hdr, whence), 1);
  if (!offset) return absent();  // no file reaches that far
  char record[kRecordSize];
  const int64_t got = nnt_io::read_at(h->fd, record, sizeof(record), *offset);
  if (got == 0) return absent();
  if (got != static_cast<int64_t>(sizeof(record))) return -1;
  return nnt_v1::decode(nnt_v1::load(record), v) == 0 ? 1 : -1;
}

int nnt_v1_get_range(nnt_handle *h, uint64_t whence, int cnt, nnt_multitype *v) noexcept {
  if (cnt < 1) return cnt;
  const size_t count = static_cast<size_t>(cnt);
  uint64_t first = 0;
  const size_t skipped = mark_before_epoch(h->hdr, whence, count, v, &first);
  if (skipped == count) return cnt;
  const auto offset = nnt_v1::offset_of(nnt_v1::slot_of(h->hdr, first), count - skipped);
  if (!offset) {
    // No file reaches that far, not even to where the range begins: it is too short for that.
    mark_absent(v + skipped, count - skipped);
    return cnt;
  }
  return read_slots(h->fd, *offset, count - skipped, v + skipped) ? cnt : -1;
}

int nnt_v1_put(nnt_handle *h, uint64_t whence, const nnt_multitype *v) noexcept {
  return nnt_v1_put_range(h, whence, 1, v);
}

int nnt_v1_put_range(nnt_handle *h, uint64_t whence, int icnt, const nnt_multitype *v) noexcept {
  if (icnt < 1) return 0;
  const uint64_t skipped = nnt_v1::values_before_epoch(h->hdr, whence);
  if (skipped >= static_cast<uint64_t>(icnt)) return 0;
  const size_t count = static_cast<size_t>(icnt) - static_cast<size_t>(skipped);
  const uint64_t first = whence + skipped * h->hdr.period;
  const auto offset = nnt_v1::offset_of(nnt_v1::slot_of(h->hdr, first), count);
  if (!offset) {
    errno = EFBIG;
    return -1;
  }
  v += skipped;
  return count == 1 ? put_one(h->fd, *v, *offset) : put_many(h->fd, v, count, *offset);
}
