// Writes rollup slots into the NNT files of a data folder, and other files as a whole, all or nothing between two
// commits.
//
// A slot inside a file is written in place, after the bytes it replaces were kept; a file that does not exist, or
// whose epoch has to move back, or which is replaced as a whole, is built beside its final name and renamed at the
// commit. commit() brings everything to the disk; roll_back() undoes every write since the last commit, so that a full
// disk leaves the folder as the last commit left it.
#ifndef ORLITH_ROLLUP_STORE_H
#define ORLITH_ROLLUP_STORE_H

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <map>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/nnt/nnt.h"
#include "orlith/rollup_slots.h"

// One slot that goes into a file; what the file holds there is read into it before its first write.
struct SlotWrite {
  uint64_t start_s;
  OpenSlot *slot;
};

// The file of one metric, period and owner.
struct SlotFile {
  std::string path;  // below the data folder
  uint32_t period_s;
  size_t owner;        // which of the slots' `stored` values belongs to this file
  size_t owner_count;  // how many files hold the same slots
};

class RollupStore {
 public:
  RollupStore() = default;
  ~RollupStore();  // rolls back what was not committed
  RollupStore(const RollupStore &) = delete;
  RollupStore &operator=(const RollupStore &) = delete;

  // Opens (and creates) the data folder and locks it against a second writer.
  bool open(const std::string &folder);

  // `slots` ascend and are not empty. False with error() when the file cannot be read or written as a whole.
  bool write(const SlotFile &file, std::span<const SlotWrite> slots);
  // For files that are replaced as a whole: what one holds; nothing, and *exists false, when it is not there. False
  // with error() when it cannot be read or is larger than `most_bytes`.
  bool read(const std::string &path, size_t most_bytes, std::string *bytes, bool *exists);
  // Has the next commit replace or make the file. Once a file between two commits.
  bool replace(const std::string &path, std::string_view bytes);
  // Sets error() for a file that its reader cannot use; false.
  bool refuse(const std::string &path, const std::string &what) { return fail(folder_ + "/" + path, what); }
  bool commit();
  // False when some file could not be put back; unrestored() then names it.
  bool roll_back();

  const std::string &error() const { return error_; }
  const std::string &unrestored() const { return unrestored_; }

  // What the commits brought to the disk.
  uint64_t files_created() const { return files_created_; }
  uint64_t records_written() const { return records_written_; }
  uint64_t whole_file_bytes_written() const { return whole_file_bytes_written_; }
  // Records in the way of new slots whose checksum was wrong; they were replaced.
  uint64_t damaged_records() const { return damaged_records_; }
  const std::string &first_damaged() const { return first_damaged_; }

 private:
  // Undoes one change. Files in preparation have no bytes: they are removed, or their old copy is put back.
  struct Undo {
    std::string path;
    bool prepared_copy = false;  // ".new" stands beside the path until the commit renames it
    bool renamed = false;
    bool replaced_existing = false;  // then ".old" is the file as it was
    off_t offset = 0;
    off_t old_size = 0;
    std::vector<char> old_bytes;
  };
  // A maximal series of slots without a gap.
  struct Run {
    size_t first;
    size_t count;
  };

  bool write_in_place(const std::string &path, nnt_handle *handle, const SlotFile &file,
                      std::span<const SlotWrite> slots);
  bool write_copy(const std::string &path, nnt_handle *old, const SlotFile &file,
                  std::span<const SlotWrite> slots);
  bool put_runs(nnt_handle *handle, const SlotFile &file, std::span<const SlotWrite> slots);
  bool keep_old_bytes(const std::string &path, nnt_handle *handle, off_t old_size, const SlotFile &file,
                      std::span<const SlotWrite> slots);
  bool read_stored(const std::string &path, nnt_handle *handle, const SlotFile &file,
                   std::span<const SlotWrite> slots);
  bool copy_old(const std::string &path, nnt_handle *copy, nnt_handle *old);
  bool fill_copy(const std::string &path, int fd, std::string_view bytes, const struct stat *old);
  bool remember_file_system(const std::string &path, int fd, struct stat *info);
  bool rename_copies();
  bool undo(const Undo &change);
  bool sync();
  void forget_changes();
  bool fail(const std::string &path, const std::string &what);
  bool fail_errno(const std::string &path, const char *what);

  static std::vector<Run> runs_of(std::span<const SlotWrite> slots, uint32_t period_s);

  std::string folder_;
  int folder_fd_ = -1;
  dev_t folder_device_ = 0;
  std::map<dev_t, int>
      file_systems_;  // a descriptor on each that was written to: folders may be mounted or linked in
  std::vector<Undo> changes_;
  std::string error_;
  std::string unrestored_;
  uint64_t files_created_ = 0;
  uint64_t records_written_ = 0;
  uint64_t records_uncommitted_ = 0;
  uint64_t whole_file_bytes_written_ = 0;
  uint64_t whole_file_bytes_uncommitted_ = 0;
  uint64_t damaged_records_ = 0;
  std::string first_damaged_;
};

#endif
