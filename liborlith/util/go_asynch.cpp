#include "liborlith/util/go_asynch.h"

#include "liborlith/liborlith_fatal.h"
#include "liborlith/liborlith_module.h"

ruxo_log_stream_t go_asynch_debug_ls = nullptr;
ruxo_log_stream_t go_asynch_error_ls = nullptr;

// Weak, so that a program which is linked to the archives and serves no HTTP, and so has no connection to give, needs
// no server either.
extern "C" __attribute__((weak)) eventer_t ruxo_http_connection_event_float(
    ruxo_http_connection_t *connection);

namespace {

eventer_t new_job(eventer_func_t function, void *closure) noexcept {
  const eventer_t job = eventer_alloc_asynch(function, closure);
  liborlith_assert(job != NULL);
  return job;
}

// The connection's event; null when it is not on the loop.
eventer_t float_event(ruxo_http_connection_t *connection) noexcept {
  if (connection == nullptr || ruxo_http_connection_event_float == nullptr) return nullptr;
  return ruxo_http_connection_event_float(connection);
}

}  // namespace

void orlith_go_asynch_lib_init(void) {
  static int once = 0;
  if (!liborlith::first_call(once)) return;
  liborlith::open_streams(go_asynch_debug_ls, "debug/go_asynch", go_asynch_error_ls, "error/go_asynch");
}

int orlith_go_asynch(eventer_jobq_t *jobq, eventer_func_t asynch_func, void *asynch_closure) {
  eventer_add_asynch(jobq, new_job(asynch_func, asynch_closure));
  return 0;
}

int orlith_http_go_asynch(eventer_jobq_t *jobq, eventer_func_t asynch_func, void *asynch_closure,
                          ruxo_http_connection_t *connection) {
  ruxo_log(go_asynch_debug_ls, "Descheduling for asynch merge completion...\n");
  const eventer_t connection_event = float_event(connection);
  if (connection_event != nullptr) eventer_remove_fd(eventer_get_fd(connection_event));
  const eventer_t job = new_job(asynch_func, asynch_closure);
  if (connection_event != nullptr) eventer_set_owner(job, eventer_get_owner(connection_event));
  eventer_add_asynch(jobq, job);
  return 0;
}
