#include "orlith/atomic_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace {

int sync_folder_of(const std::string &path) {
  const size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const int fd = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return errno;
  const int error = fsync(fd) == 0 ? 0 : errno;
  close(fd);
  return error == EINVAL ? 0 : error;  // some file systems have nothing to sync
}

// mkstemp makes files private; a result should be as open as the user's umask allows.
int apply_umask(int fd) {
  const mode_t mask = umask(0);
  umask(mask);
  return fchmod(fd, 0666 & ~mask) == 0 ? 0 : errno;
}

}  // namespace

AtomicFile::~AtomicFile() {
  if (fd_ >= 0) close(fd_);
  if (!temporary_.empty()) unlink(temporary_.c_str());
}

int AtomicFile::open() {
  struct stat existing {};
  if (stat(path_.c_str(), &existing) == 0) {
    if (S_ISDIR(existing.st_mode)) return EISDIR;
    if (!S_ISREG(existing.st_mode)) {
      fd_ = ::open(path_.c_str(), O_WRONLY | O_CLOEXEC);
      return fd_ >= 0 ? 0 : errno;
    }
    // A link stays a link: the file it names is the one replaced.
    if (char *real = realpath(path_.c_str(), nullptr)) {
      path_ = real;
      free(real);
    }
  }
  std::string name = path_ + ".XXXXXX";
  fd_ = mkostemp(name.data(), O_CLOEXEC);
  if (fd_ < 0) return errno;
  temporary_ = name;
  return apply_umask(fd_);
}

int AtomicFile::commit(Existing existing) {
  if (temporary_.empty()) {
    const int error = close(std::exchange(fd_, -1)) == 0 ? 0 : errno;
    return error;
  }
  if (fsync(fd_) != 0) return errno;
  if (close(std::exchange(fd_, -1)) != 0) return errno;
  if (const int error = put_in_place(existing)) return error;
  return sync_folder_of(path_);
}

int AtomicFile::put_in_place(Existing existing) {
  if (existing == Existing::replace) {
    if (rename(temporary_.c_str(), path_.c_str()) != 0) return errno;
    temporary_.clear();
    return 0;
  }
  // A link, unlike a rename, refuses to replace: of two racing writers one wins and the other learns of it.
  return link(temporary_.c_str(), path_.c_str()) == 0 ? 0 : errno;
}
