// Apart from liborlith_init.cpp, so that a module can be linked and started without all the others.
#include "liborlith/liborlith_init.h"

ruxo_log_stream_t liborlith_init_log(const char *name, ruxo_log_stream_t fallback) {
  if (fallback == nullptr || ruxo_log_stream_exists(name)) return ruxo_log_stream_find(name);
  return fallback;
}
