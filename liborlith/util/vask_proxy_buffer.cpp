#include "liborlith/util/vask_proxy_buffer.h"

#include "liborlith/liborlith_module.h"

ruxo_log_stream_t vask_proxy_buffer_debug_ls = nullptr;
ruxo_log_stream_t vask_proxy_buffer_error_ls = nullptr;

void vask_proxy_buffer_lib_init(void) {
  static int once = 0;
  if (!liborlith::first_call(once)) return;
  liborlith::open_streams(vask_proxy_buffer_debug_ls, "debug/vask_proxy_buffer", vask_proxy_buffer_error_ls,
                          "error/vask_proxy_buffer");
}
