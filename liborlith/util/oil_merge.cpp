// Merging one interval list into a locator's.
#include "liborlith/util/metric_locator_internal.h"
#include "liborlith/util/oil_private.h"

using namespace liborlith;

int oil_merge_inplace(struct orlith_metric_locator *locator, oil_list_t *src) {
  if (src == nullptr) return 0;
  if (locator->activity_oil == nullptr) locator->activity_oil = oil_alloc();
  oil_list_t *dst = locator->activity_oil;
  if (dst == src) {
    ruxo_log(oil_error_ls, "warning: oil_merge_inplace - src (%p) == dst (%p) - size %d\n",
             static_cast<void *>(src), static_cast<void *>(dst), static_cast<int>(load(src->size)));
    return 0;
  }
  const SharedHold hold(&src->lock);
  if (src->size == 0) return 0;
  int changed = 0;
  pl_take_write(&dst->lock);
  {
    WriteUpgrade write(&dst->lock, WriteUpgrade::Held::write);
    for (uint32_t i = 0; i < src->size; ++i) {
      const oil_interval_t interval = interval_at(src, i);
      changed |= oil_put_locked(dst, interval.first, interval.last, write);
    }
  }
  pl_drop_write(&dst->lock);
  return changed;
}
