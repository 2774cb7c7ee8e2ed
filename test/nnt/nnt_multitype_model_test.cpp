// Merges and rollups of random values against a long-hand model.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "liborlith/nnt/nnt_multitype.h"
#include "test/nnt/nnt_multitype_support.h"

namespace {

using namespace multitype_test;

struct ModelRate {
  float value, stddev;
};

// Line by line, without sharing anything between derivative and counter but the steps.
ModelRate model_rate(ModelRate a, int a_run, ModelRate v, int v_run, bool is_counter) {
  const int w = a_run + v_run;
  if (w == 0) return a;
  const float da = a.value, sa = a.stddev, dv = v.value, sv = v.stddev;
  if (da != da || a_run == 0) {
    a.value = dv;
    if (sa != sa || a_run == 0) {
      a.stddev = sv;
      return a;
    }
  } else {
    if (dv == dv)
      a.value = (static_cast<float>(a_run) * da + static_cast<float>(v_run) * dv) / static_cast<float>(w);
    if (sa != sa) {
      a.stddev = sv;
      return a;
    }
  }
  if (sv != sv) return a;
  if (is_counter && dv != dv) return a;
  const float var =
      ((sa * sa + da * da) * static_cast<float>(a_run) + (sv * sv + dv * dv) * static_cast<float>(v_run)) /
          static_cast<float>(w) -
      a.value * a.value;
  a.stddev = var >= 0 ? std::sqrt(var) : 0.0F;
  return a;
}

double model_number(const nnt_multitype &v) {
  if (v.type == NNT_TYPE_INT32) return static_cast<double>(v.value.v_int32);
  if (v.type == NNT_TYPE_UINT32) return static_cast<double>(v.value.v_uint32);
  if (v.type == NNT_TYPE_INT64) return static_cast<double>(v.value.v_int64);
  if (v.type == NNT_TYPE_UINT64) return static_cast<double>(v.value.v_uint64);
  if (v.type == NNT_TYPE_DOUBLE) return v.value.v_double;
  return 0.0;
}

int model_accum(nnt_multitype *a, int ac, int ad, int akr, const nnt_multitype &v, int vc, int vd, int vk) {
  if (a->type == NNT_TYPE_ABSENT) {
    if (v.type == NNT_TYPE_ABSENT) return 0;
    const uint32_t count = a->count;
    *a = v;
    a->count = count;
    return vc;
  }
  const int n = ac + vc;
  const double ma = model_number(*a), mv = model_number(v);
  if (n != 0) {
    const double m = (static_cast<double>(ac) * ma + static_cast<double>(vc) * mv) / static_cast<double>(n);
    if (m == std::floor(m) && m >= 0 && m <= 18446744073709549568.0) {
      a->type = NNT_TYPE_UINT64;
      a->value.v_uint64 = static_cast<uint64_t>(m);
    } else if (m == std::floor(m) && m < 0 && m >= -9223372036854775808.0) {
      a->type = NNT_TYPE_INT64;
      a->value.v_int64 = static_cast<int64_t>(m);
    } else {
      a->type = NNT_TYPE_DOUBLE;
      a->value.v_double = m;
    }
    if (v.stddev_present) {
      const float sa = a->stddev_present ? a->stddev : 0.0F;
      const float sa2 = sa * sa, sv2 = v.stddev * v.stddev;
      const double var = ((static_cast<double>(sa2) + ma * ma) * static_cast<double>(ac) +
                          (static_cast<double>(sv2) + mv * mv) * static_cast<double>(vc)) /
                             static_cast<double>(n) -
                         m * m;
      a->stddev = var >= 0 ? static_cast<float>(std::sqrt(var)) : 0.0F;
      a->stddev_present = 1;
    }
  }
  const ModelRate d =
      model_rate({a->derivative, a->derivative_stddev}, ad, {v.derivative, v.derivative_stddev}, vd, false);
  a->derivative = d.value;
  a->derivative_stddev = d.stddev;
  const ModelRate k =
      model_rate({a->counter, a->counter_stddev}, akr, {v.counter, v.counter_stddev}, vk, true);
  a->counter = k.value;
  a->counter_stddev = k.stddev;
  return n;
}

class RandomValues {
 public:
  explicit RandomValues(uint64_t seed) : engine_(seed) {}

