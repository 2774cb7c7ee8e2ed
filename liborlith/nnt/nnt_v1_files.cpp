// Operations on whole version 1 files: merging, moving the epoch back, dropping the front.
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <limits>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1.h"
#include "liborlith/nnt/nnt_v1_private.h"

namespace {

using nnt_v1::kRecordSize;
using nnt_v1::kStart;

// What watches the logs knows a refused merge by file and line, so these do not follow the source. Do not change
// them: add new conditions elsewhere.
constexpr char kMergeFile[] = "nnt/nnt_v1.cpp";
constexpr int kMergeOpsetLine = 431;
constexpr int kMergePeriodLine = 432;
constexpr int kMergeEpochLine = 433;

void assert_mergeable(const nnt_handle *dst, const nnt_handle *src) noexcept {
  if (dst->opset != src->opset)
    liborlith_assert_failed("dst->opset == src->opset", kMergeFile, kMergeOpsetLine);
  if (dst->hdr.period != src->hdr.period)
    liborlith_assert_failed("dst->hdr.period == src->hdr.period", kMergeFile, kMergePeriodLine);
  if (dst->hdr.epoch > src->hdr.epoch)
    liborlith_assert_failed("dst->hdr.epoch <= src->hdr.epoch", kMergeFile, kMergeEpochLine);
}

// The whole records of an open file; -1 with errno when its size is unknown or it has lost its header.
int64_t records_bytes_of(int fd) noexcept {
  const int64_t size_bytes = nnt_io::file_size(fd);
  if (size_bytes < 0) return -1;
  if (size_bytes < static_cast<int64_t>(kStart)) {
    errno = EIO;
    return -1;
  }
  return static_cast<int64_t>(nnt_v1::records_in(static_cast<uint64_t>(size_bytes)) * kRecordSize);
}

enum class copied { all, short_write, failed };

// Writes the first `len` bytes of `src_fd`'s records to `dst_fd` at `offset`, from a map with one write.
copied copy_records(int src_fd, int dst_fd, int64_t len, int64_t offset) noexcept {
  if (len == 0) return copied::all;
  const nnt_io::Mapping image(src_fd, kStart + static_cast<size_t>(len));
  if (!image) return copied::failed;
  const int64_t written =
      nnt_io::write_records_at(dst_fd, image.bytes() + kStart, static_cast<size_t>(len), offset);
  if (written < 0) return copied::failed;
  return written == len ? copied::all : copied::short_write;
}

int refused(const char **error, const char *text) noexcept {
  if (error != nullptr) *error = text;
  return -1;
}

bool write_header(int fd, const nnt_hdr &hdr) noexcept {
  const ssize_t written = nnt_io::retried([&] { return write(fd, &hdr, sizeof(hdr)); });
  return written == static_cast<ssize_t>(sizeof(hdr));
}

// Reads exactly `len` bytes, as often as it takes.
bool read_all(int fd, char *bytes, size_t len, int64_t offset) noexcept {
  while (len > 0) {
    const int64_t got = nnt_io::read_at(fd, bytes, len, offset);
    if (got < 1) return false;
    bytes += got;
    offset += got;
    len -= static_cast<size_t>(got);
  }
  return true;
}

int move_records(nnt_handle *from, int64_t offset, nnt_handle *to, size_t len) noexcept {
  const nnt_io::heap_ptr<char> records(static_cast<char *>(calloc(1, len)));
  if (!records || !read_all(from->fd, records.get(), len, offset)) return -1;
  return nnt_io::write_all_records_at(to->fd, records.get(), len, static_cast<int64_t>(kStart));
}

}  // namespace

int nnt_v1_merge(nnt_handle *dst, nnt_handle *src, const char **error) noexcept {
  assert_mergeable(dst, src);
  const uint64_t slot = nnt_v1::slot_of(dst->hdr, src->hdr.epoch);
  const int64_t len = records_bytes_of(src->fd);
  if (len < 0) return refused(error, strerror(errno));
  const auto offset = nnt_v1::offset_of(slot, static_cast<uint64_t>(len) / kRecordSize);
  if (!offset) return refused(error, strerror(EFBIG));
  switch (copy_records(src->fd, dst->fd, len, *offset)) {
    case copied::all:
      return 0;
    case copied::short_write:
      return refused(error, "short write");
    case copied::failed:
      break;
  }
  return refused(error, strerror(errno));
}

int nnt_v1_rewind_epoch(nnt_handle *h, uint64_t whence, int fd) noexcept {
  if (whence == 0 || h->hdr.epoch <= whence) return -1;
  nnt_hdr earlier = h->hdr;
  earlier.epoch = whence / h->hdr.period * h->hdr.period;
  if (!write_header(fd, earlier)) return -1;

  const uint64_t gap_slots = nnt_v1::slot_of(earlier, h->hdr.epoch);
  const int64_t len = records_bytes_of(h->fd);
  if (len < 0) return -1;
  const auto offset = nnt_v1::offset_of(gap_slots, static_cast<uint64_t>(len) / kRecordSize);
  if (!offset) return -1;
  // The gap becomes a hole, which reads as absent slots.
  if (nnt_io::retried([&] { return ftruncate(fd, *offset + len); }) != 0) return -1;
  return copy_records(h->fd, fd, len, *offset) == copied::all ? 0 : -1;
}

int nnt_v1_delete_range(nnt_handle *h, nnt_handle *h2, uint64_t /*end: kept for its callers*/) noexcept {
  uint64_t apocalypse = 0;
  if (nnt_v1_get_apocalypse(h, &apocalypse) != 0) return -1;
  const uint64_t period = h->hdr.period;
  const int64_t count = static_cast<int64_t>(apocalypse / period - h2->hdr.epoch / period);
  if (count < 1) return 0;
  // The size of the move is a signed 32-bit number of bytes. A size that wraps to below 1 moves nothing, as it always
  // has; one that wraps to a smaller positive number would drop records unseen, so it is refused.
  const int64_t len = count * static_cast<int64_t>(kRecordSize);
  const int32_t len32 = static_cast<int32_t>(static_cast<uint32_t>(len));
  if (len32 < 1) return 0;
  if (len32 != len || h2->hdr.epoch / period < h->hdr.epoch / period) {
    errno = EINVAL;
    return -1;
  }
  const uint64_t first_slot = h2->hdr.epoch / period - h->hdr.epoch / period;
  const int64_t offset = static_cast<int64_t>(kStart + first_slot * kRecordSize);
  return move_records(h, offset, h2, static_cast<size_t>(len)) == 0 ? static_cast<int>(count) : -1;
}
