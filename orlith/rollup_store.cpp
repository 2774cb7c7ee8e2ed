#include "orlith/rollup_store.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "liborlith/nnt/nnt_v1.h"
#include "orlith/data_path.h"

namespace {

constexpr mode_t kFileMode = 0666;
constexpr mode_t kFolderMode = 0777;
constexpr uint64_t kHeaderBytes = 16;
constexpr uint64_t kRecordBytes = sizeof(nnt_datum_v1);
static_assert(kRecordBytes == 32);
constexpr size_t kCopyBytes = size_t{1} << 18;

struct CloseNnt {
  void operator()(nnt_handle *handle) const { nnt_close(handle); }
};
using NntFile = std::unique_ptr<nnt_handle, CloseNnt>;

std::string with(const std::string &path, std::string_view suffix) {
  return path + std::string(suffix);
}

// Takes over what an opening call gave, and its message.
NntFile opened(nnt_handle *handle, char *message, std::string *error) {
  const int open_errno = errno;
  if (message != nullptr) *error = message;
  free(message);
  errno = open_errno;
  return NntFile(handle);
}

// Opens without a sync at every close: the commit syncs the whole file system once.
NntFile open_nnt(const std::string &path, std::string *error) {
  char *message = nullptr;
  nnt_handle *handle = nnt_open_sync(path.c_str(), false, &message);
  return opened(handle, message, error);
}

uint64_t record_offset(const nnt_hdr &header, uint64_t start_s) {
  return kHeaderBytes + (start_s / header.period - header.epoch / header.period) * kRecordBytes;
}

bool read_whole(int fd, char *bytes, size_t length, off_t offset) {
  while (length > 0) {
    const ssize_t got = pread(fd, bytes, length, offset);
    if (got < 0 && errno == EINTR) continue;
    if (got == 0) errno = EIO;  // the file became shorter under our lock
    if (got <= 0) return false;
    bytes += got;
    length -= static_cast<size_t>(got);
    offset += got;
  }
  return true;
}

bool write_whole(int fd, const char *bytes, size_t length, off_t offset) {
  while (length > 0) {
    const ssize_t put = pwrite(fd, bytes, length, offset);
    if (put < 0 && errno == EINTR) continue;
    if (put == 0) errno = ENOSPC;  // the device ended
    if (put <= 0) return false;
    bytes += put;
    length -= static_cast<size_t>(put);
    offset += put;
  }
  return true;
}

// -1 with errno. A file that a killed process left under this name is replaced.
int create_file(const std::string &path) {
  const auto create = [&] {
    int fd = -1;
    do {
      fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
    } while (fd < 0 && errno == EINTR);
    return fd;
  };
  const int fd = create();
  if (fd >= 0 || errno != EEXIST) return fd;
  unlink(path.c_str());
  return create();
}

// A new file without records. Null with *error, and then there is no such file. The descriptor that made the file stays
// the one it is written through: a file costs less than when it is opened a second time.
NntFile create_nnt(const std::string &path, uint64_t epoch_s, uint32_t period_s, std::string *error) {
  const int fd = create_file(path);
  if (fd < 0) {
    *error = std::string("cannot be created: ") + strerror(errno);
    return nullptr;
  }
  nnt_hdr header{};
  static_assert(sizeof header == kHeaderBytes);
  memcpy(header.version, NNT_V1_MAGIC, sizeof header.version);
  header.period = period_s;
  header.epoch = epoch_s;
  NntFile file;
  if (write_whole(fd, reinterpret_cast<const char *>(&header), sizeof header, 0)) {
    char *message = nullptr;
    nnt_handle *handle = nnt_open_fd_sync(fd, false, &message);
    file = opened(handle, message, error);
  } else {
    *error = std::string("cannot be written: ") + strerror(errno);
    close(fd);
  }
  if (!file) unlink(path.c_str());
  return file;
}

bool copy_bytes(int from, int to, off_t begin, off_t end, off_t shift) {
  std::vector<char> buffer(std::min(kCopyBytes, static_cast<size_t>(end - begin)));
  while (begin < end) {
    const size_t length = std::min(buffer.size(), static_cast<size_t>(end - begin));
    if (!read_whole(from, buffer.data(), length, begin)) return false;
    if (!write_whole(to, buffer.data(), length, begin + shift)) return false;
    begin += static_cast<off_t>(length);
  }
  return true;
}

// Copies [begin, size) of `from` to `to`, `shift` bytes further on. Holes stay holes: a file that one early sample made
// long must not fill the disk when it is copied.
bool copy_with_holes(int from, int to, off_t begin, off_t size, off_t shift) {
  while (begin < size) {
    const off_t data = lseek(from, begin, SEEK_DATA);
    if (data < 0 && errno == ENXIO) break;  // a hole up to the end
    const off_t hole = data < 0 ? data : lseek(from, data, SEEK_HOLE);
    if (hole < 0) return false;
    const off_t end = std::min(hole, size);
    if (!copy_bytes(from, to, data, end, shift)) return false;
    begin = end;
  }
  return ftruncate(to, size + shift) == 0;
}

}  // namespace

