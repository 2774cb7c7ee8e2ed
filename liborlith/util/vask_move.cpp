#include "liborlith/util/vask_move.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "liborlith/liborlith_module.h"
#include "ruxo/util.h"

ruxo_log_stream_t vask_move_debug_ls = nullptr;
ruxo_log_stream_t vask_move_error_ls = nullptr;

namespace {

// A write of this many bytes amortises the call, and leaves the processor's cache its next pages.
constexpr size_t kPieceBytes = size_t{1} << 20;

// Repeats a system call for as long as a signal interrupts it.
template <typename Call>
auto uninterrupted(Call call) noexcept {
  decltype(call()) result;
  do {
    result = call();
  } while (result == -1 && errno == EINTR);
  return result;
}

// One attempt at copying `src` to `dest`. The log lines bear the name under which the operators of these systems
// know this step.
class CrossFsRename {
 public:
  CrossFsRename(const char *src, const char *dest) noexcept : src_(src), dest_(dest) {}

  // 0, or -1 with the reason in errno.
  int run(ruxo_boolean unlink_source) noexcept {
    if (!open_source()) return -1;
    if (!stat_source() || !open_destination()) {
      close_quietly(src_fd_);
      return -1;
    }
    const bool done = copy(unlink_source);
    const int reason = errno;
    close_both();
    const int result = done ? 0 : -1;
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: done moving %s to %s - return value %d\n", src_, dest_,
             result);
    errno = reason;
    return result;
  }

 private:
  bool open_source() noexcept {
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to open source file %s\n", src_);
    src_fd_ = uninterrupted([&] { return open(src_, O_RDONLY | O_CLOEXEC); });
    if (src_fd_ >= 0) return true;
    return failed("error opening source file");
  }

  bool stat_source() noexcept {
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to fstat source file %s\n", src_);
    if (uninterrupted([&] { return fstat(src_fd_, &src_stat_); }) == 0) return true;
    return failed("error on fstat for");
  }

  bool open_destination() noexcept {
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to open destination file %s\n", dest_);
    if (!is_source(dest_)) {
      dest_fd_ = uninterrupted(
          [&] { return open(dest_, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, src_stat_.st_mode & 0777); });
    } else {
      errno = EINVAL;
    }
    if (dest_fd_ >= 0) return true;
    return failed("error opening destination file");
  }

  // Truncating the destination must not destroy the source under another name.
  bool is_source(const char *path) const noexcept {
    struct stat other {};
    return stat(path, &other) == 0 && other.st_dev == src_stat_.st_dev && other.st_ino == src_stat_.st_ino;
  }

