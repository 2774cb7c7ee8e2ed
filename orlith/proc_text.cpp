#include "orlith/proc_text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "orlith/text.h"

namespace {

constexpr size_t most_bytes =
    16 << 20;  // far beyond any kernel file; a root given by the user may hold anything

std::string read_whole(const std::string &path, const std::string &shown) {
  const auto fail = [&](int error) {
    ProcFault fault(fmt::format("{}: {}", escaped(shown), strerror(error)));
    fault.missing = error == ENOENT || error == ENOTDIR;
    throw fault;
  };
  const int fd =
      open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);  // a pipe in place of a file must not block
  if (fd < 0) fail(errno);
  std::string text;
  char buffer[65536];
  ssize_t count = 0;
  while (text.size() < most_bytes) {
    count = read(fd, buffer, sizeof buffer);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;
    text.append(buffer, static_cast<size_t>(count));
  }
  const int error = count < 0 ? errno : text.size() >= most_bytes ? EFBIG : 0;
  close(fd);
  if (error != 0) fail(error);
  return text;
}

}  // namespace

ProcFile::ProcFile(const std::string &root, std::string path)
    : path_(std::move(path)), text_(read_whole(root + path_, path_)), rest_(text_) {}

bool ProcFile::next_raw_line(std::string_view &line) {
  if (rest_.empty()) return false;
  const size_t end = rest_.find('\n');
  line = rest_.substr(0, end);
  rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end + 1);
  ++line_number_;
  return true;
}

bool ProcFile::next_line(std::vector<std::string_view> &words) {
  std::string_view line;
  if (!next_raw_line(line)) return false;
  words.clear();
  for (;;) {
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    if (line.empty()) return true;
    const std::string_view word = line.substr(0, line.find_first_of(" \t"));
    words.push_back(word);
    line.remove_prefix(word.size());
  }
}

std::string_view ProcFile::single_line() {
  std::string_view line;
  if (!next_raw_line(line)) fault("an empty file", "one line");
  return line;
}

std::string_view ProcFile::word(const std::vector<std::string_view> &words, size_t index,
                                const char *expected) const {
  if (index >= words.size()) fault("the end of the line", expected);
  return words[index];
}

void ProcFile::fault(std::string_view found, const char *expected) const {
  throw ProcFault(fmt::format("{}, line {}: found {}, expected {}", escaped(path_), line_number_,
                              in_quotes(found), expected));
}