RollupStore::~RollupStore() {
  if (!changes_.empty()) roll_back();
  for (const auto &[device, fd] : file_systems_) close(fd);
  if (folder_fd_ >= 0) close(folder_fd_);
}

bool RollupStore::open(const std::string &folder) {
  folder_ = folder;
  while (folder_.size() > 1 && folder_.back() == '/') folder_.pop_back();
  const ReachablePath reached(folder_ + "/", true);
  if (reached.error() != 0) {
    errno = reached.error();
    return fail_errno(folder_, "cannot be created");
  }
  if (mkdir(folder_.c_str(), kFolderMode) != 0 && errno != EEXIST)
    return fail_errno(folder_, "cannot be created");
  folder_fd_ = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  struct stat info {};
  if (folder_fd_ < 0 || fstat(folder_fd_, &info) != 0)
    return fail_errno(folder_, "cannot be used as a folder");
  folder_device_ = info.st_dev;
  if (flock(folder_fd_, LOCK_EX | LOCK_NB) == 0) return true;
  if (errno == EWOULDBLOCK) return fail(folder_, "another process is writing into this data folder");
  return fail_errno(folder_, "cannot be locked");
}

bool RollupStore::write(const SlotFile &file, std::span<const SlotWrite> slots) {
  const std::string path = folder_ + "/" + file.path;
  std::string message;
  NntFile handle;
  {
    const ReachablePath reached(path, false);
    errno = reached.error();
    if (errno == 0) {
      handle = open_nnt(reached.path(), &message);
    } else {
      message = strerror(errno);
    }
  }
  if (!handle && errno == ENOENT) return write_copy(path, nullptr, file, slots);
  if (!handle) return fail(path, message + "; mend it or move it away to go on");

  if (handle->hdr.period != file.period_s) {
    return fail(path, "holds slots of " + std::to_string(handle->hdr.period) + " s instead of " +
                          std::to_string(file.period_s) + " s; move it away to go on");
  }
  if (!read_stored(path, handle.get(), file, slots)) return fail_errno(path, "cannot be read");
  if (slots.front().start_s < handle->hdr.epoch) return write_copy(path, handle.get(), file, slots);
  return write_in_place(path, handle.get(), file, slots);
}

bool RollupStore::write_in_place(const std::string &path, nnt_handle *handle, const SlotFile &file,
                                 std::span<const SlotWrite> slots) {
  struct stat info {};
  if (!remember_file_system(path, handle->fd, &info)) return false;
  if (!keep_old_bytes(path, handle, info.st_size, file, slots)) return fail_errno(path, "cannot be read");
  // Extended first, written then: a process that is killed in between leaves absent records, never a part of one.
  const auto end = static_cast<off_t>(record_offset(handle->hdr, slots.back().start_s) + kRecordBytes);
  if (end > info.st_size && ftruncate(handle->fd, end) != 0) return fail_errno(path, "cannot be written");
  return put_runs(handle, file, slots) || fail_errno(path, "cannot be written");
}

