#include "orlith/output.h"

#include <langinfo.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

bool Output::reader_gone() const {
  return error() == EPIPE;
}

void FdOutput::write(std::string_view bytes) {
  if (error_ != 0) return;
  buffer_ += bytes;
  if (buffer_.size() >= buffer_bytes_) flush();
}

bool FdOutput::flush() {
  std::string_view rest = buffer_;
  while (error_ == 0 && !rest.empty()) {
    const ssize_t written = ::write(fd_, rest.data(), rest.size());
    if (written >= 0) {
      rest.remove_prefix(static_cast<size_t>(written));
    } else if (errno != EINTR) {
      error_ = errno;
    }
  }
  buffer_.clear();
  return error_ == 0;
}

Terminal detect_terminal() {
  Terminal terminal;
  terminal.out_is_terminal = isatty(STDOUT_FILENO) == 1;
  terminal.err_is_terminal = isatty(STDERR_FILENO) == 1;
  winsize size{};
  const int fd = terminal.out_is_terminal ? STDOUT_FILENO : STDERR_FILENO;
  if (ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    terminal.columns = size.ws_col;
    terminal.rows = size.ws_row > 0 ? size.ws_row : terminal.rows;
  }
  terminal.utf8 = strcmp(nl_langinfo(CODESET), "UTF-8") == 0;
  const char *no_color = getenv("NO_COLOR");
  const char *term = getenv("TERM");
  terminal.no_color =
      (no_color != nullptr && *no_color != '\0') || (term != nullptr && strcmp(term, "dumb") == 0);
  return terminal;
}

bool use_color(ColorMode mode, const Terminal &terminal, bool is_terminal) {
  if (mode == ColorMode::always) return true;
  if (mode == ColorMode::never) return false;
  return is_terminal && !terminal.no_color;
}

std::string styled(std::string_view text, Style style, bool color) {
  if (!color || style == Style::plain) return std::string(text);
  static constexpr const char *codes[] = {"0", "1", "2", "31", "32", "33", "36"};
  return std::string("\033[") + codes[static_cast<int>(style)] + "m" + std::string(text) + "\033[0m";
}
