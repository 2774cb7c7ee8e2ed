// Short ways to write ingestion values in tests, and to read slots.
#ifndef TEST_SUPPORT_VALUES_H
#define TEST_SUPPORT_VALUES_H

#include <limits>

#include "liborlith/orollupd/rollup.h"

// A value that can be given where a pointer to one is taken: metric_value_double(Value::n(1.5)).
struct Value {
  metric_value_t value{};

  static Value raw(unsigned type) {
    Value v;
    v.value.type = type;
    return v;
  }
  static Value i(int32_t number) {
    return raw('i').with([&](auto &s) { s.v_int32 = number; });
  }
  static Value I(uint32_t number) {
    return raw('I').with([&](auto &s) { s.v_uint32 = number; });
  }
  static Value l(int64_t number) {
    return raw('l').with([&](auto &s) { s.v_int64 = number; });
  }
  static Value L(uint64_t number) {
    return raw('L').with([&](auto &s) { s.v_uint64 = number; });
  }
  static Value n(double number) {
    return raw('n').with([&](auto &s) { s.v_double = number; });
  }
  static Value null(unsigned type) {
    Value v = raw(type);
    v.value.is_null = true;
    return v;
  }
  Value at(uint64_t whence_ms) const {
    Value v = *this;
    v.value.whence_ms = whence_ms;
    return v;
  }

  operator const metric_value_t *() const { return &value; }

 private:
  template <typename Set>
  Value with(Set set) const {
    Value v = *this;
    set(v.value.storage);
    return v;
  }
};

// The number that a slot holds, NaN when it holds none.
inline double number_of(const nnt_multitype &slot) {
  switch (slot.type) {
    case NNT_TYPE_INT32:
      return slot.value.v_int32;
    case NNT_TYPE_UINT32:
      return slot.value.v_uint32;
    case NNT_TYPE_INT64:
      return static_cast<double>(slot.value.v_int64);
    case NNT_TYPE_UINT64:
      return static_cast<double>(slot.value.v_uint64);
    case NNT_TYPE_DOUBLE:
      return slot.value.v_double;
    default:
      return std::numeric_limits<double>::quiet_NaN();
  }
}

#endif
