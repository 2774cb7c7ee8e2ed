#include "ruxo/util.h"

#include <pthread.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

const void *ruxo_memmem(const void *haystack, size_t len, const void *needle, size_t needle_len) {
  return memmem(haystack, len, needle, needle_len);
}

int mkdir_for_file(const char *path, mode_t mode) {
  std::string prefix(path);
  for (size_t slash = prefix.find('/', 1); slash != std::string::npos; slash = prefix.find('/', slash + 1)) {
    prefix[slash] = '\0';
    const int result = mkdir(prefix.c_str(), mode);
    prefix[slash] = '/';
    if (result != 0 && errno != EEXIST) return -1;
  }
  return 0;
}

uint64_t ruxo_now_ms(void) {
  struct timespec now {};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

namespace {

// Asked of the kernel once a thread.
thread_local pid_t task = 0;

// The thread that lives on in a forked child has another number there.
__attribute__((constructor)) void forget_task_in_forked_child() {
  pthread_atfork(nullptr, nullptr, [] { task = 0; });
}

}  // namespace

uint64_t ruxo_task_id(void) {
  if (task == 0) task = gettid();
  return static_cast<uint64_t>(task);
}
