#include "orlith/progress.h"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace {

constexpr uint64_t first_draw_ns = 1'000'000'000;     // shorter work shows nothing
constexpr uint64_t redraw_ns = 100'000'000;           // on a terminal
constexpr uint64_t line_interval_ns = 1'000'000'000;  // in a log
constexpr size_t widest_bar = 40, narrowest_bar = 8;

bool is_enabled(const Session &session) {
  switch (session.settings.progress) {
    case ProgressMode::always:
      return true;
    case ProgressMode::never:
      return false;
    case ProgressMode::automatic:
      break;
  }
  return session.terminal.err_is_terminal && !session.settings.quiet;
}

double seconds(uint64_t ns) {
  return static_cast<double>(ns) / 1e9;
}

}  // namespace

Progress::Progress(Session &session, std::string what, uint64_t total, Unit unit, std::string noun)
    : session_(session),
      what_(std::move(what)),
      noun_(std::move(noun)),
      total_(total),
      unit_(unit),
      start_ns_(session.clock.monotonic_ns()),
      next_draw_ns_(start_ns_ + (session.settings.progress == ProgressMode::always ? 0 : first_draw_ns)),
      enabled_(is_enabled(session)) {}

void Progress::advance(uint64_t amount) {
  done_ += amount;
  if (!enabled_) return;
  const uint64_t now_ns = session_.clock.monotonic_ns();
  if (now_ns < next_draw_ns_) return;
  next_draw_ns_ = now_ns + (session_.terminal.err_is_terminal ? redraw_ns : line_interval_ns);
  draw(now_ns);
}

void Progress::draw(uint64_t now_ns) {
  const double elapsed_s = seconds(now_ns - start_ns_);
  shown_ = true;
  if (session_.terminal.err_is_terminal) {
    // The last column stays free: some terminals would wrap there.
    const auto width = static_cast<size_t>(std::max(session_.terminal.columns, 20)) - 1;
    session_.err << "\r" << line(elapsed_s, width) << "\033[K";
    on_line_ = true;
  } else {
    session_.err << line(elapsed_s, 120) << "\n";
  }
  session_.err.flush();
}

std::string Progress::amount_text(uint64_t amount) const {
  return unit_ == bytes ? human_bytes(amount) : human_count(amount);
}

std::string Progress::rate_text(double elapsed_s) const {
  const double per_s = elapsed_s > 0 ? static_cast<double>(done_) / elapsed_s : 0;
  return unit_ == bytes ? human_bytes(static_cast<uint64_t>(per_s)) + "/s" : human_rate(per_s, noun_);
}

std::string Progress::line(double elapsed_s, size_t width) const {
  if (total_ == 0)
    return fmt::format("{} {}, {}", what_, amount_text(done_), rate_text(elapsed_s)).substr(0, width);
  const double part = std::min(1.0, static_cast<double>(done_) / static_cast<double>(total_));
  const std::string left = fmt::format("{} {:3.0f}%", what_, part * 100);
  std::string right =
      fmt::format("{} of {}, {}", amount_text(done_), amount_text(total_), rate_text(elapsed_s));
  if (part > 0) right += fmt::format(", {} left", human_duration_s(elapsed_s * (1 - part) / part));
  const size_t taken = left.size() + right.size() + 4;  // two blanks, two brackets
  if (taken + narrowest_bar > width) return (left + " " + right).substr(0, width);
  const size_t bar = std::min(widest_bar, width - taken);
  const auto full = static_cast<size_t>(part * static_cast<double>(bar));
  return fmt::format("{} [{}{}] {}", left, std::string(full, '#'), std::string(bar - full, '-'), right);
}

void Progress::pause() {
  if (!on_line_) return;
  session_.err << "\r\033[K";
  session_.err.flush();
  on_line_ = false;
}

void Progress::finish() {
  if (!shown_) return;
  pause();
  shown_ = false;
  enabled_ = false;
  const double elapsed_s = seconds(session_.clock.monotonic_ns() - start_ns_);
  const std::string of = unit_ == items ? " " + noun_ : "";
  session_.err << fmt::format("{}: {} {}{} in {} ({})\n", session_.command, what_, amount_text(done_), of,
                              human_duration_s(elapsed_s), rate_text(elapsed_s));
  session_.err.flush();
}
