// Quantiles of what the tool really collects from this machine, against exact ones of the same values.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <type_traits>

#include "orlith/histogram_value.h"
#include "orlith/host_sources.h"
#include "orlith/latency_sources.h"

namespace {

using Distributions = std::map<std::string, std::vector<double>>;

double number_of(const SampleValue &value) {
  return std::visit(
      [](const auto &v) -> double {
        if constexpr (std::is_arithmetic_v<std::remove_cvref_t<decltype(v)>>) return static_cast<double>(v);
        return std::nan("");
      },
      value);
}

// Three latencies, operation by operation, and two families of the kernel's figures.
Distributions collected() {
  Distributions values;
  std::vector<std::string> problems;
  for (const LatencySource &source : host_latencies(problems))
    for (int i = 0; i < 1000; ++i) {
      uint64_t latency_ns = 0;
      if (source.measure(&latency_ns)) values[source.name].push_back(static_cast<double>(latency_ns) / 1e9);
    }
  HostContext host{};
  for (const Sample &sample : read_host(host, problems))
    for (const char *family : {"memory|", "cpu_time|"})
      if (sample.name.starts_with(family)) values[family].push_back(number_of(sample.value));
  return values;
}

TEST(RealQuantiles, AreAtMostHalfABinFromTheExactOnes) {
  const Distributions distributions = collected();
  ASSERT_EQ(distributions.size(), 5U);
  constexpr size_t parts = 128;  // a power of two: each quantile is exactly the fraction
  std::vector<double> q(parts + 1);
  for (size_t i = 0; i < q.size(); ++i) q[i] = static_cast<double>(i) / parts;
  for (auto [name, values] : distributions) {
    SCOPED_TRACE(name);
    ASSERT_GE(values.size(), 20U);
    const Histogram histogram = new_histogram();
    for (const double value : values) ASSERT_EQ(hist_insert(histogram.get(), value, 1), 0);
    std::sort(values.begin(), values.end());
    std::vector<double> told(q.size());
    ASSERT_EQ(hist_quantiles(histogram.get(), q.data(), static_cast<int>(q.size()), told.data()), 0);
    for (size_t i = 0; i < q.size(); ++i) {
      // The k-th smallest, k = q * n rounded up, at least 1.
      const size_t k = std::max<size_t>((i * values.size() + parts - 1) / parts, 1);
      const double exact = values[k - 1];
      // The widest that a bin of two digits is at this value: a tenth of the power of ten below it.
      const double bin = exact == 0 ? 0 : std::pow(10, std::floor(std::log10(std::abs(exact)) + 1e-12) - 1);
      EXPECT_LE(std::abs(told[i] - exact), bin / 2 * (1 + 1e-9)) << "quantile " << q[i];
    }
    const double mean =
        std::accumulate(values.begin(), values.end(), 0.0) / static_cast<double>(values.size());
    EXPECT_NEAR(hist_approx_mean(histogram.get()), mean, std::abs(mean) * 0.05);  // no bin is wider than 10 %
  }
}

}  // namespace