  bool copy(ruxo_boolean unlink_source) noexcept {
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to mmap source file %s\n", src_);
    const size_t size = static_cast<size_t>(src_stat_.st_size);
    void *bytes = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, src_fd_, 0);
    if (bytes == MAP_FAILED) return failed("error on mmap");
    madvise(bytes, size, MADV_SEQUENTIAL);
    const bool done = write_all(static_cast<const char *>(bytes), size) && finish_source(unlink_source);
    const int reason = errno;
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to unmap memory for source file %s\n", src_);
    munmap(bytes, size);
    errno = reason;
    return done;
  }

  bool write_all(const char *bytes, size_t size) noexcept {
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to copy source file to destination file: %s->%s\n",
             src_, dest_);
    for (size_t position = 0; position < size;) {
      const size_t rest = std::min(size - position, kPieceBytes);
      map_pages(bytes + position, rest);
      const ssize_t written = write(dest_fd_, bytes + position, rest);
      if (written < 0 && (errno == EINTR || errno == EAGAIN)) continue;
      if (written > 0 && static_cast<size_t>(written) <= rest) {
        position += static_cast<size_t>(written);
        continue;
      }
      if (written == 0) errno = EIO;  // no progress and no reason: going on could take for ever
      const int reason = errno;
      if (written > 0) {
        ruxo_log(vask_move_error_ls, "_cross_fs_rename: got weird error, wrote more bytes than expected\n");
      }
      errno = reason;
      return failed("error writing to destination file");
    }
    return true;
  }

  // Maps the pages of a piece in one call instead of a fault for every few of them, where the kernel knows how
  // (Linux 5.14); the write works without.
  static void map_pages(const char *bytes, size_t size) noexcept {
#ifdef MADV_POPULATE_READ
    const int reason = errno;
    const auto address = reinterpret_cast<uintptr_t>(bytes) & ~uintptr_t{4095};
    madvise(reinterpret_cast<void *>(address), reinterpret_cast<uintptr_t>(bytes) + size - address,
            MADV_POPULATE_READ);
    errno = reason;
#endif
  }

  bool finish_source(ruxo_boolean unlink_source) noexcept {
    if (!unlink_source) {
      ruxo_log(vask_move_debug_ls, "_cross_fs_rename: copy move, not unlinking source file %s\n", src_);
      return true;
    }
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to unlink source file %s\n", src_);
    if (unlink(src_) != 0) return failed("error unlinking source file");
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: successfully unlinked source file %s\n", src_);
    return true;
  }

  void close_both() noexcept {
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to close src_fd for %s\n", src_);
    if (close(src_fd_) != 0) failed("failed to close source fd");
    ruxo_log(vask_move_debug_ls, "_cross_fs_rename: about to close dest_fd for %s\n", dest_);
    if (close(dest_fd_) != 0) failed("failed to close destination fd");
  }

  // Logs what failed, with errno's text; always false, and errno stays.
  bool failed(const char *what) const noexcept {
    const int reason = errno;
    ruxo_log(vask_move_error_ls, "_cross_fs_rename: %s (%s->%s) (%s)\n", what, src_, dest_, strerror(reason));
    errno = reason;
    return false;
  }

  static void close_quietly(int fd) noexcept {
    const int reason = errno;
    close(fd);
    errno = reason;
  }

  const char *src_;
  const char *dest_;
  int src_fd_ = -1;
  int dest_fd_ = -1;
  struct stat src_stat_ {};
};

// Tries, creates the destination's folders, and tries once more; `name` is what the last error line begins with.
int move_or_copy(const char *src, const char *dest, ruxo_boolean unlink_source, const char *name) noexcept {
  if (CrossFsRename(src, dest).run(unlink_source) == 0) return 0;
  int reason;
  if (mkdir_for_file(dest, 0777) != 0) {
    reason = errno;
    ruxo_log(vask_move_error_ls, "mkdir for file(%s) -> %s\n", dest, strerror(reason));
  } else {
    if (CrossFsRename(src, dest).run(unlink_source) == 0) return 0;
    reason = errno;
    ruxo_log(vask_move_error_ls, "%s(%s,%s) -> %s\n", name, src, dest, strerror(reason));
  }
  errno = reason;
  return -1;
}

}  // namespace

void vask_move_init(void) {
  static int once = 0;
  if (!liborlith::first_call(once)) return;
  eventer_name_callback("vask_move_vask_asynch_unlink", vask_asynch_unlink);
  eventer_name_callback("vask_move_vask_asynch_move", vask_asynch_move);
  liborlith::open_streams(vask_move_debug_ls, "debug/vask_move", vask_move_error_ls, "error/vask_move");
}

int vask_synch_move(const char *src, const char *dest) {
  return move_or_copy(src, dest, ruxo_true, "_vask_move");
}

int vask_synch_copy(const char *src, const char *dest) {
  return move_or_copy(src, dest, ruxo_false, "_vask_copy");
}

int vask_asynch_move(eventer_t e, int mask, void *closure, struct timeval *) {
  if ((mask & EVENTER_ASYNCH_WORK) == 0) return 0;
  auto *request = static_cast<vask_move_request_t *>(closure);
  vask_synch_move(request->src, request->dest);
  free(request->src);
  free(request->dest);
  free(request);
  eventer_set_mask(e, 0);
  return 0;
}

int vask_asynch_unlink(eventer_t e, int mask, void *closure, struct timeval *) {
  if ((mask & EVENTER_ASYNCH_WORK) == 0) return 0;
  auto *path = static_cast<char *>(closure);
  unlink(path);
  free(path);
  eventer_set_mask(e, 0);
  return 0;
}
