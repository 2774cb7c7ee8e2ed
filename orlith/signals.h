// SIGINT and SIGTERM become a flag that long work looks at between two whole units, so that what was begun is
// finished and the process ends with exit_interrupted. A second SIGINT kills at once, as users expect.
#ifndef ORLITH_SIGNALS_H
#define ORLITH_SIGNALS_H

#include <cstdint>

// Installs the handlers and ignores SIGPIPE (a reader that went away is seen as a failed write instead).
// Called once, by main().
void install_signal_handlers();
// Whether an interrupt was asked for. Cheap; any thread.
bool interrupted();
// Waits at most `ns` nanoseconds; true as soon as an interrupt was asked for.
bool wait_for_interrupt_ns(uint64_t ns);
// Sets or clears the flag without a signal; for tests.
void set_interrupted(bool value);

#endif
