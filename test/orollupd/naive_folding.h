// Change and folding in long hand: the model for the real ones. Exact integers of 128 bits for the change; the merge
// of slots spelled out formula by formula.
#ifndef TEST_OROLLUPD_NAIVE_FOLDING_H
#define TEST_OROLLUPD_NAIVE_FOLDING_H

#include <cmath>
#include <cstdint>
#include <limits>

#include "liborlith/orollupd/rollup.h"

__extension__ typedef __int128 wide_int;

inline wide_int naive_integer(const metric_value_t &v) {
  switch (v.type) {
    case 'i':
      return v.storage.v_int32;
    case 'I':
      return v.storage.v_uint32;
    case 'l':
      return v.storage.v_int64;
    default:
      return v.storage.v_uint64;
  }
}

inline double naive_double(const metric_value_t &v) {
  return v.type == 'n' ? v.storage.v_double : static_cast<double>(naive_integer(v));
}

inline double naive_change(const metric_value_t &v1, const metric_value_t &v2) {
  const double undefined = std::numeric_limits<double>::quiet_NaN();
  if (v1.is_null || v2.is_null || v1.type == 0 || v2.type == 0 || v1.type == 's' || v2.type == 's')
    return undefined;
  const double in_doubles = naive_double(v2) - naive_double(v1);
  if (v1.type == 'n' || v2.type == 'n') return in_doubles;
  const wide_int exact = naive_integer(v2) - naive_integer(v1);
  const bool wide = v1.type == 'L' || v2.type == 'L';
  const bool negative = naive_integer(v1) < 0 || naive_integer(v2) < 0;
  if (wide && negative) return in_doubles;
  if (exact < std::numeric_limits<int64_t>::min()) return in_doubles;
  if (!wide && exact > std::numeric_limits<int64_t>::max()) return in_doubles;
  return static_cast<double>(exact);
}

// A slot, with optional parts as NaN-free flags and the number as a double.
struct NaiveSlot {
  bool absent = true;
  double number = 0;
  bool has_stddev = false;
  float stddev = 0;
  float derivative = 0, derivative_stddev = 0, counter = 0, counter_stddev = 0;
  int count = 0, drun = 0, crun = 0;
};

inline float naive_root(double variance) {
  return variance >= 0 ? static_cast<float>(std::sqrt(variance)) : 0.0F;
}

inline void naive_rate(float &value, float &stddev, int run, float rate, int rate_run, bool counter) {
  if (run + rate_run == 0) return;
  const float old = value;
  const float w1 = static_cast<float>(run), w2 = static_cast<float>(rate_run),
              w = static_cast<float>(run + rate_run);
  if (run == 0) {
    value = rate;
    stddev = 0;
    return;
  }
  if (std::isnan(old)) {
    value = rate;
  } else if (!std::isnan(rate)) {
    value = (w1 * old + w2 * rate) / w;
  }
  if (std::isnan(stddev)) {
    stddev = 0;
    return;
  }
  if (counter && std::isnan(rate)) return;
  const float variance = ((stddev * stddev + old * old) * w1 + (0 + rate * rate) * w2) / w - value * value;
  stddev = variance >= 0 ? std::sqrt(variance) : 0.0F;
}

// One sample with its predecessor.
inline void naive_fold(NaiveSlot &slot, const metric_value_t &previous, const metric_value_t &sample) {
  const auto dt64 = static_cast<int64_t>(sample.whence_ms - previous.whence_ms);
  const int dt = dt64 < 0 ? 0 : static_cast<int>(dt64);  // the model is given steps of less than 2^31 ms
  const double rate = dt < 1 ? std::nan("") : naive_change(previous, sample) * 1000 / dt;
  const bool grew = rate >= 0;
  const double number = naive_double(sample);
  if (slot.absent) {
    slot.absent = false;
    slot.number = number;
    slot.has_stddev = true;
    slot.derivative = static_cast<float>(rate);
    slot.counter = grew ? slot.derivative : std::nanf("");
    slot.stddev = slot.derivative_stddev = slot.counter_stddev = 0;
    slot.count = 1;
  } else {
    const double mean = (slot.count * slot.number + number) / (slot.count + 1);
    const double s = slot.has_stddev ? static_cast<double>(slot.stddev * slot.stddev) : 0.0;
    const double second = ((s + slot.number * slot.number) * slot.count + number * number) / (slot.count + 1);
    slot.stddev = naive_root(second - mean * mean);
    slot.has_stddev = true;
    slot.number = mean;
    slot.count += 1;
    naive_rate(slot.derivative, slot.derivative_stddev, slot.drun, static_cast<float>(rate), dt, false);
    naive_rate(slot.counter, slot.counter_stddev, slot.crun, grew ? static_cast<float>(rate) : std::nanf(""),
               grew ? dt : 0, true);
  }
  slot.drun += dt;
  if (grew) slot.crun += dt;
}

#endif