bool RollupStore::write_copy(const std::string &path, nnt_handle *old, const SlotFile &file,
                             std::span<const SlotWrite> slots) {
  const ReachablePath reached(path, true);
  const std::string copy = with(reached.path(), kNewSuffix);
  errno = reached.error();
  if (errno != 0) return fail_errno(path, "its folder cannot be created");
  std::string message;
  const NntFile handle = create_nnt(copy, slots.front().start_s, file.period_s, &message);
  if (!handle) return fail(path, message);
  Undo change;
  change.path = path;
  change.prepared_copy = true;
  change.replaced_existing = old != nullptr;
  changes_.push_back(std::move(change));

  struct stat info {};
  if (!remember_file_system(path, handle->fd, &info)) return false;
  if (old != nullptr && !copy_old(path, handle.get(), old)) return false;
  return put_runs(handle.get(), file, slots) || fail_errno(path, "cannot be written");
}

bool RollupStore::copy_old(const std::string &path, nnt_handle *copy, nnt_handle *old) {
  struct stat info {};
  const auto records_at = static_cast<off_t>(kHeaderBytes);
  const auto shift = static_cast<off_t>(record_offset(copy->hdr, old->hdr.epoch)) - records_at;
  if (fstat(old->fd, &info) != 0 || !copy_with_holes(old->fd, copy->fd, records_at, info.st_size, shift)) {
    return fail_errno(path, "cannot be copied");
  }
  // Others than root cannot give files away; the group's and the others' rights count more than the owner then.
  [[maybe_unused]] const int ignored = fchown(copy->fd, info.st_uid, info.st_gid);
  return fchmod(copy->fd, info.st_mode & 07777) == 0 || fail_errno(path, "cannot be copied");
}

bool RollupStore::remember_file_system(const std::string &path, int fd, struct stat *info) {
  if (fstat(fd, info) != 0) return fail_errno(path, "cannot be read");
  if (info->st_dev == folder_device_ || file_systems_.contains(info->st_dev)) return true;
  const int kept = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (kept < 0) return fail_errno(path, "cannot be kept open");
  file_systems_[info->st_dev] = kept;
  return true;
}

bool RollupStore::read(const std::string &below, size_t most_bytes, std::string *bytes, bool *exists) {
  const std::string path = folder_ + "/" + below;
  const ReachablePath reached(path, false);
  errno = reached.error();
  // Opening a pipe would wait for its writer.
  const int fd = errno == 0 ? ::open(reached.path().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK) : -1;
  *exists = fd >= 0;
  if (fd < 0) return errno == ENOENT || fail_errno(path, "cannot be opened");
  struct stat info {};
  bool done = fstat(fd, &info) == 0 || fail_errno(path, "cannot be read");
  if (done && (!S_ISREG(info.st_mode) || static_cast<uint64_t>(info.st_size) > most_bytes))
    done = fail(path, S_ISREG(info.st_mode) ? "is too large; move it away to go on" : "is no regular file");
  if (done) {
    bytes->resize(static_cast<size_t>(info.st_size));
    done = read_whole(fd, bytes->data(), bytes->size(), 0) || fail_errno(path, "cannot be read");
  }
  close(fd);
  return done;
}

