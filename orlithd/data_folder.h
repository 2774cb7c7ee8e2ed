// The node's data folder: one process at a time, and no path from outside leads out of it.
//
//   DIR/orlithd.lock                            held while the process lives
//   DIR/<period>/<check uuid>/<path form>.nnt   rollup files, as `orlith ingest` lays them out
//   DIR/incoming/                               uploads that are not complete; emptied at the start
//   DIR/spool/<path>                            complete uploads
//
// Paths below are relative and walked folder by folder. Links are not followed, so whatever is put into the folder,
// what is served lies inside it; and a path may be longer than one system call takes.
//
// Threads: any, once open() has returned.
#ifndef ORLITHD_DATA_FOLDER_H
#define ORLITHD_DATA_FOLDER_H

#include <sys/stat.h>

#include <atomic>
#include <cstdint>
#include <string>

// A descriptor that is closed at the end.
class OwnedFd {
 public:
  explicit OwnedFd(int fd = -1) : fd_(fd) {}
  OwnedFd(OwnedFd &&other) noexcept : fd_(other.release()) {}
  OwnedFd &operator=(OwnedFd &&other) noexcept;
  ~OwnedFd();

  int get() const { return fd_; }
  bool valid() const { return fd_ >= 0; }
  int release();
  // Closes it now. 0, or an errno.
  int close();

 private:
  int fd_;
};

// A file that is being received.
struct IncomingFile {
  OwnedFd fd;
  std::string name;  // in the incoming folder
};

class DataFolder {
 public:
  // Opens or makes the folder and takes its lock. Empty, or what is wrong.
  std::string open(const std::string &path);

  // Opens the regular file at `relative` for reading. An invalid one, and errno, when there is none (ENOENT) or it
  // cannot be opened.
  OwnedFd open_file(const std::string &relative, struct stat *info) const;

  // A new empty file in the incoming folder; 0, or an errno.
  int begin_incoming(IncomingFile *file);
  // Appends; 0, or an errno. A file that has had an error is only fit for discarding.
  static int append(const IncomingFile &file, const void *bytes, size_t len);
  // Syncs the file and moves it to spool/`relative`, over an older one, making the folders on the way. 0; an errno,
  // and then it was not moved, except where only the folder could not be synced. Waits for the disk.
  int commit(IncomingFile *file, const std::string &relative) const;
  void discard(IncomingFile *file) const;

  // Bytes that an upload could still take; or an errno in *error.
  uint64_t free_bytes(int *error) const;

 private:
  std::string take_lock(const std::string &path);
  void empty_incoming() const;

  OwnedFd root_;
  OwnedFd lock_;
  OwnedFd spool_;
  OwnedFd incoming_;
  std::atomic<uint64_t> next_incoming_{0};
};

#endif
