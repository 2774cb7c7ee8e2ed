// Several histograms: sums and differences.
#include <algorithm>
#include <iterator>
#include <span>

#include "vaskllhist/histogram_private.h"
#include "vaskllhist/powers_private.h"

namespace vaskllhist {
namespace {

__extension__ typedef __int128 int128;

using Sources = std::span<const histogram_t *const>;

bool are_arguments(const histogram_t *target, const histogram_t *const *sources, int count) {
  if (target == nullptr || count < 0 || (sources == nullptr && count > 0)) return false;
  return std::find(sources, sources + count, target) == sources + count;
}

// All codes of the target and the sources, in order.
std::vector<Code> union_of(const histogram &target, Sources sources) {
  std::vector<Code> all = target.codes;
  std::vector<Code> merged;
  for (const histogram *source : sources) {
    if (source == nullptr || source->codes == all) continue;
    merged.clear();
    std::set_union(all.begin(), all.end(), source->codes.begin(), source->codes.end(),
                   std::back_inserter(merged));
    all.swap(merged);
  }
  return all;
}

// Gives the target a bucket, with nothing in it, for every code that a source has and it has not. Nothing is changed
// when memory runs out.
void make_buckets(histogram &target, Sources sources) {
  std::vector<Code> codes = union_of(target, sources);
  if (codes.size() == target.size()) return;
  std::vector<uint64_t> counts(codes.size());
  for (size_t from = 0, to = 0; from < target.size(); ++to) {
    if (codes[to] == target.codes[from]) counts[to] = target.counts[from++];
  }
  target.lookup.reset();
  target.codes.swap(codes);
  target.counts.swap(counts);
}

// Calls add(index in the target, count) for every bucket of the source; the target has them all.
template <typename Add>
void for_each_bucket(const histogram &target, const histogram &source, Add add) {
  for (size_t from = 0, to = 0; from < source.size(); ++to) {
    if (target.codes[to] == source.codes[from]) add(to, source.counts[from++]);
  }
}

int128 read_count(uint64_t count, bool is_signed) {
  return is_signed ? int128{static_cast<int64_t>(count)} : int128{count};
}

struct CountRange {
  int128 lowest, highest;

  static CountRange of(bool is_signed) {
    if (is_signed) return {INT64_MIN, INT64_MAX};
    return {0, UINT64_MAX};
  }
  bool holds(int128 count) const { return lowest <= count && count <= highest; }
  uint64_t clamped(int128 count) const { return static_cast<uint64_t>(std::clamp(count, lowest, highest)); }
};

// The target's counts with those of the sources added, or subtracted, in numbers that cannot overflow.
// `read_source(source, count)` says what a stored count means.
template <typename ReadSource>
std::vector<int128> wide_counts(const histogram &target, Sources sources, int sign, ReadSource read_source) {
  std::vector<int128> sums(target.size());
  for (size_t i = 0; i < target.size(); ++i) sums[i] = read_count(target.counts[i], target.is_difference);
  for (const histogram *source : sources) {
    if (source == nullptr) continue;
    for_each_bucket(target, *source,
                    [&](size_t at, uint64_t count) { sums[at] += sign * read_source(*source, count); });
  }
  return sums;
}

bool all_within(const std::vector<int128> &counts, CountRange range) {
  return std::all_of(counts.begin(), counts.end(), [&](int128 count) { return range.holds(count); });
}

void store_counts(histogram &h, const std::vector<int128> &counts, bool is_difference) {
  const CountRange range = CountRange::of(is_difference);
  for (size_t i = 0; i < counts.size(); ++i) h.counts[i] = range.clamped(counts[i]);
  h.is_difference = is_difference;
  if (is_difference) h.lookup.reset();
}

int128 read_own(const histogram &source, uint64_t count) {
  return read_count(count, source.is_difference);
}

int128 read_signed(const histogram &, uint64_t count) {
  return read_count(count, true);
}

// A copy of the target that has a bucket for every code of the sources, too.
histogram with_buckets_of(const histogram &target, Sources sources) {
  histogram result;
  result.codes = target.codes;
  result.counts = target.counts;
  result.is_difference = target.is_difference;
  make_buckets(result, sources);
  return result;
}

void accumulate(histogram &target, Sources sources) {
  const bool is_difference =
      target.is_difference || std::any_of(sources.begin(), sources.end(), hist_is_difference);
  if (is_difference) {
    histogram result = with_buckets_of(target, sources);
    store_counts(result, wide_counts(result, sources, 1, read_own), true);
    target = std::move(result);
    return;
  }
  make_buckets(target, sources);
  for (const histogram *source : sources) {
    if (source == nullptr) continue;
    for_each_bucket(target, *source, [&](size_t at, uint64_t count) {
      target.counts[at] = saturating_sum(target.counts[at], count);
    });
  }
}

int subtract(histogram &target, Sources sources) {
  histogram result = with_buckets_of(target, sources);
  const std::vector<int128> counts = wide_counts(result, sources, -1, read_own);
  if (!all_within(counts, CountRange::of(true))) return HIST_E_RANGE;
  store_counts(result, counts, true);
  hist_remove_zeroes(&result);
  target = std::move(result);
  return 0;
}

int add_signed(histogram &target, Sources sources) {
  histogram result = with_buckets_of(target, sources);
  const std::vector<int128> counts = wide_counts(result, sources, 1, read_signed);
  if (!all_within(counts, CountRange::of(target.is_difference))) return HIST_E_RANGE;
  store_counts(result, counts, target.is_difference);
  target = std::move(result);
  return 0;
}

}  // namespace
}  // namespace vaskllhist

int hist_accumulate(histogram_t *target, const histogram_t *const *sources, int count) {
  if (!vaskllhist::are_arguments(target, sources, count)) return HIST_E_ARGUMENT;
  return vaskllhist::or_out_of_memory([&]() -> int {
    vaskllhist::accumulate(*target, {sources, static_cast<size_t>(count)});
    return 0;
  });
}

int hist_subtract_as_int64(histogram_t *target, const histogram_t *const *sources, int count) {
  if (!vaskllhist::are_arguments(target, sources, count)) return HIST_E_ARGUMENT;
  return vaskllhist::or_out_of_memory([&]() -> int {
    return vaskllhist::subtract(*target, {sources, static_cast<size_t>(count)});
  });
}

int hist_add_as_int64(histogram_t *target, const histogram_t *const *sources, int count) {
  if (!vaskllhist::are_arguments(target, sources, count)) return HIST_E_ARGUMENT;
  return vaskllhist::or_out_of_memory([&]() -> int {
    return vaskllhist::add_signed(*target, {sources, static_cast<size_t>(count)});
  });
}
