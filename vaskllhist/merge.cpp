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

bool has_buckets_of(const histogram &h, const histogram &other) {
  if (h.codes == other.codes || other.codes.empty()) return true;
  if (!h.lookup) return false;
  bool is_absent = false;
  for (const Code code : other.codes) is_absent |= h.lookup->index_of(code) == Lookup::kAbsent;
  return !is_absent;
}

// All codes of the target and the sources, in order; nothing when the target has them all.
std::vector<Code> merged_codes(const histogram &target, Sources sources) {
  std::vector<Code> all, merged;
  for (const histogram *source : sources) {
    if (source == nullptr || has_buckets_of(target, *source) || source->codes == all) continue;
    const std::vector<Code> &so_far = all.empty() ? target.codes : all;
    merged.clear();
    std::set_union(so_far.begin(), so_far.end(), source->codes.begin(), source->codes.end(),
                   std::back_inserter(merged));
    all.swap(merged);
  }
  return all;
}

// The same for many sources: marks every code of theirs in a table, and reads the table in order.
std::vector<Code> marked_codes(const histogram &target, Sources sources) {
  std::vector<uint8_t> marks(size_t{kNoNumberCode} + 1);
  for (const Code code : target.codes) marks[code] = 1;
  const histogram *before = &target;
  for (const histogram *source : sources) {
    if (source == nullptr || source->codes == before->codes) continue;
    for (const Code code : source->codes) marks[code] = 1;
    before = source;
  }
  std::vector<Code> all;
  for (auto mark = marks.begin(); (mark = std::find(mark, marks.end(), 1)) != marks.end(); ++mark)
    all.push_back(static_cast<Code>(mark - marks.begin()));
  return all;
}

// From about as many buckets of sources on, a table of all codes costs little beside them.
constexpr size_t kManyBuckets = 10000;

bool are_many_buckets(Sources sources) {
  size_t buckets = 0;
  for (const histogram *source : sources) buckets += source == nullptr ? 0 : source->size();
  return buckets >= kManyBuckets;
}

// Gives the target a bucket, with nothing in it, for every code that a source has and it has not. Nothing is changed
// when memory runs out.
void make_buckets(histogram &target, Sources sources) {
  std::vector<Code> codes =
      are_many_buckets(sources) ? marked_codes(target, sources) : merged_codes(target, sources);
  if (codes.size() <= target.size()) return;
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
  const size_t size = source.size();
  if (target.codes == source.codes) {
    for (size_t i = 0; i < size; ++i) add(i, source.counts[i]);
  } else if (target.lookup) {
    for (size_t i = 0; i < size; ++i) add(target.lookup->index_of(source.codes[i]), source.counts[i]);
  } else {
    for (size_t from = 0, to = 0; from < size; ++to)
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

// `h` must have no lookup.
void store_counts(histogram &h, const std::vector<int128> &counts, bool is_difference) {
  const CountRange range = CountRange::of(is_difference);
  for (size_t i = 0; i < counts.size(); ++i) h.counts[i] = range.clamped(counts[i]);
  h.is_difference = is_difference;
}

int128 read_own(const histogram &source, uint64_t count) {
  return read_count(count, source.is_difference);
}

int128 read_signed(const histogram &, uint64_t count) {
  return read_count(count, true);
}

// A copy of the target that has a bucket for every code of the sources, too, and no lookup.
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
  uint64_t *const counts = target.counts.data();
  for (const histogram *source : sources) {
    if (source == nullptr || source->codes.empty()) continue;
    if (source->codes != target.codes) target.want_lookup();
    for_each_bucket(target, *source,
                    [counts](size_t at, uint64_t count) { counts[at] = saturating_sum(counts[at], count); });
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
