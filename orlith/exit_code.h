// What the process's exit status tells the caller. Scripts rely on these numbers: they never change meaning.
#ifndef ORLITH_EXIT_CODE_H
#define ORLITH_EXIT_CODE_H

enum ExitCode : int {
  exit_fine = 0,
  exit_failed = 1,         // the work could not be done (I/O error, out of space)
  exit_damaged = 2,        // damage was found, or some input was refused
  exit_not_found = 3,      // what was asked for is not there, or has no owner
  exit_network = 4,        // a peer or the network failed
  exit_usage = 64,         // the command line makes no sense
  exit_interrupted = 130,  // stopped by SIGINT or SIGTERM, everything complete up to there
};

#endif
