#include "ruxo/util.h"

#include <pthread.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "ruxo/guard_private.h"

const void *ruxo_memmem(const void *haystack, size_t len, const void *needle, size_t needle_len) {
  return memmem(haystack, len, needle, needle_len);
}

namespace {

bool is_folder(const char *path) {
  struct stat found;
  return stat(path, &found) == 0 && S_ISDIR(found.st_mode);
}

// Also when it is there already, made by someone else a moment ago for instance.
int make_folder(const char *path, mode_t mode) {
  if (mkdir(path, mode) == 0) return 0;
  if (errno != EEXIST) return -1;
  if (is_folder(path)) return 0;
  errno = ENOTDIR;
  return -1;
}

int make_parents(std::string path, mode_t mode) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    path[slash] = '\0';
    if (make_folder(path.c_str(), mode) != 0) return -1;
    path[slash] = '/';
  }
  return 0;
}

}  // namespace

int mkdir_for_file(const char *path, mode_t mode) {
  errno = ENOMEM;  // should the copy of the path fail
  return ruxo::guarded(-1, [&] { return make_parents(path, mode); });
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
