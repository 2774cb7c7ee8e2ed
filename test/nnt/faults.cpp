#include "test/nnt/faults.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <mutex>

namespace faults {
namespace {

// Calls may come from several threads; plans are made while there is one.
struct Plan {
  std::atomic<int> calls{0};
  int fail_from = 0, fail_until = 0, error = 0;
  int short_from = 0, short_until = 0;
  size_t at_most = 0;

  bool fails(int number) const { return number >= fail_from && number < fail_until; }
  bool is_short() const { return calls >= short_from && calls < short_until; }
};

std::array<Plan, static_cast<size_t>(Call::count)> plans;
char mkstemp_template[8192];
char unlinked_name[8192];
std::atomic<int> closed_fd{-1};
std::mutex names_lock;

Plan &plan(Call call) {
  return plans[static_cast<size_t>(call)];
}

// Counts a call; true when it is to fail.
bool fails(Call call) {
  Plan &p = plan(call);
  const int number = ++p.calls;
  if (!p.fails(number)) return false;
  errno = p.error;
  return true;
}

size_t allowed(Call call, size_t len) {
  return plan(call).is_short() ? std::min(len, plan(call).at_most) : len;
}

void copy_name(char (&to)[8192], const char *name) {
  const std::lock_guard guard(names_lock);
  size_t i = 0;
  for (; name[i] != '\0' && i + 1 < sizeof(to); ++i) to[i] = name[i];
  to[i] = '\0';
}

}  // namespace

Fail::Fail(Call call, int error, int first, int times) : call_(call) {
  Plan &p = plan(call);
  p.error = error;
  p.fail_from = p.calls + first;
  p.fail_until = p.fail_from + times;
}
Fail::~Fail() {
  plan(call_).fail_from = plan(call_).fail_until = 0;
}

Short::Short(Call call, size_t at_most, int first, int times) : call_(call) {
  Plan &p = plan(call);
  p.at_most = at_most;
  p.short_from = p.calls + first;
  p.short_until = p.short_from + times;
}
Short::~Short() {
  plan(call_).short_from = plan(call_).short_until = 0;
}

int calls(Call call) {
  return plan(call).calls;
}
std::string last_template() {
  return mkstemp_template;
}
std::string last_unlinked() {
  return unlinked_name;
}
int last_closed() {
  return closed_fd;
}

}  // namespace faults

using faults::allowed;
using faults::Call;
using faults::fails;

extern "C" {

int __real_open(const char *path, int flags, mode_t mode);
int __real_close(int fd);
ssize_t __real_pread(int fd, void *buffer, size_t len, off_t offset);
ssize_t __real_pwrite(int fd, const void *buffer, size_t len, off_t offset);
ssize_t __real_write(int fd, const void *buffer, size_t len);
int __real_fstat(int fd, struct stat *st);
void *__real_mmap(void *addr, size_t len, int prot, int flags, int fd, off_t offset);
int __real_ftruncate(int fd, off_t len);
int __real_fsync(int fd);
int __real_mkstemp(char *name);
int __real_unlink(const char *name);
void *__real_malloc(size_t len);
void *__real_calloc(size_t count, size_t size);

int __wrap_open(const char *path, int flags, ...) {
  va_list args;
  va_start(args, flags);
  const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
  va_end(args);
  return fails(Call::open) ? -1 : __real_open(path, flags, mode);
}
int __wrap_close(int fd) {
  const int saved_errno = errno;
  if (fails(Call::close)) return -1;
  errno = saved_errno;
  faults::closed_fd = fd;
  return __real_close(fd);
}
ssize_t __wrap_pread(int fd, void *buffer, size_t len, off_t offset) {
  return fails(Call::pread) ? -1 : __real_pread(fd, buffer, allowed(Call::pread, len), offset);
}
ssize_t __wrap_pwrite(int fd, const void *buffer, size_t len, off_t offset) {
  if (fails(Call::pwrite)) return -1;
  const size_t due = allowed(Call::pwrite, len);
  return due == 0 ? 0 : __real_pwrite(fd, buffer, due, offset);
}
ssize_t __wrap_write(int fd, const void *buffer, size_t len) {
  return fails(Call::write) ? -1 : __real_write(fd, buffer, allowed(Call::write, len));
}
int __wrap_fstat(int fd, struct stat *st) {
  return fails(Call::fstat) ? -1 : __real_fstat(fd, st);
}
void *__wrap_mmap(void *addr, size_t len, int prot, int flags, int fd, off_t offset) {
  return fails(Call::mmap) ? MAP_FAILED : __real_mmap(addr, len, prot, flags, fd, offset);
}
int __wrap_ftruncate(int fd, off_t len) {
  return fails(Call::ftruncate) ? -1 : __real_ftruncate(fd, len);
}
int __wrap_fsync(int fd) {
  return fails(Call::fsync) ? -1 : __real_fsync(fd);
}
int __wrap_mkstemp(char *name) {
  faults::copy_name(faults::mkstemp_template, name);
  return fails(Call::mkstemp) ? -1 : __real_mkstemp(name);
}
int __wrap_unlink(const char *name) {
  faults::copy_name(faults::unlinked_name, name);
  return fails(Call::unlink) ? -1 : __real_unlink(name);
}
void *__wrap_malloc(size_t len) {
  return fails(Call::malloc) ? nullptr : __real_malloc(len);
}
void *__wrap_calloc(size_t count, size_t size) {
  return fails(Call::calloc) ? nullptr : __real_calloc(count, size);
}

}  // extern "C"
