#include <stdlib.h>

#include "liborlith/util/histogram.h"
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
