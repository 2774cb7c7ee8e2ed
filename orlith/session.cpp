#include "orlith/session.h"

#include <cstring>

#include "orlith/exit_code.h"

namespace {

void say(Session &session, std::string_view word, Style style, std::string_view message) {
  session.out.flush();  // keeps the order of results and messages when both go to one terminal
  session.err << session.command << ": " << styled(word, style, session.color_err()) << message << "\n";
  session.err.flush();
}

}  // namespace

void Session::error(std::string_view message) {
  say(*this, "error: ", Style::red, message);
}

void Session::warning(std::string_view message) {
  if (!settings.quiet) say(*this, "warning: ", Style::yellow, message);
}

void Session::note(std::string_view message) {
  if (!settings.quiet) say(*this, "", Style::plain, message);
}

std::string Session::time_text(uint64_t epoch_s) const {
  return settings.iso ? iso_time(epoch_s) : std::to_string(epoch_s);
}

int Session::finish(int code) {
  out.flush();
  if (!out.failed() || out.reader_gone()) return code;
  error(std::string("cannot write standard output: ") + strerror(out.error()));
  return code == exit_fine ? exit_failed : code;
}
