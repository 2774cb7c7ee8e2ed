// When a metric stream was active, in periods of five minutes. The intervals are an interval list (oil.h), which
// has a lock of its own; the locator's activity lock guards which list it is.
#include <algorithm>
#include <cstdint>
#include <limits>

#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_locator_internal.h"
#include "ruxo/util.h"

namespace {

using Locator = orlith_metric_locator_t;
using activity_lock::ExclusiveGuard;
using activity_lock::SharedGuard;

constexpr uint64_t kPeriodS = 300;
constexpr uint64_t kDayS = 86400;
constexpr uint64_t kLastPeriod = std::numeric_limits<uint32_t>::max();

// Times before this many seconds count as active. Set at start-up; atomic because nothing keeps a host from
// setting it later.
uint64_t activity_tracking_epoch = 0;

// Puts the periods from the one to the other, unless one of them does not exist: cut to 32 bits it would be
// another one.
int put_periods(oil_list_t *list, uint64_t first, uint64_t last) {
  if (first > kLastPeriod || last > kLastPeriod) return 0;
  return oil_put(list, static_cast<uint32_t>(first), static_cast<uint32_t>(last));
}

bool has_list(Locator *loc) {
  const SharedGuard guard(&loc->activity_oil_lock);
  return loc->activity_oil != nullptr;
}

// The periods of an element [start, end] in seconds; false when it is not of that form.
bool read_interval(const ruxo_json_object *element, int64_t *first, int64_t *last) {
  if (ruxo_json_array_length(element) != 2) return false;
  const ruxo_json_object *start = ruxo_json_array_get(element, 0);
  const ruxo_json_object *end = ruxo_json_array_get(element, 1);
  if (!ruxo_json_is_int64(start) || !ruxo_json_is_int64(end)) return false;
  *first = ruxo_json_int(start) / static_cast<int64_t>(kPeriodS);
  *last = ruxo_json_int(end) / static_cast<int64_t>(kPeriodS);
  return true;
}

}  // namespace

extern "C" void orlith_metric_locator_set_global_active_before(uint64_t seconds) {
  __atomic_store_n(&activity_tracking_epoch, seconds, __ATOMIC_RELAXED);
}

extern "C" int orlith_metric_locator_record_activity(Locator *loc, uint64_t t) {
  const uint64_t period = t / kPeriodS;
  const ExclusiveGuard guard(&loc->activity_oil_lock);
  if (loc->activity_oil == nullptr) loc->activity_oil = oil_alloc();
  return put_periods(loc->activity_oil, period, period);
}

extern "C" int orlith_metric_locator_was_active(Locator *loc, uint64_t start, uint64_t end) {
  if (loc == nullptr) return 0;
  if (start == 0 && end == 0) return 1;
  if (start > end) return 0;
  if (start < __atomic_load_n(&activity_tracking_epoch, __ATOMIC_RELAXED)) return 1;
  const uint64_t first = start / kPeriodS;
  const uint64_t last = std::min(end / kPeriodS, kLastPeriod);
  if (first > kLastPeriod) return 0;
  const SharedGuard guard(&loc->activity_oil_lock);
  return oil_range_contains(loc->activity_oil, static_cast<uint32_t>(first), static_cast<uint32_t>(last),
                            nullptr);
}

extern "C" ruxo_boolean orlith_metric_locator_is_active(Locator *loc) {
  if (loc == nullptr || !has_list(loc)) return ruxo_false;
  const uint64_t now = ruxo_now_ms() / 1000;
  return orlith_metric_locator_was_active(loc, now - std::min(now, kDayS), now) == 1;
}

extern "C" void orlith_metric_locator_set_activity(Locator *loc, oil_list_t *src) {
  oil_list_t *old = nullptr;
  {
    const ExclusiveGuard guard(&loc->activity_oil_lock);
    if (src == loc->activity_oil) return;
    old = loc->activity_oil;
    loc->activity_oil = src == nullptr ? nullptr : oil_clone(src);
  }
  oil_free(old);
}

extern "C" int orlith_metric_locator_set_activity_from_json(Locator *loc, const ruxo_json_object *json) {
  if (ruxo_json_type(json) != RUXO_JSON_ARRAY) return 0;
  oil_list_t *list = oil_alloc();
  for (size_t i = 0; i < ruxo_json_array_length(json); ++i) {
    int64_t first = 0;
    int64_t last = 0;
    if (!read_interval(ruxo_json_array_get(json, i), &first, &last)) continue;
    // A negative period is far beyond the last one as an unsigned number.
    put_periods(list, static_cast<uint64_t>(first), static_cast<uint64_t>(last));
  }
  orlith_metric_locator_set_activity(loc, list);
  oil_free(list);
  return 1;
}

extern "C" int orlith_metric_locator_merge_oil(Locator *loc, oil_list_t *src) {
  const ExclusiveGuard guard(&loc->activity_oil_lock);
  return src == loc->activity_oil ? 0 : oil_merge_inplace(loc, src);
}

extern "C" oil_list_t *orlith_metric_locator_get_activity(Locator *loc) {
  return loc->activity_oil;
}

extern "C" oil_list_t *orlith_metric_locator_get_activity_clone(Locator *loc) {
  const SharedGuard guard(&loc->activity_oil_lock);
  return oil_clone(loc->activity_oil);
}

extern "C" void orlith_metric_locator_oil_dump(Locator *loc) {
  const SharedGuard guard(&loc->activity_oil_lock);
  oil_dump(loc->activity_oil);
}

extern "C" void orlith_metric_locator_oil_lock(Locator *loc) {
  activity_lock::lock_exclusive(&loc->activity_oil_lock);
}
extern "C" void orlith_metric_locator_oil_unlock(Locator *loc) {
  activity_lock::unlock_exclusive(&loc->activity_oil_lock);
}
extern "C" void orlith_metric_locator_oil_shared_lock(Locator *loc) {
  activity_lock::lock_shared(&loc->activity_oil_lock);
}
extern "C" void orlith_metric_locator_oil_shared_unlock(Locator *loc) {
  activity_lock::unlock_shared(&loc->activity_oil_lock);
}
