// What the joins' tests reach behind the public functions.
#ifndef LIBORLITH_UTIL_JOIN_PRIVATE_H
#define LIBORLITH_UTIL_JOIN_PRIVATE_H

#include <sys/time.h>

#include "liborlith/util/join.h"
#include "ruxo/eventer.h"

namespace liborlith {

// Makes `parent` wait for `rval`, which must have no parent yet; otherwise fatal.
void join_attach(liborlith_join_t *rval, liborlith_join_t *parent) noexcept;

}  // namespace liborlith

// The timer callback behind "liborlith_join_commit_helper": releases one hold of the join that is its closure.
// Always 0: the timer is not scheduled again.
extern "C" int join_commit_helper(eventer_t e, int mask, void *closure, struct timeval *now);

#endif
