// Makes system calls and allocations fail, stop short or answer something else at a chosen use.
//
// A test program has them in everything it links statically, through orlith_faults() in test/CMakeLists.txt. They
// hold for the thread that makes them only, and end with their object.
#ifndef TEST_SUPPORT_FAULTS_H
#define TEST_SUPPORT_FAULTS_H

#include <array>
#include <cstddef>
#include <string>

namespace faults {

enum class Call {
  open,
  close,
  pread,
  pwrite,
  pwritev,
  read,
  write,
  fstat,
  mmap,
  ftruncate,
  fsync,
  fdatasync,
  syncfs,
  mkstemp,
  rename,
  link,
  unlink,
  readdir,
  malloc,
  calloc,
  posix_memalign,
  strdup,
  allocation,  // any of the four before
  count
};

constexpr int always = 1000000;

// What the kinds below share: calls number `first` to `first + times - 1`, counted from the making, from 1, meet it.
class Fault {
 public:
  Fault(const Fault &) = delete;
  Fault &operator=(const Fault &) = delete;
  // Whether a call has met it.
  bool hit() const { return hit_; }

 protected:
  enum class Kind { fail, answer, shorten };
  Fault(Call call, Kind kind, int first, int times);
  ~Fault();

  long value_ = 0;
  int error_ = 0;

 private:
  friend struct Faults;  // the wrappers' view of it
  Call call_;
  Kind kind_;
  int from_, until_;
  bool hit_ = false;
  Fault *older_;
};

// They are not made and fail with `error`; a close gives the descriptor back all the same, as the system's does.
class Fail : public Fault {
 public:
  Fail(Call call, int error, int first = 1, int times = always);
};

// They are not made and answer `result`, with errno 0. Not for calls that give pointers.
class Answer : public Fault {
 public:
  Answer(Call call, long result, int first = 1, int times = always);
};

// They (pread, pwrite, pwritev, read or write) move at most `at_most` bytes.
class Short : public Fault {
 public:
  Short(Call call, size_t at_most, int first = 1, int times = always);
};

// Counts the calls that this thread makes from now on.
class Uses {
 public:
  Uses();
  int operator()(Call call) const;

 private:
  std::array<int, static_cast<size_t>(Call::count)> before_;
};

// The last template given to mkstemp, the last name unlinked, and the descriptor last closed, by this thread.
std::string last_template();
std::string last_unlinked();
int last_closed();

}  // namespace faults

#endif
