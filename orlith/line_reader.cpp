#include "orlith/line_reader.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "orlith/signals.h"

namespace {

constexpr int kIdle_ms = 1000;

constexpr size_t kBufferBytes = LineReader::kMaxLineBytes + (size_t{256} << 10);

uint64_t sum_of_sizes(const std::vector<std::string> &files) {
  uint64_t total = 0;
  for (const std::string &file : files) {
    struct stat info {};
    const int result = file == "-" ? fstat(STDIN_FILENO, &info) : stat(file.c_str(), &info);
    if (result != 0 || !S_ISREG(info.st_mode)) return 0;
    total += static_cast<uint64_t>(info.st_size);
  }
  return total;
}

}  // namespace

LineReader::LineReader(std::vector<std::string> files, bool (*interrupted)())
    : files_(std::move(files)),
      interrupted_(interrupted),
      buffer_(kBufferBytes),
      total_bytes_(sum_of_sizes(files_)) {}

LineReader::~LineReader() {
  if (fd_ > STDIN_FILENO) close(fd_);
}

bool LineReader::next(InputLine *line) {
  while (true) {
    const size_t held = end_ - begin_;
    const char *unsearched = buffer_.data() + begin_ + searched_;
    const void *newline = held == searched_ ? nullptr : memchr(unsearched, '\n', held - searched_);
    if (newline != nullptr) {
      take(static_cast<size_t>(static_cast<const char *>(newline) - (buffer_.data() + begin_)), 1, line);
      return true;
    }
    searched_ = held;
    if (at_end_of_file_ && (held > 0 || skipping_)) {  // the last line may lack its newline
      take(held, 0, line);
      return true;
    }
    if (held > kMaxLineBytes) skip_held();
    const bool more = fd_ < 0 || at_end_of_file_ ? open_next_file() : fill();
    if (!more) return false;
  }
}

void LineReader::take(size_t length, size_t newline, InputLine *line) {
  line->too_long = skipping_ || length > kMaxLineBytes;
  line->text = {buffer_.data() + begin_, length};
  if (skipping_) line->text = long_line_head_;
  if (line->too_long) line->text = line->text.substr(0, kLongLineHeadBytes);
  skipping_ = false;
  searched_ = 0;
  begin_ += length + newline;
  position_.end_byte += length + newline;
  ++position_.line;
  line->position = position_;
}

void LineReader::skip_held() {
  if (!skipping_) long_line_head_.assign(buffer_.data() + begin_, kLongLineHeadBytes);
  skipping_ = true;
  position_.end_byte += end_ - begin_;
  begin_ = end_ = searched_ = 0;
}

bool LineReader::open_next_file() {
  if (fd_ > STDIN_FILENO) close(fd_);
  fd_ = -1;
  if (next_file_ == files_.size()) return false;
  const std::string &name = files_[next_file_++];
  position_ = {&name, 0, 0};
  begin_ = end_ = searched_ = 0;
  at_end_of_file_ = false;
  while (fd_ < 0) {  // opening a named pipe may wait, too
    if (interrupted_()) return false;
    fd_ = name == "-" ? STDIN_FILENO : open(name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ >= 0 || errno == EINTR) continue;
    fail("cannot be opened");
    return false;
  }
  struct stat info {};
  may_wait_ = fstat(fd_, &info) == 0 && !S_ISREG(info.st_mode);
  return true;
}

bool LineReader::wait_until_readable() {
  while (!interrupted_()) {
    if (!may_wait_ || wait_for_input(fd_, kIdle_ms)) return true;
    if (!interrupted_() && !idle_()) return false;
  }
  return false;
}

bool LineReader::fill() {
  if (begin_ > 0) {
    memmove(buffer_.data(), buffer_.data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  ssize_t got = -1;
  do {
    if (!wait_until_readable()) return false;
    got = read(fd_, buffer_.data() + end_, buffer_.size() - end_);
  } while (got < 0 && errno == EINTR);
  if (got < 0) {
    fail("cannot be read");
    return false;
  }
  if (got == 0) at_end_of_file_ = true;
  end_ += static_cast<size_t>(got);
  bytes_read_ += static_cast<uint64_t>(got);
  return true;
}

void LineReader::fail(const char *what) {
  error_ = *position_.file + ": " + what + ": " + strerror(errno);
}