bool RollupStore::replace(const std::string &below, std::string_view bytes) {
  const std::string path = folder_ + "/" + below;
  const ReachablePath reached(path, true);
  const std::string copy = with(reached.path(), kNewSuffix);
  errno = reached.error();
  if (errno != 0) return fail_errno(path, "its folder cannot be created");
  unlink(copy.c_str());  // left by a process that was killed
  struct stat old {};
  const bool has_old = stat(reached.path().c_str(), &old) == 0;
  const int fd = ::open(copy.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kFileMode);
  if (fd < 0) return fail_errno(path, "cannot be created");
  Undo change;
  change.path = path;
  change.prepared_copy = true;
  change.replaced_existing = has_old;
  changes_.push_back(std::move(change));
  const bool filled = fill_copy(path, fd, bytes, has_old ? &old : nullptr);
  close(fd);
  whole_file_bytes_uncommitted_ += bytes.size();
  return filled;
}

bool RollupStore::fill_copy(const std::string &path, int fd, std::string_view bytes, const struct stat *old) {
  struct stat info {};
  if (!remember_file_system(path, fd, &info)) return false;
  if (!write_whole(fd, bytes.data(), bytes.size(), 0)) return fail_errno(path, "cannot be written");
  if (old == nullptr) return true;
  // As for a copied file: the owner where we may, the rights always.
  [[maybe_unused]] const int ignored = fchown(fd, old->st_uid, old->st_gid);
  return fchmod(fd, old->st_mode & 07777) == 0 || fail_errno(path, "cannot be written");
}

std::vector<RollupStore::Run> RollupStore::runs_of(std::span<const SlotWrite> slots, uint32_t period_s) {
  std::vector<Run> runs;
  for (size_t i = 0; i < slots.size(); ++i) {
    if (i > 0 && slots[i].start_s == slots[i - 1].start_s + period_s) {
      ++runs.back().count;
    } else {
      runs.push_back({i, 1});
    }
  }
  return runs;
}

bool RollupStore::put_runs(nnt_handle *handle, const SlotFile &file, std::span<const SlotWrite> slots) {
  std::vector<nnt_datum_v1> records;
  for (const Run &run : runs_of(slots, file.period_s)) {
    records.clear();
    for (const SlotWrite &write : slots.subspan(run.first, run.count)) {
      write.slot->owners_read = std::max(write.slot->owners_read, static_cast<uint16_t>(file.owner + 1));
      const nnt_multitype value = combined_slot(*write.slot, file.owner);
      v1_encode(&value, &records.emplace_back());
    }
    const auto offset = static_cast<off_t>(record_offset(handle->hdr, slots[run.first].start_s));
    if (!write_whole(handle->fd, reinterpret_cast<const char *>(records.data()), run.count * kRecordBytes,
                     offset))
      return false;
    records_uncommitted_ += run.count;
  }
  return true;
}

bool RollupStore::keep_old_bytes(const std::string &path, nnt_handle *handle, off_t old_size,
                                 const SlotFile &file, std::span<const SlotWrite> slots) {
  const uint64_t size = static_cast<uint64_t>(old_size);
  for (const Run &run : runs_of(slots, file.period_s)) {
    const uint64_t begin = std::min(record_offset(handle->hdr, slots[run.first].start_s), size);
    const uint64_t end = std::min(begin + run.count * kRecordBytes, size);
    Undo change;
    change.path = path;
    change.offset = static_cast<off_t>(begin);
    change.old_size = old_size;
    change.old_bytes.resize(end - begin);
    if (!read_whole(handle->fd, change.old_bytes.data(), change.old_bytes.size(), change.offset))
      return false;
    changes_.push_back(std::move(change));
  }
  return true;
}

bool RollupStore::read_stored(const std::string &path, nnt_handle *handle, const SlotFile &file,
                              std::span<const SlotWrite> slots) {
  uint64_t apocalypse = 0;
  if (nnt_get_apocalypse(handle, &apocalypse) != 0) apocalypse = UINT64_MAX;
  for (const SlotWrite &write : slots) {
    OpenSlot &slot = *write.slot;
    if (file.owner < slot.owners_read || write.start_s >= apocalypse) continue;
    nnt_multitype value{};
    errno = 0;
    if (nnt_get(handle, write.start_s, &value) != 1) {
      if (errno != 0) return false;  // not damaged but out of reach, perhaps for now only
      if (damaged_records_++ == 0)
        first_damaged_ = path + ": the record of second " + std::to_string(write.start_s);
      continue;
    }
    if (value.type == NNT_TYPE_ABSENT) continue;
    if (slot.stored.empty()) slot.stored.resize(file.owner_count);
    slot.stored[file.owner] = value;
  }
  return true;
}

