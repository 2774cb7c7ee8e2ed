// How a module starts: once, and with its two log streams. Internal to the library.
#ifndef LIBORLITH_MODULE_H
#define LIBORLITH_MODULE_H

#include "liborlith/liborlith_init.h"

namespace liborlith {

// True for exactly one caller in the life of `flag` (0: not yet run). The flag is raised before the caller
// does its work; a loser of the race does not wait for the winner.
inline bool first_call(int &flag) noexcept {
  int expected = 0;
  return __atomic_compare_exchange_n(&flag, &expected, 1, false, __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE);
}

// Gives a module its streams, debug first, then error. A handle that the host has already set is kept.
inline void open_streams(ruxo_log_stream_t &debug_ls, const char *debug_name, ruxo_log_stream_t &error_ls,
                         const char *error_name) noexcept {
  if (debug_ls == nullptr) debug_ls = liborlith_init_log(debug_name, ruxo_debug);
  if (error_ls == nullptr) error_ls = liborlith_init_log(error_name, ruxo_error);
}

}  // namespace liborlith

#endif
