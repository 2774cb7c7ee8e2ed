#include "liborlith/liborlith_fatal.h"

#include <cstdarg>
#include <cstdlib>

void liborlith_assert_failed(const char *condition, const char *file, int line) {
  liborlith_fatal_at(ruxo_error, file, line, "[FATAL] assertion (%s) at %s:%d failed\n", condition, file,
                     line);
}

void liborlith_fatal_at(ruxo_log_stream_t ls, const char *file, int line, const char *format, ...) {
  // Synchronous first: nothing that is still queued may be lost by the abort below.
  ruxo_log_go_synch();
  if (ruxo_log_stream_is_live(ls)) {
    va_list args;
    va_start(args, format);
    ruxo_log_vwrite(ls, file, line, format, args);
    va_end(args);
  }
  abort();
}
