// What the tests of histograms share: owned histograms, their contents as a value, and independent models.
#ifndef TEST_VASKLLHIST_HISTOGRAM_SUPPORT_H
#define TEST_VASKLLHIST_HISTOGRAM_SUPPORT_H

#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <limits>
#include <memory>
#include <ostream>
#include <string>
#include <tuple>
#include <vector>

#include "vaskllhist/vaskllhist.h"

inline bool operator==(hist_bucket_t a, hist_bucket_t b) {
  return a.val == b.val && a.exp == b.exp;
}
inline std::ostream &operator<<(std::ostream &out, hist_bucket_t bucket) {
  return out << "(" << int{bucket.val} << ", " << int{bucket.exp} << ")";
}

namespace hist_test {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kNan = std::numeric_limits<double>::quiet_NaN();

struct Entry {
  int val, exp;
  uint64_t count;
  bool operator==(const Entry &) const = default;
};
inline std::ostream &operator<<(std::ostream &out, const Entry &entry) {
  return out << "(" << entry.val << ", " << entry.exp << ") x " << entry.count;
}

constexpr hist_bucket_t bucket(int val, int exp) {
  return {static_cast<int8_t>(val), static_cast<int8_t>(exp)};
}

struct Free {
  void operator()(histogram_t *h) const { hist_free(h); }
};

// An owned histogram, which may be made of its entries.
class Histogram {
 public:
  Histogram() : owned_(hist_alloc()) {}
  explicit Histogram(histogram_t *h) : owned_(h) {}
  Histogram(std::initializer_list<Entry> entries) : Histogram() {
    for (const Entry &entry : entries) hist_insert_raw(get(), bucket(entry.val, entry.exp), entry.count);
  }
  histogram_t *get() const { return owned_.get(); }

  std::vector<Entry> entries() const {
    std::vector<Entry> all;
    hist_bucket_t at;
    uint64_t count = 0;
    for (int i = 0; hist_bucket_at(get(), i, &at, &count) == 0; ++i) all.push_back({at.val, at.exp, count});
    return all;
  }

 private:
  std::unique_ptr<histogram_t, Free> owned_;
};

using Entries = std::vector<Entry>;

inline uint64_t as_count(int64_t number) {
  return static_cast<uint64_t>(number);
}

inline int accumulate(const Histogram &target, std::initializer_list<const histogram_t *> sources) {
  return hist_accumulate(target.get(), sources.begin(), static_cast<int>(sources.size()));
}
inline int subtract(const Histogram &target, std::initializer_list<const histogram_t *> sources) {
  return hist_subtract_as_int64(target.get(), sources.begin(), static_cast<int>(sources.size()));
}
inline int add(const Histogram &target, std::initializer_list<const histogram_t *> sources) {
  return hist_add_as_int64(target.get(), sources.begin(), static_cast<int>(sources.size()));
}

// The model of a value's bucket: the first two digits of its shortest decimal text.
inline hist_bucket_t bucket_by_text(double value) {
  const double magnitude = std::fabs(value);
  if (!(magnitude < 1e128)) return bucket(-1, 0);
  if (magnitude < 1e-128) return bucket(0, 0);
  char text[64];
  *std::to_chars(text, text + sizeof(text), magnitude, std::chars_format::scientific).ptr = '\0';
  const int second = text[1] == '.' ? text[2] - '0' : 0;
  const int val = (text[0] - '0') * 10 + second;
  return bucket(value < 0 ? -val : val, std::atoi(std::strchr(text, 'e') + 1));
}

// Where a bucket stands in the order of value.
inline std::tuple<int, double> place_of(hist_bucket_t at) {
  if (at.val == -1) return {1, 0.0};
  return {0, at.val * std::pow(10.0, at.exp - 1)};
}

// The border val * 10^(exp - 1), as the C library reads it.
inline double border_by_text(int val, int exp) {
  return std::strtod((std::to_string(val) + "e" + std::to_string(exp - 1)).c_str(), nullptr);
}

}  // namespace hist_test

#endif
