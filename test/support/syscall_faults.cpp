#include "test/support/syscall_faults.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <map>
#include <string>
#include <utility>

namespace {

struct Fault {
  enum class Kind { none, answer, shorten } kind = Kind::none;
  long value = 0;
  int error = 0;
};

struct Call {
  int uses = 0;
  std::map<int, Fault> faults;  // by the use they wait for
};

using Calls = std::map<std::string, Call>;

thread_local Calls *active = nullptr;

Fault next_use(const char *call) {
  if (active == nullptr) return {};
  // The map's own memory must not count as a use.
  Calls *const calls = std::exchange(active, nullptr);
  Fault fault;
  if (const auto entry = calls->find(call); entry != calls->end()) {
    const auto waiting = entry->second.faults.find(++entry->second.uses);
    if (waiting != entry->second.faults.end()) fault = waiting->second;
  }
  active = calls;
  return fault;
}

// Whether the call is not to be made; then `result` and errno are what it answers.
template <typename Result>
bool answered(const char *call, Result *result) {
  const Fault fault = next_use(call);
  if (fault.kind != Fault::Kind::answer) return false;
  *result = (Result)fault.value;
  errno = fault.error;
  return true;
}

void arrange(const char *call, int nth, Fault fault) {
  Call &entry = (*active)[call];
  entry.faults[entry.uses + nth] = fault;
}

}  // namespace

SyscallFaults::SyscallFaults() {
  active = new Calls;
}
SyscallFaults::~SyscallFaults() {
  delete std::exchange(active, nullptr);
}
void SyscallFaults::fail(const char *call, int error, int nth) {
  arrange(call, nth, {Fault::Kind::answer, std::string(call) == "strdup" ? 0 : -1, error});
}
void SyscallFaults::answer(const char *call, long result, int nth) {
  arrange(call, nth, {Fault::Kind::answer, result, 0});
}
void SyscallFaults::shorten(const char *call, size_t bytes, int nth) {
  arrange(call, nth, {Fault::Kind::shorten, static_cast<long>(bytes), 0});
}
int SyscallFaults::uses(const char *call) const {
  const auto entry = active->find(call);
  return entry == active->end() ? 0 : entry->second.uses;
}

extern "C" {

int __real_open(const char *path, int flags, ...);
int __real_fstat(int fd, struct stat *result);
void *__real_mmap(void *address, size_t length, int protection, int flags, int fd, off_t offset);
ssize_t __real_write(int fd, const void *bytes, size_t count);
int __real_unlink(const char *path);
int __real_close(int fd);
char *__real_strdup(const char *text);

int __wrap_open(const char *path, int flags, ...);
int __wrap_fstat(int fd, struct stat *result);
void *__wrap_mmap(void *address, size_t length, int protection, int flags, int fd, off_t offset);
ssize_t __wrap_write(int fd, const void *bytes, size_t count);
int __wrap_unlink(const char *path);
int __wrap_close(int fd);
char *__wrap_strdup(const char *text);

int __wrap_open(const char *path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & (O_CREAT | O_TMPFILE)) != 0) {
    va_list args;
    va_start(args, flags);
    mode = va_arg(args, mode_t);
    va_end(args);
  }
  int result;
  return answered("open", &result) ? result : __real_open(path, flags, mode);
}

int __wrap_fstat(int fd, struct stat *out) {
  int result;
  return answered("fstat", &result) ? result : __real_fstat(fd, out);
}

void *__wrap_mmap(void *address, size_t length, int protection, int flags, int fd, off_t offset) {
  void *result;
  return answered("mmap", &result) ? result : __real_mmap(address, length, protection, flags, fd, offset);
}

ssize_t __wrap_write(int fd, const void *bytes, size_t count) {
  const Fault fault = next_use("write");
  if (fault.kind == Fault::Kind::answer) {
    errno = fault.error;
    return fault.value;
  }
  if (fault.kind == Fault::Kind::shorten) count = std::min(count, static_cast<size_t>(fault.value));
  return __real_write(fd, bytes, count);
}

int __wrap_unlink(const char *path) {
  int result;
  return answered("unlink", &result) ? result : __real_unlink(path);
}

int __wrap_close(int fd) {
  int result;
  if (!answered("close", &result)) return __real_close(fd);
  const int error = errno;
  __real_close(fd);  // a close that fails has still given the descriptor back
  errno = error;
  return result;
}

char *__wrap_strdup(const char *text) {
  char *result;
  return answered("strdup", &result) ? result : __real_strdup(text);
}

}  // extern "C"
