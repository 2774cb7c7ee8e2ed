#include "orlithd/data_folder.h"

#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "orlith/text.h"
#include "ruxo/util.h"

namespace {

constexpr mode_t kFolderMode = 0777;  // less the umask
constexpr mode_t kFileMode = 0666;
constexpr const char *kLockName = "orlithd.lock";

std::string with_error(const std::string &path, int error) {
  return fmt::format("{}: {}", escaped(path), strerror(error));
}

// A folder directly in `parent`.
OwnedFd open_folder(int parent, const char *name) {
  return OwnedFd(openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// The same, made where it is missing; then its entry is on disk too.
OwnedFd open_or_make_folder(int parent, const char *name) {
  if (mkdirat(parent, name, kFolderMode) == 0) {
    if (fsync(parent) != 0) return OwnedFd();
  } else if (errno != EEXIST) {
    return OwnedFd();
  }
  return open_folder(parent, name);
}

// The folder of `relative`, from `root` on; *leaf becomes the last component.
template <typename OpenFolder>
OwnedFd walk_to_parent(int root, const std::string &relative, OpenFolder open_one, std::string *leaf) {
  OwnedFd folder(fcntl(root, F_DUPFD_CLOEXEC, 0));
  size_t start = 0;
  for (size_t slash; folder.valid() && (slash = relative.find('/', start)) != std::string::npos;
       start = slash + 1)
    folder = open_one(folder.get(), relative.substr(start, slash - start).c_str());
  *leaf = relative.substr(start);
  return folder;
}

}  // namespace

OwnedFd &OwnedFd::operator=(OwnedFd &&other) noexcept {
  const int taken = other.release();
  const int saved_errno = errno;  // the reason why the new one may be invalid
  if (fd_ >= 0) ::close(fd_);
  errno = saved_errno;
  fd_ = taken;
  return *this;
}

OwnedFd::~OwnedFd() {
  const int saved_errno = errno;
  if (fd_ >= 0) ::close(fd_);
  errno = saved_errno;
}

int OwnedFd::release() {
  return std::exchange(fd_, -1);
}

int OwnedFd::close() {
  return ::close(release()) == 0 ? 0 : errno;
}

std::string DataFolder::open(const std::string &path) {
  if (mkdir_for_file((path + "/" + kLockName).c_str(), kFolderMode) != 0) return with_error(path, errno);
  root_ = OwnedFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!root_.valid()) return with_error(path, errno);
  if (std::string fault = take_lock(path); !fault.empty()) return fault;
  spool_ = open_or_make_folder(root_.get(), "spool");
  if (!spool_.valid()) return with_error(path + "/spool", errno);
  incoming_ = open_or_make_folder(root_.get(), "incoming");
  if (!incoming_.valid()) return with_error(path + "/incoming", errno);
  empty_incoming();
  return "";
}

// The file stays behind when the process ends: were it removed, two processes could hold locks on two files of its
// name. The lock itself ends with the process, however that ends.
std::string DataFolder::take_lock(const std::string &path) {
  lock_ = OwnedFd(openat(root_.get(), kLockName, O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kFileMode));
  if (!lock_.valid()) return with_error(path + "/" + kLockName, errno);
  if (flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK) return with_error(path + "/" + kLockName, errno);
    char holder[32] = {};
    const ssize_t len = pread(lock_.get(), holder, sizeof holder - 1, 0);
    return fmt::format("{}: in use by process {}", escaped(path),
                       len > 0 ? escaped({holder, strcspn(holder, "\n")}) : "(unknown)");
  }
  const std::string process = fmt::format("{}\n", getpid());
  if (ftruncate(lock_.get(), 0) != 0 ||
      pwrite(lock_.get(), process.data(), process.size(), 0) != static_cast<ssize_t>(process.size()))
    return with_error(path + "/" + kLockName, errno);
  return "";
}

void DataFolder::empty_incoming() const {
  DIR *const entries = fdopendir(fcntl(incoming_.get(), F_DUPFD_CLOEXEC, 0));
  if (entries == nullptr) return;
  while (const dirent *entry = readdir(entries))  // folders are not ours, and refused
    unlinkat(incoming_.get(), entry->d_name, 0);
  closedir(entries);
}

OwnedFd DataFolder::open_file(const std::string &relative, struct stat *info) const {
  std::string leaf;
  const OwnedFd folder = walk_to_parent(root_.get(), relative, open_folder, &leaf);
  if (!folder.valid()) return OwnedFd();
  // Non-blocking, for that a pipe of that name holds nobody up.
  OwnedFd file(openat(folder.get(), leaf.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file.valid() || fstat(file.get(), info) != 0) return OwnedFd();
  if (S_ISREG(info->st_mode)) return file;
  errno = ENOENT;
  return OwnedFd();
}

int DataFolder::begin_incoming(IncomingFile *file) {
  file->name = std::to_string(next_incoming_.fetch_add(1));
  file->fd = OwnedFd(
      openat(incoming_.get(), file->name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode));
  return file->fd.valid() ? 0 : errno;
}

int DataFolder::append(const IncomingFile &file, const void *bytes, size_t len) {
  const char *at = static_cast<const char *>(bytes);
  while (len > 0) {
    const ssize_t written = write(file.fd.get(), at, len);
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) return errno;
    if (written == 0) return ENOSPC;
    at += written;
    len -= static_cast<size_t>(written);
  }
  return 0;
}

int DataFolder::commit(IncomingFile *file, const std::string &relative) const {
  if (fsync(file->fd.get()) != 0) return errno;
  if (const int error = file->fd.close()) return error;
  std::string leaf;
  const OwnedFd folder = walk_to_parent(spool_.get(), relative, open_or_make_folder, &leaf);
  if (!folder.valid()) return errno;
  if (renameat(incoming_.get(), file->name.c_str(), folder.get(), leaf.c_str()) != 0) return errno;
  file->name.clear();
  return fsync(folder.get()) == 0 ? 0 : errno;
}

void DataFolder::discard(IncomingFile *file) const {
  file->fd = OwnedFd();
  if (!file->name.empty()) unlinkat(incoming_.get(), file->name.c_str(), 0);
  file->name.clear();
}

uint64_t DataFolder::free_bytes(int *error) const {
  struct statvfs room {};
  *error = fstatvfs(spool_.get(), &room) == 0 ? 0 : errno;
  return *error == 0 ? uint64_t{room.f_bavail} * room.f_frsize : 0;
}
