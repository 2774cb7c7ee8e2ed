// Reads lines of any length from files and standard input in bounded memory, and says where each one stood.
#ifndef ORLITH_LINE_READER_H
#define ORLITH_LINE_READER_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

// Where a line stands: `line` counts from 1 within its file, `end_byte` is the file offset just after it.
struct InputPosition {
  const std::string *file = nullptr;  // owned by the reader
  uint64_t line = 0;
  uint64_t end_byte = 0;
};

struct InputLine {
  std::string_view text;  // without its newline; valid until the next call
  InputPosition position;
  bool too_long = false;  // more than kMaxLineBytes: `text` is only its beginning, the rest was skipped
};

class LineReader {
 public:
  // A longer line is no sample of anything; without a bound one missing newline would eat all memory.
  static constexpr size_t kMaxLineBytes = size_t{1} << 20;

  static constexpr size_t kLongLineHeadBytes = 200;

  // "-" is standard input. No file is opened before its turn. `interrupted` is asked before each read and while
  // waiting for input; when it answers true the input ends there.
  LineReader(std::vector<std::string> files, bool (*interrupted)());
  ~LineReader();
  LineReader(const LineReader &) = delete;
  LineReader &operator=(const LineReader &) = delete;

  // Called about every second in which a pipe or a terminal brings nothing. When it answers false the input ends there.
  void on_idle(std::function<bool()> idle) { idle_ = std::move(idle); }

  // The next line of the input, or false at its end or on a failure, which error() then names.
  bool next(InputLine *line);
  const std::string &error() const { return error_; }
  uint64_t bytes_read() const { return bytes_read_; }
  // The size of all files together; 0 when some of them has none to tell (a pipe).
  uint64_t total_bytes() const { return total_bytes_; }

 private:
  void take(size_t length, size_t newline, InputLine *line);
  void skip_held();
  bool open_next_file();
  bool wait_until_readable();
  bool fill();
  void fail(const char *what);

  std::vector<std::string> files_;
  bool (*interrupted_)();
  std::function<bool()> idle_ = [] { return true; };
  size_t next_file_ = 0;
  int fd_ = -1;
  bool may_wait_ = false;  // the file is a pipe or the like
  bool at_end_of_file_ = false;
  std::vector<char> buffer_;
  size_t begin_ = 0;  // what is in the buffer and not handed out: [begin_, end_)
  size_t end_ = 0;
  size_t searched_ = 0;    // of these, known to hold no newline
  bool skipping_ = false;  // inside a line that is too long
  std::string long_line_head_;
  InputPosition position_;
  uint64_t bytes_read_ = 0;
  uint64_t total_bytes_ = 0;
  std::string error_;
};

#endif
