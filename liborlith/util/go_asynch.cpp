#include "liborlith/util/go_asynch.h"

#include "liborlith/liborlith_module.h"

ruxo_log_stream_t go_asynch_debug_ls = nullptr;
ruxo_log_stream_t go_asynch_error_ls = nullptr;

void orlith_go_asynch_lib_init(void) {
  static int once = 0;
  if (!liborlith::first_call(once)) return;
  liborlith::open_streams(go_asynch_debug_ls, "debug/go_asynch", go_asynch_error_ls, "error/go_asynch");
}
