// Combining slot values: weighted means, and standard deviations by pooling second moments.
#include "liborlith/nnt/nnt_multitype.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <limits>

static_assert(sizeof(nnt_type_t) == 4);
static_assert(sizeof(nnt_multitype) == 64 && offsetof(nnt_multitype, value) == 16);
static_assert(offsetof(nnt_multitype, derivative) == 32 && offsetof(nnt_multitype, counter) == 48);

namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;
constexpr double kTwoTo64 = 18446744073709551616.0;

int held_to_int(int64_t n) noexcept {
  return static_cast<int>(
      std::clamp<int64_t>(n, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

int sum(int a, int b) noexcept {
  return held_to_int(int64_t{a} + b);
}

// A count that callers of the int interface can pass on without changing its sign.
int count_as_int(uint32_t count) noexcept {
  return held_to_int(int64_t{count});
}

uint32_t stored_count(int count) noexcept {
  return static_cast<uint32_t>(std::min(NNT_MULTITYPE_MAX_COUNT, count));
}

// The number of a slot; 0 for a type that has none, so that a null side keeps its weight in a mean.
double number_of(const nnt_multitype &v) noexcept {
  switch (v.type) {
    case NNT_TYPE_INT32:
      return v.value.v_int32;
    case NNT_TYPE_UINT32:
      return v.value.v_uint32;
    case NNT_TYPE_INT64:
      return static_cast<double>(v.value.v_int64);
    case NNT_TYPE_UINT64:
      return static_cast<double>(v.value.v_uint64);
    case NNT_TYPE_DOUBLE:
      return v.value.v_double;
    default:
      return 0.0;
  }
}

// The narrowest type that holds `m` exactly: unsigned, then signed, then double. The range is checked before each
// conversion, because converting a double outside the target's range (or a NaN) is undefined.
void store_mean(nnt_multitype *a, double m) noexcept {
  const bool integral = std::trunc(m) == m;
  if (integral && m >= 0.0 && m < kTwoTo64) {
    a->type = NNT_TYPE_UINT64;
    a->value.v_uint64 = static_cast<uint64_t>(m);
  } else if (integral && m >= -kTwoTo63 && m < 0.0) {
    a->type = NNT_TYPE_INT64;
    a->value.v_int64 = static_cast<int64_t>(m);
  } else {
    a->type = NNT_TYPE_DOUBLE;
    a->value.v_double = m;
  }
}

// Rounding can make a variance slightly negative; that, like a NaN, stands for no spread.
float stddev_of(double variance) noexcept {
  return variance >= 0.0 ? static_cast<float>(std::sqrt(variance)) : 0.0F;
}
float stddev_of(float variance) noexcept {
  return variance >= 0.0F ? std::sqrt(variance) : 0.0F;
}

void merge_value(nnt_multitype *a, int a_count, const nnt_multitype &v, int v_count, int n) noexcept {
  const double ma = number_of(*a);
  const double mv = number_of(v);
  const double m = (a_count * ma + v_count * mv) / n;
  const bool a_has_stddev = a->stddev_present != 0;
  const float sa = a_has_stddev ? a->stddev : 0.0F;
  const float sv = v.stddev;

  store_mean(a, m);
  if (v.stddev_present != 0) {
    // The squares of the deviations are taken in single precision, all the rest in double.
    const double a_moment = static_cast<double>(sa * sa) + ma * ma;
    const double v_moment = static_cast<double>(sv * sv) + mv * mv;
    a->stddev = stddev_of((a_moment * a_count + v_moment * v_count) / n - m * m);
    a->stddev_present = 1;
  } else if (a_has_stddev) {
    a->stddev_present = 1;
  }
}

struct rate {
  float value;
  float stddev;
};

enum class pooling {
  needs_stddev,           // the derivative's rule
  needs_stddev_and_value  // the counter's
};

// Merges the rate `v` into `a`, in single precision throughout. What a NaN part may not touch stays as it was.
rate merged_rate(rate a, int64_t a_run, rate v, int64_t v_run, pooling rule) noexcept {
  const int64_t run = a_run + v_run;
  if (run == 0) return a;
  const float a_weight = static_cast<float>(a_run);
  const float v_weight = static_cast<float>(v_run);
  const float weight = static_cast<float>(run);

  rate merged = a;
  if (std::isnan(a.value) || a_run == 0) {
    merged.value = v.value;
    if (a_run == 0) return v;
  } else if (!std::isnan(v.value)) {
    merged.value = (a_weight * a.value + v_weight * v.value) / weight;
  }
  if (std::isnan(a.stddev)) {
    merged.stddev = v.stddev;
    return merged;
  }
  const bool poolable = !std::isnan(v.stddev) && (rule == pooling::needs_stddev || !std::isnan(v.value));
  if (poolable) {
    const float a_moment = a.stddev * a.stddev + a.value * a.value;
    const float v_moment = v.stddev * v.stddev + v.value * v.value;
    merged.stddev =
        stddev_of((a_moment * a_weight + v_moment * v_weight) / weight - merged.value * merged.value);
  }
  return merged;
}

void merge_rates(nnt_multitype *a, int a_drun, int a_crun, const nnt_multitype &v, int v_drun,
                 int v_crun) noexcept {
  const rate derivative = merged_rate({a->derivative, a->derivative_stddev}, a_drun,
                                      {v.derivative, v.derivative_stddev}, v_drun, pooling::needs_stddev);
  a->derivative = derivative.value;
  a->derivative_stddev = derivative.stddev;
  const rate counter = merged_rate({a->counter, a->counter_stddev}, a_crun, {v.counter, v.counter_stddev},
                                   v_crun, pooling::needs_stddev_and_value);
  a->counter = counter.value;
  a->counter_stddev = counter.stddev;
}

}  // namespace

int nnt_multitype_accum_counts(nnt_multitype *a, int a_count, int a_drun, int a_crun, const nnt_multitype *v,
                               int v_count, int v_drun, int v_crun) noexcept {
  if (a->type == NNT_TYPE_ABSENT) {
    if (v->type == NNT_TYPE_ABSENT) return 0;
    const uint32_t own_count = a->count;
    *a = *v;
    a->count = own_count;
    return v_count;
  }
  const nnt_multitype other = *v;  // `v` may be `a`
  const int n = sum(a_count, v_count);
  if (n != 0) merge_value(a, a_count, other, v_count, n);
  merge_rates(a, a_drun, a_crun, other, v_drun, v_crun);
  return n;
}

void nnt_multitype_accum(nnt_multitype *a, const nnt_multitype *v) noexcept {
  const int a_count = count_as_int(a->count);
  const int v_count = count_as_int(v->count);
  a->count =
      stored_count(nnt_multitype_accum_counts(a, a_count, a_count, a_count, v, v_count, v_count, v_count));
}

void nnt_multitype_rollup(nnt_multitype *a, int aweight, int vcnt, const nnt_multitype *v,
                          int vweight) noexcept {
  int weight = aweight;
  for (int i = 0; i < vcnt; ++i) {
    if (v[i].count == 0) continue;
    a->count = stored_count(nnt_multitype_accum_counts(a, count_as_int(a->count), weight, weight, &v[i],
                                                       count_as_int(v[i].count), vweight, vweight));
    weight = sum(weight, vweight);
  }
}

void nnt_multitype_accum_second_order(api_nnt_multitype *a, const api_nnt_multitype *prev,
                                      const api_nnt_multitype *curr, int32_t prev_time, int32_t curr_time,
                                      stddev_t *stddev, int32_t *derivative_weight) noexcept {
  if (prev->v.count == 0 || curr->v.count == 0) return;
  const float dt = static_cast<float>(int64_t{curr_time} - prev_time);
  const float dd = (curr->v.derivative - prev->v.derivative) / dt;
  const float dc = (curr->v.counter - prev->v.counter) / dt;
  const float weight = static_cast<float>(*derivative_weight);

  a->s.derivative = (a->s.derivative * weight + dt * dd) / (weight + dt);
  a->s.counter = (a->s.counter * weight + dt * dc) / (weight + dt);
  stddev->derivative_values[stddev->count] = dd;
  stddev->counter_values[stddev->count] = dc;
  stddev->count += 1;
  stddev->derivative_sum += dd;
  stddev->counter_sum += dc;
  // The sum is taken in single precision like the means above; both terms are finite and far inside int64_t.
  *derivative_weight = held_to_int(static_cast<int64_t>(weight + dt));
}
