// A file that appears whole or not at all: written under another name beside its own, synced, renamed.
#ifndef ORLITH_ATOMIC_FILE_H
#define ORLITH_ATOMIC_FILE_H

#include <string>

class AtomicFile {
 public:
  // Nothing is opened yet.
  explicit AtomicFile(std::string path) : path_(std::move(path)) {}
  // Removes what was not committed.
  ~AtomicFile();
  AtomicFile(const AtomicFile &) = delete;
  AtomicFile &operator=(const AtomicFile &) = delete;

  // Opens for writing. A path that exists and is no regular file (a device, a pipe) is written in place. 0, or an
  // errno.
  int open();
  int fd() const { return fd_; }
  // Syncs and puts the file in its place, over an older one (replace) or only where none is (EEXIST otherwise);
  // then syncs the folder. 0, or an errno; then the old state stands, except where only the folder could not be
  // synced: the new file is in its place then, but may not survive a power failure.
  enum class Existing { replace, keep };
  int commit(Existing existing = Existing::replace);

 private:
  int put_in_place(Existing existing);
  std::string path_;
  std::string temporary_;  // empty when written in place
  int fd_ = -1;
};

#endif
