// Relaying a spooled answer. Apart from the rest, so that a program without a server is linked without one.
#include "liborlith/util/vask_proxy_buffer.h"

bool vask_proxy_buffer_ruxo_http_append_mmap_from_fd(vask_proxy_buffer_t *pb, ruxo_http_session_ctx *ctx,
                                                     int flags, off_t offset) {
  if (pb->fd < 0 || pb->len == 0) return false;
  // The whole length with any offset, on purpose: callers pass 0, and what another offset means is the response's.
  return ruxo_http_response_append_mmap_from_fd(ctx, pb->fd, pb->len, flags, offset);
}
