#include "test/support/faults.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <type_traits>

namespace faults {

// The wrappers run inside malloc: nothing here takes memory.
struct Faults {
  using Kind = Fault::Kind;
  struct Name {
    char text[8192];
  };

  static thread_local std::array<int, static_cast<size_t>(Call::count)> calls;
  static thread_local Fault *newest;
  static thread_local Name made, unlinked;
  static thread_local int closed_fd;

  static int &calls_of(Call call) { return calls[static_cast<size_t>(call)]; }

  static void arrange(Fault &fault, int first, int times) {
    fault.from_ = calls_of(fault.call_) + first;
    fault.until_ = fault.from_ + times;
    fault.older_ = newest;
    newest = &fault;
  }

  static void forget(const Fault &fault) {
    Fault **link = &newest;
    while (*link != &fault) link = &(*link)->older_;
    *link = fault.older_;
  }

  // The fault that the current use of `call` meets, if any.
  static const Fault *met(Call call, bool shortening) {
    const int number = calls_of(call);
    for (Fault *fault = newest; fault != nullptr; fault = fault->older_) {
      if (fault->call_ != call || number < fault->from_ || number >= fault->until_) continue;
      if ((fault->kind_ == Kind::shorten) != shortening) continue;
      fault->hit_ = true;
      return fault;
    }
    return nullptr;
  }

  // Counts a use. Whether it is not to be made; then `*result` and errno are what it answers.
  template <typename Result>
  static bool answered(Call call, Result failure, Result *result) {
    ++calls_of(call);
    const Fault *fault = met(call, false);
    if (fault == nullptr) return false;
    *result = failure;
    if constexpr (std::is_integral_v<Result>) {
      if (fault->kind_ == Kind::answer) *result = static_cast<Result>(fault->value_);
    }
    errno = fault->error_;
    return true;
  }

  // The same for what takes memory.
  template <typename Result>
  static bool refused(Call call, Result failure, Result *result) {
    return answered(call, failure, result) || answered(Call::allocation, failure, result);
  }

  static size_t allowed(Call call, size_t len) {
    const Fault *fault = met(call, true);
    return fault != nullptr ? std::min(len, static_cast<size_t>(fault->value_)) : len;
  }

  static void keep(Name &to, const char *name) {
    size_t i = 0;
    for (; name[i] != '\0' && i + 1 < sizeof(to.text); ++i) to.text[i] = name[i];
    to.text[i] = '\0';
  }
};

thread_local std::array<int, static_cast<size_t>(Call::count)> Faults::calls{};
thread_local Fault *Faults::newest = nullptr;
thread_local Faults::Name Faults::made{}, Faults::unlinked{};
thread_local int Faults::closed_fd = -1;

Fault::Fault(Call call, Kind kind, int first, int times) : call_(call), kind_(kind) {
  Faults::arrange(*this, first, times);
}
Fault::~Fault() {
  Faults::forget(*this);
}

Fail::Fail(Call call, int error, int first, int times) : Fault(call, Kind::fail, first, times) {
  error_ = error;
}
Answer::Answer(Call call, long result, int first, int times) : Fault(call, Kind::answer, first, times) {
  value_ = result;
}
Short::Short(Call call, size_t at_most, int first, int times) : Fault(call, Kind::shorten, first, times) {
  value_ = static_cast<long>(at_most);
}

Uses::Uses() : before_(Faults::calls) {}
int Uses::operator()(Call call) const {
  return Faults::calls_of(call) - before_[static_cast<size_t>(call)];
}

std::string last_template() {
  return Faults::made.text;
}
std::string last_unlinked() {
  return Faults::unlinked.text;
}
int last_closed() {
  return Faults::closed_fd;
}

}  // namespace faults

using faults::Call;
using faults::Faults;

