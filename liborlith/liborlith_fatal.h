/* How the library stops on a violated invariant: logging goes synchronous, one line beginning "[FATAL] " is written
 * to an error stream, and the process aborts. Internal to the library. */
#ifndef LIBORLITH_FATAL_H
#define LIBORLITH_FATAL_H

#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* "[FATAL] assertion (%s) at %s:%d failed\n" on the framework's error stream, then abort(). */
__attribute__((noreturn)) void liborlith_assert_failed(const char *condition, const char *file, int line);

/* A fatal stop with its own text (which begins "[FATAL] " and ends "\n") on `ls`, then abort(). */
__attribute__((noreturn)) void liborlith_fatal_at(ruxo_log_stream_t ls, const char *file, int line,
                                                  const char *format, ...) RUXO_PRINTF(4, 5);

#define liborlith_assert(condition)                                                                 \
  do {                                                                                              \
    if (__builtin_expect(!(condition), 0)) liborlith_assert_failed(#condition, __FILE__, __LINE__); \
  } while (0)

#define liborlith_fatal(ls, ...) liborlith_fatal_at((ls), __FILE__, __LINE__, __VA_ARGS__)

RUXO_END_DECLS

#endif
