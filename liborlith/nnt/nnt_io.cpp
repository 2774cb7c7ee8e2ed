#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1.h"

namespace nnt_io {
namespace {

constexpr size_t kRecordSize = sizeof(nnt_datum_v1);

// The most that the system reads or writes in one call; a multiple of the record size.
constexpr size_t kMaxTransfer = 0x7ffff000;
static_assert(kMaxTransfer % kRecordSize == 0);

bool write_rest(int fd, const char *bytes, size_t len, int64_t offset) noexcept {
  while (len > 0) {
    const ssize_t written = retried([&] { return pwrite(fd, bytes, len, offset); });
    if (written < 1) return false;
    bytes += written;
    offset += written;
    len -= static_cast<size_t>(written);
  }
  return true;
}

// A write stopped inside a record, of which `done` bytes are in the file at `offset`.
//
// When the file now ends inside that record, the write had been extending the file: cutting it off restores whole
// records, needs no space and loses nothing that was there. Otherwise the record overlays an older one whose first
// bytes are gone, so the only whole record to be had is the new one: it is finished. Each way stands in for the
// other when it fails. When both fail (a full disk that shares blocks between files, a dying device) an overlaid
// record stays torn; its checksum then tells on it, and the next write of the slot repairs it.
void mend_torn_record(int fd, const char *record, size_t done, int64_t offset) noexcept {
  const int64_t size = file_size(fd);
  const bool at_end = size >= 0 && size < offset + static_cast<int64_t>(kRecordSize);
  const auto cut = [&] { return at_end && retried([&] { return ftruncate(fd, offset); }) == 0; };
  if (cut()) return;
  if (write_rest(fd, record + done, kRecordSize - done, offset + static_cast<int64_t>(done))) return;
  cut();
}

}  // namespace

int64_t file_size(int fd) noexcept {
  struct stat st {};
  if (retried([&] { return fstat(fd, &st); }) != 0) return -1;
  return st.st_size;
}

int64_t read_at(int fd, void *buffer, size_t len, int64_t offset) noexcept {
  size_t done = 0;
  while (done < len) {
    const size_t due = std::min(len - done, kMaxTransfer);
    const ssize_t got = retried([&] {
      return pread(fd, static_cast<char *>(buffer) + done, due, offset + static_cast<int64_t>(done));
    });
    if (got < 0) return -1;
    done += static_cast<size_t>(got);
    if (static_cast<size_t>(got) < due) break;
  }
  return static_cast<int64_t>(done);
}

int64_t write_records_at(int fd, const void *records, size_t len, int64_t offset) noexcept {
  const char *bytes = static_cast<const char *>(records);
  size_t done = 0;
  while (done < len) {
    const size_t due = std::min(len - done, kMaxTransfer);
    const int64_t at = offset + static_cast<int64_t>(done);
    const ssize_t written = retried([&] { return pwrite(fd, bytes + done, due, at); });
    if (written < 0) return done > 0 ? static_cast<int64_t>(done) : -1;
    done += static_cast<size_t>(written);
    if (static_cast<size_t>(written) < due) break;
  }
  const size_t torn = done % kRecordSize;
  if (torn != 0) {
    const size_t whole = done - torn;
    mend_torn_record(fd, bytes + whole, torn, offset + static_cast<int64_t>(whole));
    errno = EIO;
  }
  return static_cast<int64_t>(done);
}

int write_all_records_at(int fd, const void *records, size_t len, int64_t offset) noexcept {
  const char *bytes = static_cast<const char *>(records);
  size_t done = 0;
  while (done < len) {
    const int64_t at = offset + static_cast<int64_t>(done);
    const ssize_t written =
        retried([&] { return pwrite(fd, bytes + done, std::min(len - done, kMaxTransfer), at); });
    if (written < 1) {
      const int saved_errno = written < 0 ? errno : EIO;
      const size_t torn = done % kRecordSize;
      const size_t whole = done - torn;
      if (torn != 0) mend_torn_record(fd, bytes + whole, torn, offset + static_cast<int64_t>(whole));
      errno = saved_errno;
      return -1;
    }
    done += static_cast<size_t>(written);
  }
  return 0;
}

Mapping::Mapping(int fd, size_t len) noexcept : addr_(nullptr), len_(len) {
  void *addr = mmap(nullptr, len, PROT_READ, MAP_SHARED, fd, 0);
  if (addr != MAP_FAILED) addr_ = addr;
}

Mapping::~Mapping() {
  if (addr_ != nullptr) munmap(addr_, len_);
}

}  // namespace nnt_io