extern "C" {

int __real_open(const char *path, int flags, ...);
int __real_close(int fd);
ssize_t __real_pread(int fd, void *buffer, size_t len, off_t offset);
ssize_t __real_pwrite(int fd, const void *buffer, size_t len, off_t offset);
ssize_t __real_pwritev(int fd, const struct iovec *parts, int count, off_t offset);
ssize_t __real_read(int fd, void *buffer, size_t len);
ssize_t __real_write(int fd, const void *buffer, size_t len);
int __real_fstat(int fd, struct stat *st);
void *__real_mmap(void *addr, size_t len, int prot, int flags, int fd, off_t offset);
int __real_ftruncate(int fd, off_t len);
int __real_fsync(int fd);
int __real_fdatasync(int fd);
int __real_syncfs(int fd);
int __real_mkstemp(char *name);
int __real_rename(const char *from, const char *to);
int __real_link(const char *from, const char *to);
int __real_unlink(const char *name);
struct dirent *__real_readdir(DIR *folder);
void *__real_malloc(size_t len);
void *__real_calloc(size_t count, size_t size);
int __real_posix_memalign(void **out, size_t alignment, size_t len);
char *__real_strdup(const char *text);

int __wrap_open(const char *path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
    va_list args;
    va_start(args, flags);
    mode = va_arg(args, mode_t);
    va_end(args);
  }
  int result;
  return Faults::answered(Call::open, -1, &result) ? result : __real_open(path, flags, mode);
}
int __wrap_close(int fd) {
  Faults::closed_fd = fd;
  int result;
  if (!Faults::answered(Call::close, -1, &result)) return __real_close(fd);
  const int error = errno;
  __real_close(fd);
  errno = error;
  return result;
}
ssize_t __wrap_pread(int fd, void *buffer, size_t len, off_t offset) {
  ssize_t result;
  if (Faults::answered(Call::pread, ssize_t{-1}, &result)) return result;
  return __real_pread(fd, buffer, Faults::allowed(Call::pread, len), offset);
}
ssize_t __wrap_pwrite(int fd, const void *buffer, size_t len, off_t offset) {
  ssize_t result;
  if (Faults::answered(Call::pwrite, ssize_t{-1}, &result)) return result;
  return __real_pwrite(fd, buffer, Faults::allowed(Call::pwrite, len), offset);
}
ssize_t __wrap_pwritev(int fd, const struct iovec *parts, int count, off_t offset) {
  ssize_t result;
  if (Faults::answered(Call::pwritev, ssize_t{-1}, &result)) return result;
  iovec shorter[8];
  int parts_left = 0;
  size_t left = Faults::allowed(Call::pwritev, SIZE_MAX);
  for (; parts_left < count && parts_left < 8; ++parts_left) {
    shorter[parts_left] = {parts[parts_left].iov_base, std::min(parts[parts_left].iov_len, left)};
    left -= shorter[parts_left].iov_len;
  }
  return __real_pwritev(fd, shorter, parts_left, offset);
}
ssize_t __wrap_read(int fd, void *buffer, size_t len) {
  ssize_t result;
  if (Faults::answered(Call::read, ssize_t{-1}, &result)) return result;
  return __real_read(fd, buffer, Faults::allowed(Call::read, len));
}
ssize_t __wrap_write(int fd, const void *buffer, size_t len) {
  ssize_t result;
  if (Faults::answered(Call::write, ssize_t{-1}, &result)) return result;
  return __real_write(fd, buffer, Faults::allowed(Call::write, len));
}
int __wrap_fstat(int fd, struct stat *st) {
  int result;
  return Faults::answered(Call::fstat, -1, &result) ? result : __real_fstat(fd, st);
}
void *__wrap_mmap(void *addr, size_t len, int prot, int flags, int fd, off_t offset) {
  void *result;
  if (Faults::answered(Call::mmap, MAP_FAILED, &result)) return result;
  return __real_mmap(addr, len, prot, flags, fd, offset);
}
int __wrap_ftruncate(int fd, off_t len) {
  int result;
  return Faults::answered(Call::ftruncate, -1, &result) ? result : __real_ftruncate(fd, len);
}
int __wrap_fsync(int fd) {
  int result;
  return Faults::answered(Call::fsync, -1, &result) ? result : __real_fsync(fd);
}
int __wrap_fdatasync(int fd) {
  int result;
  return Faults::answered(Call::fdatasync, -1, &result) ? result : __real_fdatasync(fd);
}
int __wrap_syncfs(int fd) {
  int result;
  return Faults::answered(Call::syncfs, -1, &result) ? result : __real_syncfs(fd);
}
int __wrap_mkstemp(char *name) {
  Faults::keep(Faults::made, name);
  int result;
  return Faults::answered(Call::mkstemp, -1, &result) ? result : __real_mkstemp(name);
}
int __wrap_rename(const char *from, const char *to) {
  int result;
  return Faults::answered(Call::rename, -1, &result) ? result : __real_rename(from, to);
}
int __wrap_link(const char *from, const char *to) {
  int result;
  return Faults::answered(Call::link, -1, &result) ? result : __real_link(from, to);
}
int __wrap_unlink(const char *name) {
  Faults::keep(Faults::unlinked, name);
  int result;
  return Faults::answered(Call::unlink, -1, &result) ? result : __real_unlink(name);
}
struct dirent *__wrap_readdir(DIR *folder) {
  struct dirent *result;
  if (Faults::answered(Call::readdir, static_cast<struct dirent *>(nullptr), &result)) return result;
  return __real_readdir(folder);
}
void *__wrap_malloc(size_t len) {
  void *result;
  return Faults::refused(Call::malloc, static_cast<void *>(nullptr), &result) ? result : __real_malloc(len);
}
void *__wrap_calloc(size_t count, size_t size) {
  void *result;
  if (Faults::refused(Call::calloc, static_cast<void *>(nullptr), &result)) return result;
  return __real_calloc(count, size);
}
int __wrap_posix_memalign(void **out, size_t alignment, size_t len) {
  int result;
  if (Faults::refused(Call::posix_memalign, ENOMEM, &result)) return result;
  return __real_posix_memalign(out, alignment, len);
}
char *__wrap_strdup(const char *text) {
  char *result;
  return Faults::refused(Call::strdup, static_cast<char *>(nullptr), &result) ? result : __real_strdup(text);
}

}  // extern "C"