bool RollupStore::commit() {
  if (changes_.empty()) return true;
  // A copy must be on the disk before it takes its name; without copies one sync is enough.
  const bool has_copies =
      std::any_of(changes_.begin(), changes_.end(), [](const Undo &c) { return c.prepared_copy; });
  if (has_copies && !(sync() && rename_copies())) return false;
  if (!sync()) return false;
  forget_changes();
  return true;
}

bool RollupStore::rename_copies() {
  for (Undo &change : changes_) {
    if (!change.prepared_copy) continue;
    const ReachablePath reached(change.path, false);
    const std::string copy = with(reached.path(), kNewSuffix);
    const std::string old = with(reached.path(), kOldSuffix);
    if (change.replaced_existing) {
      unlink(old.c_str());
      if (link(reached.path().c_str(), old.c_str()) != 0)
        return fail_errno(change.path, "cannot be replaced");
    }
    change.renamed = true;
    if (rename(copy.c_str(), reached.path().c_str()) != 0) {
      change.renamed = false;
      return fail_errno(change.path, "cannot be replaced");
    }
  }
  return true;
}

bool RollupStore::roll_back() {
  bool restored = true;
  // Newest first: a later change may have kept bytes that an earlier one wrote.
  for (auto change = changes_.rbegin(); change != changes_.rend(); ++change) {
    if (undo(*change)) continue;
    if (restored) unrestored_ = change->path + ": " + strerror(errno);
    restored = false;
  }
  changes_.clear();
  records_uncommitted_ = 0;
  whole_file_bytes_uncommitted_ = 0;
  return sync() && restored;
}

bool RollupStore::undo(const Undo &change) {
  const ReachablePath reached(change.path, false);
  const std::string &path = reached.path();
  if (change.prepared_copy) {
    if (!change.renamed) {
      unlink(with(path, kOldSuffix).c_str());
      return unlink(with(path, kNewSuffix).c_str()) == 0;
    }
    if (change.replaced_existing) return rename(with(path, kOldSuffix).c_str(), path.c_str()) == 0;
    return unlink(path.c_str()) == 0;
  }
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool done = write_whole(fd, change.old_bytes.data(), change.old_bytes.size(), change.offset) &&
                    ftruncate(fd, change.old_size) == 0;
  const int saved_errno = errno;
  close(fd);
  errno = saved_errno;
  return done;
}

void RollupStore::forget_changes() {
  for (const Undo &change : changes_) {
    if (!change.prepared_copy) continue;
    if (!change.replaced_existing) {
      ++files_created_;
      continue;
    }
    const ReachablePath reached(change.path, false);
    unlink(with(reached.path(), kOldSuffix).c_str());
  }
  changes_.clear();
  records_written_ += records_uncommitted_;
  records_uncommitted_ = 0;
  whole_file_bytes_written_ += whole_file_bytes_uncommitted_;
  whole_file_bytes_uncommitted_ = 0;
}

bool RollupStore::sync() {
  const bool others = std::all_of(file_systems_.begin(), file_systems_.end(),
                                  [](const auto &entry) { return syncfs(entry.second) == 0; });
  return (others && syncfs(folder_fd_) == 0) || fail_errno(folder_, "cannot be brought to the disk");
}

bool RollupStore::fail(const std::string &path, const std::string &what) {
  if (error_.empty()) error_ = path + ": " + what;
  return false;
}

bool RollupStore::fail_errno(const std::string &path, const char *what) {
  return fail(path, std::string(what) + ": " + strerror(errno));
}
