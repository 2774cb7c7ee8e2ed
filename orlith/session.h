// What a running command works with: the global options, its streams, the clock. Tests make their own.
#ifndef ORLITH_SESSION_H
#define ORLITH_SESSION_H

#include <string>
#include <string_view>

#include "orlith/clock.h"
#include "orlith/output.h"

enum class ProgressMode { automatic, always, never };

// The global options, as given before or after the command's name.
struct Settings {
  ColorMode color = ColorMode::automatic;
  ProgressMode progress = ProgressMode::automatic;
  bool quiet = false;  // no notes, warnings or progress; errors and results stay, exit codes too
  bool json = false;   // one document
  bool jsonl = false;  // one document a line, as a stream
  bool iso = false;    // times as ISO 8601 instead of epoch seconds
};

struct Session {
  Output &out;  // results
  Output &err;  // everything else
  Clock &clock;
  Terminal terminal;
  Settings settings;
  std::string command = "orlith";  // as it stands before messages: "orlith nnt info"

  // One message a call, without a line end. Texts from outside in it must have gone through escaped() or
  // in_quotes().
  void error(std::string_view message);
  void warning(std::string_view message);
  void note(std::string_view message);

  bool color_out() const { return use_color(settings.color, terminal, terminal.out_is_terminal); }
  bool color_err() const { return use_color(settings.color, terminal, terminal.err_is_terminal); }
  // A time as the user asked for it.
  std::string time_text(uint64_t epoch_s) const;
  Json time_json(uint64_t epoch_s) const { return settings.iso ? Json(iso_time(epoch_s)) : Json(epoch_s); }
  // Flushes the results. The command's own code if all was written; else says so and gives exit_failed (a
  // reader that went away is not an error: it had enough).
  int finish(int code);
};

#endif
