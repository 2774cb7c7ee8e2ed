// Makes system calls fail, or do less than they were asked, at a chosen use.
//
// A test executable that links syscall_faults.cpp with -Wl,--wrap=<call> for each call listed there has these faults
// in everything it links statically. They hold for the calling thread only, and end with the object.
#ifndef TEST_SUPPORT_SYSCALL_FAULTS_H
#define TEST_SUPPORT_SYSCALL_FAULTS_H

#include <cstddef>

class SyscallFaults {
 public:
  SyscallFaults();
  ~SyscallFaults();
  SyscallFaults(const SyscallFaults &) = delete;
  SyscallFaults &operator=(const SyscallFaults &) = delete;

  // The use of `call` that comes nth from now does nothing and answers -1 with `error` (strdup: null).
  void fail(const char *call, int error, int nth = 1);
  // It does nothing and answers `result`.
  void answer(const char *call, long result, int nth = 1);
  // It writes at most `bytes` (write only).
  void shorten(const char *call, size_t bytes, int nth = 1);
  // Uses of a call that has a fault, on this thread since the object was made.
  int uses(const char *call) const;
};

#endif
