#include "vaskllhist/vaskllhist.h"

#include "test/abi/abi_checks.h"

static void call_buckets(void) {
  const hist_bucket_t bucket = hist_bucket_of(17.3);
  CHECK(bucket.val == 17 && bucket.exp == 1);
  const hist_bucket_t scaled = hist_bucket_of_scaled(1730, -2);
  CHECK(hist_bucket_compare(bucket, scaled) == 0);
  CHECK(hist_bucket_is_valid(bucket));
  CHECK(hist_bucket_lower(bucket) == 17 && hist_bucket_upper(bucket) == 18);
  CHECK(hist_bucket_midpoint(bucket) == 17.5);
}

static histogram_t *fill(void) {
  const hist_bucket_t last = {99, 127};
  histogram_t *h = hist_alloc();
  CHECK(hist_insert(h, 1.0, 2) == 0 && hist_insert_scaled(h, 15, -1, 3) == 0);
  CHECK(hist_insert_raw(h, hist_bucket_of(-1), 1) == 0);
  CHECK(hist_insert_raw_end(h, last, 4) == 0);
  CHECK(hist_remove(h, 9.95e127, 5) == 4 && hist_bucket_count(h) == 4);
  hist_remove_zeroes(h);
  CHECK(hist_bucket_count(h) == 3);
  return h;
}

static void call_statistics(const histogram_t *h) {
  const double q[] = {0, 0.5, 1};
  double values[3];
  hist_bucket_t bucket;
  uint64_t count = 0;
  CHECK(hist_bucket_at(h, 1, &bucket, &count) == 0 && bucket.val == 10 && count == 2);
  CHECK(hist_count_at(h, bucket) == 2);
  CHECK(hist_sample_count(h) == 6 && hist_number_count(h) == 6);
  CHECK(hist_count_below(h, 1.0) == 1 && hist_count_above(h, 1.0) == 3);
  CHECK(hist_approx_sum(h) > 5.6 && hist_approx_sum(h) < 5.8);
  CHECK(hist_approx_mean(h) > 0.9 && hist_approx_mean(h) < 1.0);
  CHECK(hist_approx_stddev(h) > 0.9 && hist_approx_stddev(h) < 1.0);
  CHECK(hist_quantiles(h, q, 3, values) == 0);
  CHECK(values[0] == -1.05 && values[1] == 1.05 && values[2] == 1.55);
}

static void call_arithmetic(const histogram_t *h) {
  histogram_t *other = hist_alloc_bins(3), *sum = hist_clone(h);
  const histogram_t *source = other;
  CHECK(hist_insert(other, 1.0, 5) == 0);
  CHECK(hist_subtract_as_int64(sum, &source, 1) == 0 && hist_is_difference(sum));
  CHECK((int64_t)hist_count_at(sum, hist_bucket_of(1.0)) == -3);
  CHECK(hist_add_as_int64(sum, &source, 1) == 0 && hist_count_at(sum, hist_bucket_of(1.0)) == 2);
  hist_clear(sum);
  CHECK(hist_accumulate(sum, &source, 1) == 0 && hist_sample_count(sum) == 5);
  CHECK(hist_downsample(sum, 2) == 0 && hist_sample_count(sum) == 2);
  hist_free(other);
  hist_free(sum);
}

static void call_serialization(const histogram_t *h) {
  char bytes[32], text[40];
  const ssize_t size = hist_serialize(h, bytes, sizeof bytes);
  const ssize_t length = hist_serialize_b64(h, text, sizeof text);
  CHECK(size > 0 && (size_t)size == hist_serialized_size(h));
  CHECK(length > 0 && (size_t)length == hist_serialized_b64_size(h));
  histogram_t *read = hist_alloc();
  CHECK(hist_deserialize(read, bytes, (size_t)size) == size && hist_bucket_count(read) == 3);
  CHECK(hist_deserialize_b64(read, text, (size_t)length) == length && hist_bucket_count(read) == 3);
  const ssize_t refusal = hist_deserialize(read, bytes, 1);
  CHECK_TEXT(hist_error_text(refusal), "the bytes end within the histogram");
  hist_free(read);
}

static void call_columns(const histogram_t *h) {
  const int n = hist_bucket_count(h);
  histogram_t *same = hist_of_columns(hist_codes(h), hist_counts(h), n);
  CHECK(hist_bucket_count(same) == n && hist_sample_count(same) == hist_sample_count(h));
  const hist_code_t first = hist_codes(h)[0];
  CHECK(hist_code_of_bucket(hist_bucket_of_code(first)) == first);
  hist_mutable_counts(same)[0] += 2;
  CHECK(hist_counts(same)[0] == hist_counts(h)[0] + 2);
  hist_free(same);
}

void call_vaskllhist(void) {
  histogram_t *h = fill();
  call_buckets();
  call_statistics(h);
  call_arithmetic(h);
  call_serialization(h);
  call_columns(h);
  hist_free(h);
}
