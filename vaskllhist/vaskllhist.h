/* Log-linear histograms: how often values occurred, in bins of two significant decimal digits.
 *
 * A bin is a bucket of a mantissa and a decimal exponent. The bucket (val, exp) with val from 10 to 99 holds the
 * values from val/10 * 10^exp, included, to (val+1)/10 * 10^exp, excluded; a negative mantissa mirrors that. So 1 is in
 * (10, 0), 17.3 in (17, 1) and -0.12 in (-12, -1). Two buckets are not of this kind:
 *   (0, 0)  is the zero bin: everything closer to zero than 1e-128;
 *   (-1, 0) is the bin of what is no number that a histogram can hold: NaN, the infinities, and everything of a
 *           magnitude of 1e128 and more. Statistics of the values leave it out.
 * A border belongs to its bin exactly as a programmer writes it: 0.12 is the smallest double in (12, -1), whether the
 * nearest double lies above or below the decimal number.
 *
 * The error bound: what a histogram tells about a value (hist_bucket_midpoint, hist_quantiles) is at most half a bin,
 * 0.05 * 10^exp, away from it, which is at most 5 % of the value. The mean of the values is then at most half the
 * widest bin in use away from hist_approx_mean, and so is their standard deviation from hist_approx_stddev. Values in
 * the zero bin are taken for 0.
 *
 * A histogram keeps the buckets that were used, in order of value (most negative first, the bin of no number last),
 * each with a 64-bit count. A count may be zero. Counts saturate at their largest value and never wrap.
 *
 * Differences: hist_subtract_as_int64 makes its target a difference, whose counts are signed 64-bit numbers; read
 * through this interface they are the same 64 bits as a uint64_t. Statistics leave negative counts out.
 *
 * Conventions: a refusal is a negative code of HIST_ERRORS and leaves every histogram as it was. Nothing here logs,
 * waits or keeps state between calls. Threads: one thread at a time may change a histogram, with nobody reading it;
 * any number may read one that nobody changes. Nothing here takes a lock. A null histogram reads as an empty one.
 * doc/histogram.md has the bins, the stored form and the definitions of the statistics. */
#ifndef VASKLLHIST_VASKLLHIST_H
#define VASKLLHIST_VASKLLHIST_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#define HIST_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* The number of buckets there are: 90 mantissas, 256 exponents, two signs, zero, and the bin of no number. No
 * histogram has more. */
#define HIST_MAX_BUCKETS 46082

/* Every refusal: X(NAME, code, text) declares HIST_E_NAME. Hosts log codes, so a number is never given a second
 * meaning. */
#define HIST_ERRORS(X)                                                                        \
  X(ARGUMENT, -1, "a null pointer, a negative number, or a target that is among the sources") \
  X(MEMORY, -2, "out of memory")                                                              \
  X(BUCKET, -3, "no such bucket: its mantissa is not 0, 10 to 99 or -10 to -99")              \
  X(ORDER, -4, "the bucket does not lie behind the last one")                                 \
  X(INDEX, -5, "no bucket has this index")                                                    \
  X(RANGE, -6, "a count leaves the range of its type")                                        \
  X(QUANTILE, -7, "a quantile is not from 0 to 1")                                            \
  X(EMPTY, -8, "the histogram holds no numbers")                                              \
  X(ROOM, -9, "the buffer is too small")                                                      \
  X(VERSION, -10, "the bytes are not a histogram of a known version")                         \
  X(TRUNCATED, -11, "the bytes end within the histogram")                                     \
  X(TRAILING, -12, "bytes follow the histogram")                                              \
  X(NUMBER, -13, "a number is not written in its shortest form, or is too large")

enum hist_error {
#define HIST_ERROR_ENUMERATOR(name, code, text) HIST_E_##name = (code),
  HIST_ERRORS(HIST_ERROR_ENUMERATOR)
#undef HIST_ERROR_ENUMERATOR
};

typedef struct histogram histogram_t;

typedef struct hist_bucket {
  int8_t
      val; /* the mantissa in tenths: 10 to 99, -10 to -99, 0 for the zero bin, -1 for the bin of no number */
  int8_t exp; /* the decimal exponent; 0 for the zero bin and the bin of no number */
} hist_bucket_t;

