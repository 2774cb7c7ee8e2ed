#include "liborlith/util/join.h"

#include <cstdlib>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/liborlith_module.h"
#include "liborlith/util/join_private.h"
#include "ruxo/eventer.h"

ruxo_log_stream_t join_debug_ls = nullptr;
ruxo_log_stream_t join_error_ls = nullptr;

// Whether this was the last hold. Releasing orders the work before the release; acquiring lets the completion see the
// work of all others.
static bool release(liborlith_join_t *joiner) noexcept {
  return __atomic_sub_fetch(&joiner->wait_count, 1, __ATOMIC_ACQ_REL) == 0;
}

namespace liborlith {

void join_attach(liborlith_join_t *rval, liborlith_join_t *parent) noexcept {
  liborlith_assert(rval->parent == NULL);
  liborlith_join_wait_more(parent, 1);
  rval->parent = parent;
}

}  // namespace liborlith

void liborlith_join_init(void) {
  static int once = 0;
  if (!liborlith::first_call(once)) return;
  eventer_name_callback("liborlith_join_commit_helper", join_commit_helper);
  liborlith::open_streams(join_debug_ls, "debug/joiner", join_error_ls, "error/joiner");
}

int join_commit_helper(eventer_t, int, void *closure, struct timeval *) {
  liborlith_join_one(static_cast<liborlith_join_t *>(closure));
  return 0;
}

liborlith_join_t *liborlith_join_create(liborlith_join_t *parent, liborlith_join_completion_f completion,
                                        void *closure) {
  auto *rval = static_cast<liborlith_join_t *>(calloc(1, sizeof(liborlith_join_t)));
  rval->completion = completion;
  rval->closure = closure;
  if (parent != nullptr) liborlith::join_attach(rval, parent);
  liborlith_join_wait_more(rval, 1);
  return rval;
}

void liborlith_join_wait_more(liborlith_join_t *joiner, uint32_t wait_count) {
  // Relaxed: the caller's own outstanding hold already keeps the count from reaching zero.
  __atomic_add_fetch(&joiner->wait_count, wait_count, __ATOMIC_RELAXED);
}

ruxo_boolean liborlith_join_one(liborlith_join_t *joiner) {
  if (!release(joiner)) return ruxo_false;
  // Up the tree in a loop: a chain of joins may be longer than the stack is deep.
  do {
    liborlith_join_t *parent = joiner->parent;
    if (joiner->completion != nullptr) joiner->completion(joiner->closure);
    free(joiner);
    joiner = parent;
  } while (joiner != nullptr && release(joiner));
  return ruxo_true;
}

ruxo_boolean liborlith_join_commit(liborlith_join_t *joiner) {
  return liborlith_join_one(joiner);
}

void liborlith_join_commit_nextcycle(liborlith_join_t *joiner) {
  const eventer_t timer = eventer_add_in_s_us(join_commit_helper, joiner, 0, 0);
  liborlith_assert(timer != NULL);
}
