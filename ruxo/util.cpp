#include "ruxo/util.h"

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

uint64_t ruxo_task_id(void) {
  static thread_local pid_t process = 0;
  static thread_local pid_t task = 0;
  // Asked of the kernel once a thread; the thread that lives on in a forked child has another number there.
  if (const pid_t now = getpid(); process != now) {
    process = now;
    task = gettid();
  }
  return static_cast<uint64_t>(task);
}
