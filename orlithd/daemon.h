// The life of the process: from its options to the signal that ends it.
#ifndef ORLITHD_DAEMON_H
#define ORLITHD_DAEMON_H

#include "orlithd/options.h"

// Signals that the daemon waits for are blocked from now on. Before any thread starts.
void block_daemon_signals();

// Serves until SIGTERM or SIGINT; SIGHUP opens the log file anew. Returns the exit code: exit_fine after SIGTERM,
// exit_interrupted after SIGINT. Once in a process.
int run_daemon(const Options &options);

#endif
