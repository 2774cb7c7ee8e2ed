// Makes system calls and allocations of the library fail, stop short or be interrupted. The test program is linked
// so that these calls pass through faults.cpp (see test/CMakeLists.txt).
#ifndef TEST_NNT_FAULTS_H
#define TEST_NNT_FAULTS_H

#include <cstddef>
#include <string>

namespace faults {

enum class Call {
  open,
  close,
  pread,
  pwrite,
  write,
  fstat,
  mmap,
  ftruncate,
  fsync,
  mkstemp,
  unlink,
  malloc,
  calloc,
  count
};

// While it lives, calls number `first` to `first + times - 1` (counted from its making, from 1) are not made and fail
// with `error`; for the allocations the error is their own.
class Fail {
 public:
  Fail(Call call, int error, int first = 1, int times = 1000000);
  ~Fail();
  Fail(const Fail &) = delete;
  Fail &operator=(const Fail &) = delete;

 private:
  Call call_;
};

// The same, but the calls (pread, pwrite or write) move at most `at_most` bytes.
class Short {
 public:
  Short(Call call, size_t at_most, int first = 1, int times = 1000000);
  ~Short();
  Short(const Short &) = delete;
  Short &operator=(const Short &) = delete;

 private:
  Call call_;
};

// Calls made since the program began.
int calls(Call call);

// The last template given to mkstemp, the last name unlinked, and the descriptor last closed.
std::string last_template();
std::string last_unlinked();
int last_closed();

}  // namespace faults

#endif
