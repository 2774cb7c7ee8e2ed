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

// Of the codes of several files, the one to end with. What could not be looked at outweighs what is not there, and
// both outweigh damage: whoever checks wants to know first that the check was not complete.
inline int worse_exit(int a, int b) {
  const auto rank = [](int code) {
    return code == exit_failed ? 3 : code == exit_not_found ? 2 : code == exit_damaged ? 1 : 0;
  };
  return rank(b) > rank(a) ? b : a;
}

#endif
