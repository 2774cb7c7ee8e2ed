// Where results and messages go: buffered streams that notice a reader gone away, what the terminal can do,
// and the choice of colour. Also brings in the text helpers and the JSON builder, since who writes needs
// them.
#ifndef ORLITH_OUTPUT_H
#define ORLITH_OUTPUT_H

#include <string>
#include <string_view>

#include "orlith/json.h"
#include "orlith/text.h"

// A stream of bytes. Never throws and never ends the process: a failed write is remembered, later ones do
// nothing, and the command asks failed() where it matters.
class Output {
 public:
  virtual ~Output() = default;
  Output &operator<<(std::string_view bytes) {
    write(bytes);
    return *this;
  }
  virtual void write(std::string_view bytes) = 0;
  // Hands everything to the system. False when this or an earlier write failed.
  virtual bool flush() = 0;
  virtual int error() const = 0;  // the errno of the first failure; 0 while all is well
  bool failed() const { return error() != 0; }
  bool reader_gone() const;  // failed because nobody reads any more (a closed pipe): no reason to complain
};

// Writes to a descriptor that it does not own, in pieces of 64 KiB.
class FdOutput final : public Output {
 public:
  explicit FdOutput(int fd, size_t buffer_bytes = 65536) : fd_(fd), buffer_bytes_(buffer_bytes) {}
  ~FdOutput() override { flush(); }
  void write(std::string_view bytes) override;
  bool flush() override;
  int error() const override { return error_; }

 private:
  int fd_;
  size_t buffer_bytes_;
  std::string buffer_;
  int error_ = 0;
};

// Keeps everything in memory.
class StringOutput final : public Output {
 public:
  void write(std::string_view bytes) override { text += bytes; }
  bool flush() override { return true; }
  int error() const override { return 0; }
  std::string text;
};

// What the process is connected to.
struct Terminal {
  bool out_is_terminal = false;
  bool err_is_terminal = false;
  int columns = 80;
  int rows = 24;
  bool utf8 = false;      // the locale's encoding: else drawings are made of ASCII
  bool no_color = false;  // the environment asks for none: NO_COLOR set and not empty, or TERM=dumb
};

// Asks the system about standard output, standard error, the locale and the environment. The locale's
// encoding must have been set with setlocale() before.
Terminal detect_terminal();

enum class ColorMode { automatic, always, never };

// The option first, then NO_COLOR, then whether a terminal is there.
bool use_color(ColorMode mode, const Terminal &terminal, bool is_terminal);

// Text attributes. Colour never carries a meaning alone: the words or signs say the same.
enum class Style { plain, bold, dim, red, green, yellow, cyan };
std::string styled(std::string_view text, Style style, bool color);

#endif
