#include <unistd.h>

#include <clocale>

#include "orlith/cli.h"
#include "orlith/signals.h"

int main(int argc, char **argv) {
  // The encoding only: numbers are written the same way everywhere.
  setlocale(LC_CTYPE, "");
  install_signal_handlers();
  FdOutput out(STDOUT_FILENO);
  FdOutput err(STDERR_FILENO);
  SystemClock clock;
  Session session{.out = out, .err = err, .clock = clock, .terminal = detect_terminal(), .settings = {}};
  return CommandLine(all_commands()).run({argv + 1, argv + argc}, session);
}
