// What the tests of merged values share: values of every type and with rates, and a short way to merge them.
#ifndef TEST_NNT_NNT_MULTITYPE_SUPPORT_H
#define TEST_NNT_NNT_MULTITYPE_SUPPORT_H

#include <cstdint>
#include <limits>

#include "liborlith/nnt/nnt_multitype.h"

namespace multitype_test {

inline const float kNaN = std::numeric_limits<float>::quiet_NaN();
inline const float kInfinity = std::numeric_limits<float>::infinity();

inline nnt_multitype of_type(nnt_type_t type, uint32_t count) {
  nnt_multitype v{};
  v.type = type;
  v.count = count;
  return v;
}
inline nnt_multitype int32_value(int32_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_INT32, count);
  v.value.v_int32 = number;
  return v;
}
inline nnt_multitype uint32_value(uint32_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_UINT32, count);
  v.value.v_uint32 = number;
  return v;
}
inline nnt_multitype int64_value(int64_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_INT64, count);
  v.value.v_int64 = number;
  return v;
}
inline nnt_multitype uint64_value(uint64_t number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_UINT64, count);
  v.value.v_uint64 = number;
  return v;
}
inline nnt_multitype double_value(double number, uint32_t count) {
  nnt_multitype v = of_type(NNT_TYPE_DOUBLE, count);
  v.value.v_double = number;
  return v;
}
inline nnt_multitype with_stddev(nnt_multitype v, float stddev) {
  v.stddev_present = 1;
  v.stddev = stddev;
  return v;
}
inline nnt_multitype with_derivative(float value, float stddev) {
  nnt_multitype v = int32_value(0, 1);
  v.derivative = value;
  v.derivative_stddev = stddev;
  return v;
}

// Merges with the sample counts as all weights, without touching the stored count.
inline int merge(nnt_multitype *a, const nnt_multitype &v) {
  const int a_count = static_cast<int>(a->count);
  const int v_count = static_cast<int>(v.count);
  return nnt_multitype_accum_counts(a, a_count, a_count, a_count, &v, v_count, v_count, v_count);
}

}  // namespace multitype_test

#endif
