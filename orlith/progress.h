// How far long work is, on standard error.
//   Progress progress(session, "verifying", total_bytes, Progress::bytes);
//   ... progress.advance(chunk_bytes);
// A bar appears on a terminal once the work has taken a second, is redrawn at most ten times a second, and gives
// way to one summary line when the object ends. With --progress it shows from the start and anywhere (on what is
// no terminal as plain lines, at most one a second); with --no-progress or --quiet never.
#ifndef ORLITH_PROGRESS_H
#define ORLITH_PROGRESS_H

#include <cstdint>
#include <string>

#include "orlith/session.h"

class Progress {
 public:
  enum Unit { bytes, items };

  // A total of 0 means unknown. `what` is the work, as in "verifying"; `noun` what items are, as in "slots".
  Progress(Session &session, std::string what, uint64_t total, Unit unit, std::string noun = "items");
  ~Progress() { finish(); }
  Progress(const Progress &) = delete;
  Progress &operator=(const Progress &) = delete;

  void advance(uint64_t amount);
  // Removes the bar and writes the summary, if anything was shown. Safe to call twice.
  void finish();
  // Removes the bar for a message in between; the next advance() draws it again.
  void pause();

 private:
  void draw(uint64_t now_ns);
  std::string line(double elapsed_s, size_t width) const;
  std::string amount_text(uint64_t amount) const;
  std::string rate_text(double elapsed_s) const;

  Session &session_;
  std::string what_;
  std::string noun_;
  uint64_t total_;
  Unit unit_;
  uint64_t start_ns_;
  uint64_t done_ = 0;
  uint64_t next_draw_ns_;
  bool enabled_;
  bool shown_ = false;    // something was drawn at least once
  bool on_line_ = false;  // a bar stands on the terminal's current line
};

#endif