/* The text of a negative code; constant, never null. Other numbers give "no error" (0 and up) or "unknown error". */
HIST_EXPORT const char *hist_error_text(ssize_t code);

/* ---- Buckets: pure functions, any thread ---- */

/* The bucket that `value` belongs to. */
HIST_EXPORT hist_bucket_t hist_bucket_of(double value);
/* The bucket of value * 10^scale, computed without rounding. */
HIST_EXPORT hist_bucket_t hist_bucket_of_scaled(int64_t value, int scale);
/* Whether there is such a bucket. */
HIST_EXPORT bool hist_bucket_is_valid(hist_bucket_t bucket);
/* The order of value: negative, 0 or positive as `a` lies before, at or behind `b`; the bin of no number is last, and
 * what is no bucket lies behind it. */
HIST_EXPORT int hist_bucket_compare(hist_bucket_t a, hist_bucket_t b);
/* The bounds with the lower and the larger value (for a negative bucket the lower bound is the excluded one), each the
 * double nearest to the decimal number. Zero: 0 and 0. No number or no bucket: NaN. */
HIST_EXPORT double hist_bucket_lower(hist_bucket_t bucket);
HIST_EXPORT double hist_bucket_upper(hist_bucket_t bucket);
/* The middle between the bounds, which stands for every value of the bucket; 0 and NaN as above. */
HIST_EXPORT double hist_bucket_midpoint(hist_bucket_t bucket);

/* ---- Life ---- */

/* A new empty histogram, owned by the caller and released with hist_free. Null when out of memory. */
HIST_EXPORT histogram_t *hist_alloc(void);
/* The same with room for `bins` buckets, so that as many are added without allocating. A number that is negative or
 * above HIST_MAX_BUCKETS is taken for the nearest that is not. */
HIST_EXPORT histogram_t *hist_alloc_bins(int bins);
/* Frees a histogram; null is ignored. */
HIST_EXPORT void hist_free(histogram_t *h);
/* An independent copy, owned by the caller: buckets, counts, zero buckets, whether it is a difference. Null for null
 * and when out of memory. */
HIST_EXPORT histogram_t *hist_clone(const histogram_t *h);
/* Takes all buckets out, keeping their room; `h` is no difference then. Null is ignored. */
HIST_EXPORT void hist_clear(histogram_t *h);

/* ---- Putting values in ---- */

/* Counts `value` as having occurred `count` times. A count of 0 adds the bucket with nothing in it. Returns 0;
 * HIST_E_ARGUMENT for a null histogram; HIST_E_MEMORY. */
HIST_EXPORT int hist_insert(histogram_t *h, double value, uint64_t count);
/* The same for the value value * 10^scale: (1250, -6) are 1250 microseconds in seconds. Exact for every value. */
HIST_EXPORT int hist_insert_scaled(histogram_t *h, int64_t value, int scale, uint64_t count);
/* The same for a bucket; HIST_E_BUCKET, too. */
HIST_EXPORT int hist_insert_raw(histogram_t *h, hist_bucket_t bucket, uint64_t count);
/* Appends a bucket that lies behind all buckets of `h`, without searching: how readers of a stored form fill one, with
 * any 64 bits for a count. Returns 0; HIST_E_ARGUMENT for a null histogram; HIST_E_BUCKET; HIST_E_ORDER when it does
 * not lie behind the last bucket; HIST_E_MEMORY. */
HIST_EXPORT int hist_insert_raw_end(histogram_t *h, hist_bucket_t bucket, uint64_t count);
/* Takes up to `count` occurrences out of the bucket of `value`, which stays even if nothing is left in it. Returns how
 * many were there to be taken; 0 for a difference. */
HIST_EXPORT uint64_t hist_remove(histogram_t *h, double value, uint64_t count);

/* ---- Looking at buckets ---- */

/* The number of buckets, those with a zero count included. */
HIST_EXPORT int hist_bucket_count(const histogram_t *h);
/* The bucket and the count at `index`, counted from 0 in order of value; either pointer may be null. Returns 0;
 * HIST_E_INDEX, leaving both as they were. */
