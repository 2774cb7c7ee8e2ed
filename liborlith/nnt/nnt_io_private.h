// Positional input and output for NNT files: interruptions repeated, no torn records left behind.
#ifndef LIBORLITH_NNT_NNT_IO_PRIVATE_H
#define LIBORLITH_NNT_NNT_IO_PRIVATE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>

namespace nnt_io {

// Repeats a system call while a signal interrupts it.
template <typename Call>
auto retried(Call call) noexcept {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

// The size of an open file in bytes; -1 with errno.
int64_t file_size(int fd) noexcept;

// One read of `len` bytes at `offset`; more than one only beyond what the system moves in a single call (2 GiB less
// a page), and then only after full ones. Returns the bytes read, fewer at the end of the file; -1 with errno.
int64_t read_at(int fd, void *buffer, size_t len, int64_t offset) noexcept;

// One write of `len` bytes of whole records at `offset`, a record boundary; the same rule for more than one. Returns
// the bytes written; -1 with errno when none were. When the system stops inside a record, that record is mended
// first (see the source) and the returned count is what was written before: no multiple of the record size.
int64_t write_records_at(int fd, const void *records, size_t len, int64_t offset) noexcept;

// Writes all of `len` bytes, as often as it takes. 0; -1 with errno, with nothing torn left behind.
int write_all_records_at(int fd, const void *records, size_t len, int64_t offset) noexcept;

// A file mapped read-only and shared, unmapped at the end.
class Mapping {
 public:
  Mapping(int fd, size_t len) noexcept;
  ~Mapping();
  Mapping(const Mapping &) = delete;
  Mapping &operator=(const Mapping &) = delete;

  const char *bytes() const noexcept { return static_cast<const char *>(addr_); }
  explicit operator bool() const noexcept { return addr_ != nullptr; }  // false: errno says why

 private:
  void *addr_;
  size_t len_;
};

struct HeapDeleter {
  void operator()(void *p) const noexcept { free(p); }
};
template <typename T>
using heap_ptr = std::unique_ptr<T, HeapDeleter>;

}  // namespace nnt_io

#endif