  int pick(int below) { return static_cast<int>(engine_() % static_cast<uint64_t>(below)); }
  float rate() {
    switch (pick(6)) {
      case 0:
        return kNaN;
      case 1:
        return 0.0F;
      case 2:
        return kInfinity;
      default:
        return std::uniform_real_distribution<float>(-1e4F, 1e4F)(engine_);
    }
  }
  int weight() { return pick(3) == 0 ? 0 : pick(3'600'000); }

  nnt_multitype value() {
    nnt_multitype v{};
    v.type = static_cast<nnt_type_t>(pick(9));
    v.count = static_cast<uint32_t>(pick(4) == 0 ? 0 : pick(70000));
    v.stddev_present = static_cast<uint8_t>(pick(2));
    v.stddev = rate();
    if (v.type == NNT_TYPE_DOUBLE && pick(2) == 0) {
      v.value.v_double = std::uniform_real_distribution<double>(-1e20, 1e20)(engine_);
    } else {
      v.value.v_uint64 = engine_() >> pick(64);
    }
    v.derivative = rate();
    v.derivative_stddev = rate();
    v.counter = rate();
    v.counter_stddev = rate();
    return v;
  }

 private:
  std::mt19937_64 engine_;
};

// Equal in every bit, any two NaNs being the same: which operand's NaN an operation hands on is the compiler's choice.
bool same_float(float a, float b) {
  return (a != a && b != b) || memcmp(&a, &b, sizeof(a)) == 0;
}
bool same(const nnt_multitype &a, const nnt_multitype &b) {
  const bool same_value = a.value.v_uint64 == b.value.v_uint64 ||
                          (a.type == NNT_TYPE_DOUBLE && a.value.v_double != a.value.v_double &&
                           b.value.v_double != b.value.v_double);
  return a.type == b.type && a.count == b.count && a.stddev_present == b.stddev_present && same_value &&
         same_float(a.stddev, b.stddev) && same_float(a.derivative, b.derivative) &&
         same_float(a.derivative_stddev, b.derivative_stddev) && same_float(a.counter, b.counter) &&
         same_float(a.counter_stddev, b.counter_stddev);
}

}  // namespace

TEST(NntMultitypeModel, RandomMergesAgree) {
  for (uint64_t seed = 1; seed <= 200'000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomValues random(seed);
    nnt_multitype a = random.value();
    nnt_multitype model = a;
    const nnt_multitype v = random.value();
    const int ac = static_cast<int>(a.count), vc = static_cast<int>(v.count);
    const int ad = random.weight(), ak = random.weight(), vd = random.weight(), vk = random.weight();
    ASSERT_EQ(nnt_multitype_accum_counts(&a, ac, ad, ak, &v, vc, vd, vk),
              model_accum(&model, ac, ad, ak, v, vc, vd, vk));
    ASSERT_TRUE(same(a, model));
  }
}

TEST(NntMultitypeModel, RandomRollupsAgree) {
  for (uint64_t seed = 1; seed <= 5'000; ++seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    RandomValues random(seed);
    nnt_multitype a = random.value();
    nnt_multitype model = a;
    std::vector<nnt_multitype> fine(static_cast<size_t>(random.pick(12)));
    for (nnt_multitype &v : fine) v = random.value();
    nnt_multitype_rollup(&a, 300, static_cast<int>(fine.size()), fine.data(), 60);
    int weight = 300;
    for (const nnt_multitype &v : fine) {
      if (v.count == 0) continue;
      const int n = model_accum(&model, static_cast<int>(model.count), weight, weight, v,
                                static_cast<int>(v.count), 60, 60);
      model.count = static_cast<uint32_t>(n > 65535 ? 65535 : n);
      weight += 60;
    }
    ASSERT_TRUE(same(a, model));
  }
}
