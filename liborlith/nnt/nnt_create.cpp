// Making NNT files: a header and nothing else.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "liborlith/nnt/nnt.h"
#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1.h"

namespace {

constexpr size_t kTemplateSize = 4096;

// Tells apart the templates of concurrent callers with the same base name.
std::atomic<uint32_t> next_tmp_number{0};

bool makes_valid_header(uint64_t epoch, uint64_t period) noexcept {
  if (static_cast<uint32_t>(period) != 0 && epoch % period == 0) return true;
  errno = EINVAL;
  return false;
}

nnt_hdr header_of(const char *version, uint64_t epoch, uint64_t period) noexcept {
  nnt_hdr hdr{};
  const char *magic = version != nullptr ? version : NNT_V1_MAGIC;
  memcpy(hdr.version, magic, strnlen(magic, sizeof(hdr.version)));
  hdr.period = static_cast<uint32_t>(period);
  hdr.epoch = epoch;
  return hdr;
}

bool write_header(int fd, const nnt_hdr &hdr) noexcept {
  const ssize_t written = nnt_io::retried([&] { return write(fd, &hdr, sizeof(hdr)); });
  if (written == static_cast<ssize_t>(sizeof(hdr))) return true;
  if (written >= 0) errno = EIO;  // a short write says nothing about its reason
  return false;
}

// Opens a new file whose name it leaves in `name`. -1 with errno.
int make_temporary(char (&name)[kTemplateSize], const char *filebase, uint32_t number) noexcept {
  const int length = snprintf(name, sizeof(name), "%s_%" PRIx32 "_XXXXXX", filebase, number);
  if (length >= 0 && static_cast<size_t>(length) < sizeof(name)) return mkstemp(name);
  errno = ENAMETOOLONG;
  return -1;
}

// Runs a clean-up without letting it hide why it was needed.
template <typename CleanUp>
int failed_after(CleanUp clean_up) noexcept {
  const int saved_errno = errno;
  clean_up();
  errno = saved_errno;
  return -1;
}

}  // namespace

int nnt_create(const char *version, const char *file, uint64_t e, uint64_t t, mode_t m) noexcept {
  if (!makes_valid_header(e, t)) return -1;
  const int fd = nnt_io::retried([&] { return open(file, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, m); });
  if (fd < 0) return -1;
  if (!write_header(fd, header_of(version, e, t))) {
    return failed_after([&] {
      close(fd);
      unlink(file);
    });
  }
  close(fd);
  return 0;
}

int nnt_create_tmp(const char *version, const char *filebase, uint64_t e, uint64_t t, mode_t) noexcept {
  if (!makes_valid_header(e, t)) return -1;
  const uint32_t number = next_tmp_number.fetch_add(1);
  char name[kTemplateSize];
  // The template is written anew for each attempt: mkstemp leaves it in no particular state.
  const int fd = nnt_io::retried([&] { return make_temporary(name, filebase, number); });
  if (fd < 0) return -1;
  unlink(name);
  fcntl(fd, F_SETFD, FD_CLOEXEC);
  if (!write_header(fd, header_of(version, e, t))) return failed_after([&] { close(fd); });
  return fd;
}
