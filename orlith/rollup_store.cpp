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

#include "orlith/data_path.h"

namespace {

constexpr mode_t kFileMode = 0666;
constexpr mode_t kFolderMode = 0777;
constexpr uint64_t kHeaderBytes = 16;
constexpr uint64_t kRecordBytes = 32;

struct CloseNnt {
  void operator()(nnt_handle *handle) const { nnt_close(handle); }
};
using NntFile = std::unique_ptr<nnt_handle, CloseNnt>;

std::string with(const std::string &path, std::string_view suffix) {
  return path + std::string(suffix);
}

// Opens without a sync at every close: the commit syncs the whole file system once.
NntFile open_nnt(const std::string &path, std::string *error) {
  char *message = nullptr;
  NntFile file(nnt_open_sync(path.c_str(), false, &message));
  const int open_errno = errno;
  if (message != nullptr) *error = message;
  free(message);
  errno = open_errno;
  return file;
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
    if (put <= 0) return false;
    bytes += put;
    length -= static_cast<size_t>(put);
    offset += put;
  }
  return true;
}

}  // namespace

RollupStore::~RollupStore() {
  if (!changes_.empty()) roll_back();
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
  if (folder_fd_ < 0) return fail_errno(folder_, "cannot be used as a folder");
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
    if (errno == 0) handle = open_nnt(reached.path(), &message);
  }
  if (!handle) return errno == ENOENT ? write_copy(path, nullptr, file, slots) : fail(path, message);

  if (handle->hdr.period != file.period_s) {
    return fail(path, "holds slots of " + std::to_string(handle->hdr.period) + " s instead of " +
                          std::to_string(file.period_s) + " s; move it away to go on");
  }
  read_stored(path, handle.get(), file, slots);
  if (slots.front().start_s < handle->hdr.epoch) return write_copy(path, handle.get(), file, slots);
  return write_in_place(path, handle.get(), file, slots);
}

bool RollupStore::write_in_place(const std::string &path, nnt_handle *handle, const SlotFile &file,
                                 std::span<const SlotWrite> slots) {
  if (!keep_old_bytes(path, handle, file, slots)) return fail_errno(path, "cannot be read");
  return put_runs(handle, file, slots) || fail_errno(path, "cannot be written");
}

bool RollupStore::write_copy(const std::string &path, nnt_handle *old, const SlotFile &file,
                             std::span<const SlotWrite> slots) {
  const ReachablePath reached(path, true);
  const std::string copy = with(reached.path(), kNewSuffix);
  errno = reached.error();
  if (errno != 0) return fail_errno(path, "its folder cannot be created");
  unlink(copy.c_str());  // left by a process that was killed
  if (nnt_create(nullptr, copy.c_str(), slots.front().start_s, file.period_s, kFileMode) != 0) {
    return fail_errno(path, "cannot be created");
  }
  Undo change;
  change.path = path;
  change.prepared_copy = true;
  change.replaced_existing = old != nullptr;
  changes_.push_back(std::move(change));

  std::string message;
  const NntFile handle = open_nnt(copy, &message);
  if (!handle) return fail(path, message);
  const char *merge_error = nullptr;
  if (old != nullptr && nnt_merge(handle.get(), old, &merge_error) != 0) {
    return fail(path, std::string("cannot be copied: ") + merge_error);
  }
  return put_runs(handle.get(), file, slots) || fail_errno(path, "cannot be written");
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
  std::vector<nnt_multitype> values;
  for (const Run &run : runs_of(slots, file.period_s)) {
    values.clear();
    for (const SlotWrite &write : slots.subspan(run.first, run.count)) {
      write.slot->owners_read = std::max(write.slot->owners_read, static_cast<uint16_t>(file.owner + 1));
      values.push_back(combined_slot(*write.slot, file.owner));
    }
    errno = 0;
    const int count = static_cast<int>(run.count);
    if (nnt_put_range(handle, slots[run.first].start_s, count, values.data()) != count) {
      if (errno == 0) errno = ENOSPC;  // a short write without an error of its own: the device ended
      return false;
    }
    records_written_ += run.count;
  }
  return true;
}

bool RollupStore::keep_old_bytes(const std::string &path, nnt_handle *handle, const SlotFile &file,
                                 std::span<const SlotWrite> slots) {
  struct stat info {};
  if (fstat(handle->fd, &info) != 0) return false;
  const uint64_t size = static_cast<uint64_t>(info.st_size);
  for (const Run &run : runs_of(slots, file.period_s)) {
    const uint64_t begin = std::min(record_offset(handle->hdr, slots[run.first].start_s), size);
    const uint64_t end = std::min(begin + run.count * kRecordBytes, size);
    Undo change;
    change.path = path;
    change.offset = static_cast<off_t>(begin);
    change.old_size = info.st_size;
    change.old_bytes.resize(end - begin);
    if (!read_whole(handle->fd, change.old_bytes.data(), change.old_bytes.size(), change.offset))
      return false;
    changes_.push_back(std::move(change));
  }
  return true;
}

void RollupStore::read_stored(const std::string &path, nnt_handle *handle, const SlotFile &file,
                              std::span<const SlotWrite> slots) {
  uint64_t apocalypse = 0;
  if (nnt_get_apocalypse(handle, &apocalypse) != 0) apocalypse = UINT64_MAX;
  for (const SlotWrite &write : slots) {
    OpenSlot &slot = *write.slot;
    if (file.owner < slot.owners_read || write.start_s >= apocalypse) continue;
    nnt_multitype value{};
    if (nnt_get(handle, write.start_s, &value) != 1) {
      if (damaged_records_++ == 0)
        first_damaged_ = path + ": the record of second " + std::to_string(write.start_s);
      continue;
    }
    if (value.type == NNT_TYPE_ABSENT) continue;
    if (slot.stored.empty()) slot.stored.resize(file.owner_count);
    slot.stored[file.owner] = value;
  }
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
}

bool RollupStore::sync() {
  return syncfs(folder_fd_) == 0 || fail_errno(folder_, "cannot be brought to the disk");
}

bool RollupStore::fail(const std::string &path, const std::string &what) {
  if (error_.empty()) error_ = path + ": " + what;
  return false;
}

bool RollupStore::fail_errno(const std::string &path, const char *what) {
  return fail(path, std::string(what) + ": " + strerror(errno));
}
