// SIGINT, SIGTERM and SIGHUP become a flag that long work looks at between two whole units, so that what was begun is
// finished and the process ends with exit_interrupted. A second SIGINT kills at once, as users expect.
#ifndef ORLITH_SIGNALS_H
#define ORLITH_SIGNALS_H

#include <cstdint>

// Installs the handlers (SIGHUP stays ignored where it was: nohup) and ignores SIGPIPE and SIGXFSZ: a reader that went
// away and a file over its size limit are seen as failed writes, which can be undone and told.
// Called once, by main().
void install_signal_handlers();
// Whether an interrupt was asked for. Cheap; any thread.
bool interrupted();
// Waits until `fd` can be read (or is at its end), for at most `timeout_ms`, or an interrupt was asked for. True when
// a read of `fd` will not wait.
bool wait_for_input(int fd, int timeout_ms);
// Waits at most `ns` nanoseconds; true as soon as an interrupt was asked for.
bool wait_for_interrupt_ns(uint64_t ns);
// Sets or clears the flag without a signal; for tests.
void set_interrupted(bool value);

#endif