HIST_EXPORT int hist_bucket_at(const histogram_t *h, int index, hist_bucket_t *bucket, uint64_t *count);
/* The count of one bucket; 0 when `h` does not have it. */
HIST_EXPORT uint64_t hist_count_at(const histogram_t *h, hist_bucket_t bucket);
/* Whether the counts are signed: `h` is what hist_subtract_as_int64 made. */
HIST_EXPORT bool hist_is_difference(const histogram_t *h);
/* Drops the buckets with a zero count. Null is ignored. */
HIST_EXPORT void hist_remove_zeroes(histogram_t *h);

/* ---- Buckets as columns, for what reads or writes many of them ---- */

/* A bucket as a number: codes are ordered as buckets are. doc/histogram.md has the layout. */
typedef uint16_t hist_code_t;
/* The code of a bucket and the bucket of a code; either has to be one (hist_bucket_is_valid). Pure functions. */
static inline hist_code_t hist_code_of_bucket(hist_bucket_t bucket) {
  const int decade = bucket.exp + 128;
  if (bucket.val == 0) return 0x8000;
  if (bucket.val == -1) return 0xffff;
  return (hist_code_t)(bucket.val > 0 ? 0x8000 | decade << 7 | bucket.val
                                      : 0x7fff ^ (decade << 7 | -bucket.val));
}
static inline hist_bucket_t hist_bucket_of_code(hist_code_t code) {
  const int is_negative = code < 0x8000;
  const int magnitude = (is_negative ? ~code : code) & 0x7fff;
  const int val = magnitude & 0x7f;
  hist_bucket_t bucket = {0, 0};
  if (code == 0x8000) return bucket;
  bucket.val = (int8_t)(code == 0xffff ? -1 : is_negative ? -val : val);
  bucket.exp = (int8_t)(code == 0xffff ? 0 : (magnitude >> 7) - 128);
  return bucket;
}
/* The codes and the counts of all buckets, hist_bucket_count(h) each, in order; borrowed until `h` changes. Null, or a
 * pointer to nothing, when there are none. */
HIST_EXPORT const hist_code_t *hist_codes(const histogram_t *h);
HIST_EXPORT const uint64_t *hist_counts(const histogram_t *h);
/* The counts once more, to be changed in place; any 64 bits go. Buckets that become zero stay: see hist_remove_zeroes.
 * Borrowed and null as above. */
HIST_EXPORT uint64_t *hist_mutable_counts(histogram_t *h);
/* A new histogram, owned by the caller, with copies of these columns of `n` buckets. Null when the codes do not ascend
 * or one is that of no bucket, when there are none for a number above 0, and when out of memory. */
HIST_EXPORT histogram_t *hist_of_columns(const hist_code_t *codes, const uint64_t *counts, int n);

/* ---- Counts and statistics; sums of counts saturate at UINT64_MAX ---- */

/* How many values were counted, and how many of these are numbers. */
HIST_EXPORT uint64_t hist_sample_count(const histogram_t *h);
HIST_EXPORT uint64_t hist_number_count(const histogram_t *h);
/* How many numbers lie in the buckets below, and above, the bucket of `value`. With hist_count_at of that bucket these
 * make hist_number_count. What is too large for a bucket, infinity included, lies above or below all numbers; below and
 * above NaN there are none. */
HIST_EXPORT uint64_t hist_count_below(const histogram_t *h, double value);
HIST_EXPORT uint64_t hist_count_above(const histogram_t *h, double value);
/* Count times midpoint, summed over the numbers; 0 without any. At most `number count` times half the widest bin in use
 * away from the sum of the values. */
