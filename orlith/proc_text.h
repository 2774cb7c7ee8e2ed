// Reading the kernel's text files: whole files, words, numbers. A fault is an exception that names file and line,
// since a source gives up at its first one.
#ifndef ORLITH_PROC_TEXT_H
#define ORLITH_PROC_TEXT_H

#include <charconv>
#include <concepts>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

struct ProcFault : std::runtime_error {
  using std::runtime_error::runtime_error;
  bool missing = false;  // the file is not there
};

// A file read at once (kernel files change between two reads) and taken apart line by line.
class ProcFile {
 public:
  // `path` is how messages name the file, below `root`.
  ProcFile(const std::string &root, std::string path);

  // The next line's words, split at runs of blanks; false at the end. Views into the file's text.
  bool next_line(std::vector<std::string_view> &words);
  // The next line as it is.
  bool next_raw_line(std::string_view &line);
  // The first line without its end; for files that hold one value.
  std::string_view single_line();

  // The word as a number of this type, the whole of it.
  template <typename Number>
  Number number(std::string_view word) const {
    Number value{};
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value);
    if (error != std::errc() || end != word.data() + word.size()) fault(word, "a number");
    return value;
  }
  // The word at `index`; a fault when the line is shorter.
  std::string_view word(const std::vector<std::string_view> &words, size_t index, const char *expected) const;
  [[noreturn]] void fault(std::string_view found, const char *expected) const;

 private:
  std::string path_;
  std::string text_;
  std::string_view rest_;
  size_t line_number_ = 0;
};

#endif
