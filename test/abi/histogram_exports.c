#include <stdlib.h>

#include "liborlith/util/histogram.h"
#include "liborlith/util/histogram_series.h"
#include "test/abi/abi_checks.h"

static histogram_t *histogram_of(double value) {
  histogram_t *h = hist_alloc();
  CHECK(hist_insert(h, value, 3) == 0);
  return h;
}

static void call_lists(orlith_metric_locator_t *locator, metric_value_t *value) {
  histogram_data_t list = {0, NULL, NULL};
  CHECK(add_histogram_to_list(&list, 1000, locator, value, 0, NULL) == 1);
  CHECK(value->is_null && value->storage.v_string == NULL);
  CHECK(add_materialized_histogram_to_list(&list, 2000, locator, histogram_of(2), 1, NULL) == 1);
  CHECK(list.count == 2 && list.head->histogram != NULL && list.tail->cumulative == 1);
  free_histogram_entry_chain(list.head);
}

void call_histogram_line(void) {
  char text[64], cid[64];
  char line[256] = "H1\t1700000000.5\tx`c_7`1f846f26-0cfd-4df5-b4f1-e0930604e577\tlatency\t";
  histogram_t *h = histogram_of(1);
  const ssize_t len = hist_serialize_b64(h, text, sizeof text - 1);
  CHECK(len > 0);
  text[len] = '\0';
  strcat(line, text);
  hist_free(h);

  uint64_t rawtime = 0;
  orlith_metric_locator_t *locator = NULL;
  metric_value_t value;
  CHECK(decode_histogram_string(line, &rawtime, &locator, &value, true, cid, sizeof cid) == 1);
  CHECK(rawtime == 1700000000500u && orlith_metric_locator_get_account_id(locator) == 7);
  CHECK_TEXT(value.storage.v_string, text);
  CHECK_TEXT(cid, "x`c_7`1f846f26-0cfd-4df5-b4f1-e0930604e577");
  call_lists(locator, &value);
  orlith_metric_locator_deref(locator);
}

static ruxo_boolean sum_times(uint64_t whence_ms, histogram_t *h, void *closure) {
  CHECK(hist_bucket_count(h) == 1);
  *(uint64_t *)closure += whence_ms;
  return ruxo_true;
}

void call_histogram_series(void) {
  char image[1024];
  size_t actual_size = 0;
  uint64_t sum = 0;
  histogram_series_t *hs = histogram_series_alloc(0, 1000);
  CHECK(histogram_series_add(hs, 10, histogram_of(1), ruxo_true));
  CHECK(histogram_series_add(hs, 20, histogram_of(2), ruxo_true));
  CHECK(!histogram_series_remove(hs, 10));
  CHECK(histogram_series_serialize_maxsize(hs) <= sizeof image);
  CHECK(histogram_series_serialize(hs, image, sizeof image, &actual_size));
  CHECK(actual_size > 0 && actual_size < sizeof image);
  histogram_series_free(hs);

  hs = histogram_series_deserialize(image, actual_size);
  CHECK(hs != NULL && hs->n_entries == 2 && hs->histograms[1] == HISTOGRAM_SERIES_NOT_DECODED);
  histogram_series_populate(hs, 1);
  CHECK(hist_bucket_count(hs->histograms[1]) == 1);
  CHECK(hist_bucket_count(histogram_series_at(hs, 10)) == 1);
  CHECK(histogram_series_foreach(hs, sum_times, &sum) && sum == 30);
  histogram_series_free(hs);
}