HIST_EXPORT double hist_approx_sum(const histogram_t *h);
/* Mean and standard deviation (of the population: divided by the count) of the midpoints; NaN without numbers. */
HIST_EXPORT double hist_approx_mean(const histogram_t *h);
HIST_EXPORT double hist_approx_stddev(const histogram_t *h);
/* The `count` quantiles `q`, each from 0 to 1 and in any order, into `values`. The quantile q of n numbers is the k-th
 * smallest of them, k = q * n rounded up, at least 1: so 0 gives the smallest and 1 the largest. What is stored is the
 * midpoint of the bucket that holds it. One pass over the buckets serves them all. Returns 0; HIST_E_ARGUMENT;
 * HIST_E_QUANTILE; HIST_E_EMPTY: nothing is stored then. */
HIST_EXPORT int hist_quantiles(const histogram_t *h, const double *q, int count, double *values);

/* ---- Several histograms; none of the sources may be the target, null sources are empty ---- */

/* Adds the counts of `count` histograms to `target`, which saturate. If the target or any source is a difference the
 * target becomes one. Returns 0; HIST_E_ARGUMENT; HIST_E_MEMORY. */
HIST_EXPORT int hist_accumulate(histogram_t *target, const histogram_t *const *sources, int count);
/* Takes the counts of all sources from those of `target`, which becomes a difference: counts are signed from now on.
 * Buckets whose difference is zero are dropped, so two equal histograms leave none. Returns 0; HIST_E_ARGUMENT;
 * HIST_E_MEMORY; HIST_E_RANGE when a difference does not fit into 64 signed bits. */
HIST_EXPORT int hist_subtract_as_int64(histogram_t *target, const histogram_t *const *sources, int count);
/* The inverse: adds the counts of all sources, each taken for a signed 64-bit number (whatever made it), to those of
 * `target`. The target stays a difference if it is one; if not, its counts are unsigned before and after. Zero buckets
 * stay: see hist_remove_zeroes. Returns 0; HIST_E_ARGUMENT; HIST_E_MEMORY; HIST_E_RANGE when a count would leave the
 * range of the target's counts. */
HIST_EXPORT int hist_add_as_int64(histogram_t *target, const histogram_t *const *sources, int count);
/* Thins the values out: of all values in order, every `factor`-th stays, so that n become n / factor, rounded down,
 * and the number below any bucket is at most 1 away from the same share of what it was. Buckets stay, empty ones too.
 * The bin of no number is thinned by itself. Returns 0; HIST_E_ARGUMENT for a null histogram or a factor of 0;
 * HIST_E_RANGE for a difference. */
HIST_EXPORT int hist_downsample(histogram_t *h, uint64_t factor);

/* ---- The stored form: doc/histogram.md ---- */

/* The number of bytes that hist_serialize writes. */
HIST_EXPORT size_t hist_serialized_size(const histogram_t *h);
/* Writes the stored form to `out`, which has room for `len` bytes. Returns the number of bytes written; HIST_E_ROOM,
 * with nothing written; HIST_E_ARGUMENT for a null `out`. */
HIST_EXPORT ssize_t hist_serialize(const histogram_t *h, void *out, size_t len);
/* Reads the stored form, which must be all of the `len` bytes, in place of what is in `h`. Memory is bounded by the
 * number of bytes given. Returns `len`; HIST_E_ARGUMENT, HIST_E_VERSION, HIST_E_TRUNCATED, HIST_E_TRAILING,
 * HIST_E_NUMBER, HIST_E_BUCKET, HIST_E_MEMORY. */
HIST_EXPORT ssize_t hist_deserialize(histogram_t *h, const void *bytes, size_t len);
/* The same as text: standard base64 with padding (RFC 4648, section 4). The number of characters, without a NUL. */
HIST_EXPORT size_t hist_serialized_b64_size(const histogram_t *h);
/* Writes the text to `text`, which has room for `len` bytes, and a NUL behind it if there is room left. Returns the
 * number of characters without the NUL; -1, with nothing written, when `len` is smaller than that or `text` is null. */
HIST_EXPORT ssize_t hist_serialize_b64(const histogram_t *h, char *text, size_t len);
/* Reads the text of `len` characters, all of which must belong to it: no line ends, no blanks. Returns `len`; -1 for
 * anything else, and then `h` is as it was. */
HIST_EXPORT ssize_t hist_deserialize_b64(histogram_t *h, const char *text, size_t len);

#ifdef __cplusplus
}
#endif

#endif
