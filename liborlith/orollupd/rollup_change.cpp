// The change between two samples, and the folding of samples into rollup slots.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdlib>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/orollupd/rollup.h"

extern "C" double calculate_change_undefined(const metric_value_t *v1, const metric_value_t *v2) {
  if (v1->is_null || v2->is_null) {
    ruxo_log(orollup_error_ls, "calculate_change on null metric, lhs is_null? %d; rhs is_null? %d.\n",
             v1->is_null, v2->is_null);
  }
  return liborlith_private_nan_double;
}

extern "C" void calculate_change(const metric_value_t *v1, const metric_value_t *v2, double *dy, int *dt) {
  calculate_change_inline(v1, v2, dy, dt);
}

// ---- Folding

namespace {

// The sample's value in a slot's union: 32-bit types fill 32 bits, the rest stays zero. False for other
// types.
bool copy_value(const metric_value_t &from, nnt_multitype *to) {
  to->value.v_uint64 = 0;
  switch (from.type) {
    case ORLITH_METRIC_UINT32:
    case ORLITH_METRIC_INT32:
      to->value.v_uint32 = from.storage.v_uint32;
      return true;
    case ORLITH_METRIC_UINT64:
    case ORLITH_METRIC_INT64:
    case ORLITH_METRIC_DOUBLE:
      to->value.v_uint64 = from.storage.v_uint64;
      return true;
    default:
      return false;
  }
}

void remember(const metric_value_t &sample, metric_value_t *last) {
  *last = {};
  last->type = sample.type;
  last->whence_ms = sample.whence_ms;
  last->storage = sample.storage;
}

// The first sample of a metric has no change: the slot becomes this one sample. Its rates stay as they are,
// as do the weights that belong to them.
void start_slot(const metric_value_t &sample, metric_value_t **last_value, nnt_multitype *bucket) {
  nnt_multitype first = *bucket;
  if (!copy_value(sample, &first)) {
    liborlith_fatal(orollup_error_ls, "[FATAL] Unknown type: 0x%04x\n", sample.type);
  }
  auto *last = static_cast<metric_value_t *>(calloc(1, sizeof(metric_value_t)));
  if (last == nullptr) return;  // nothing changed; the next sample tries again
  first.type = metric_to_nnt_type(sample.type);
  first.count = 1;
  *bucket = first;
  remember(sample, last);
  *last_value = last;
}

// Change per second over dt milliseconds; undefined when time did not advance.
double rate_of(double dy, int dt_ms) {
  return dt_ms < 1 ? liborlith_private_nan_double : dy * 1000 / dt_ms;
}

// A slot value of one sample; false when the sample has none.
bool make_sample(const metric_value_t &value, double rate, nnt_multitype *sample) {
  const float nan = liborlith_private_nan_float;
  *sample = {};
  sample->type = metric_to_nnt_type(value.type);
  sample->count = 1;
  sample->stddev_present = true;
  sample->derivative = static_cast<float>(rate);
  sample->counter = rate >= 0 ? sample->derivative : nan;  // a counter never goes backwards
  sample->min = sample->max = nan;
  sample->derivative_min = sample->derivative_max = nan;
  sample->counter_min = sample->counter_max = nan;
  return copy_value(value, sample);
}

// The largest accumulated weight to which `amount` can still be added.
int saturated(int64_t accumulated, int amount) {
  return static_cast<int>(std::min<int64_t>(accumulated, INT_MAX - amount));
}

}  // namespace

extern "C" void add_data_to_bucket(const metric_value_t *current_value, metric_value_t **last_value,
                                   nnt_multitype *bucket, int *drun, int *crun) {
  if (current_value->is_null) return;
  if (*last_value == nullptr) {
    start_slot(*current_value, last_value, bucket);
    return;
  }
  double dy = 0.0;
  int dt_ms = 0;
  calculate_change_inline(*last_value, current_value, &dy, &dt_ms);
  dt_ms = std::max(dt_ms, 0);
  const double rate = rate_of(dy, dt_ms);
  nnt_multitype sample;
  if (!make_sample(*current_value, rate, &sample)) return;

  const int counter_ms = rate >= 0 ? dt_ms : 0;
  const int count = saturated(bucket->count, 1);
  const int drun_ms = saturated(*drun, dt_ms);
  const int crun_ms = saturated(*crun, counter_ms);
  bucket->count = static_cast<uint32_t>(
      nnt_multitype_accum_counts(bucket, count, drun_ms, crun_ms, &sample, 1, dt_ms, counter_ms));
  if (std::isnan(bucket->stddev)) bucket->stddev = 0;
  *drun = drun_ms + dt_ms;
  *crun = crun_ms + counter_ms;
  remember(*current_value, *last_value);
}
