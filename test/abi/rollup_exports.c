#include "liborlith/orollupd/rollup.h"

#include <stdlib.h>

#include "test/abi/abi_checks.h"

static const char line[] = "M\t1700000000.000\t1f846f26-0cfd-4df5-b4f1-e0930604e577\tcpu\ti\t-5\n";

static void call_lines(void) {
  uint64_t ts_ms = 0;
  orlith_metric_locator_t *locator = NULL;
  metric_value_t value;
  mline_fields_t fields;
  store_extension_to_ignore("ignored");
  CHECK(parse_Mline(line, &ts_ms, &locator, &value, true) == 1);
  CHECK(ts_ms == 1700000000000u && value.storage.v_int32 == -5);
  orlith_metric_locator_deref(locator);
  CHECK(mline_split(line, sizeof line - 1, true, &fields) == 1 && fields.name.len == 3);
  CHECK(mline_value(&fields, &value) == 1 && value.type == ORLITH_METRIC_INT32);
  CHECK(mline_locator(&fields, &locator) == 1);
  CHECK_TEXT(orlith_metric_locator_get_name_with_tags(locator), "cpu");
  orlith_metric_locator_deref(locator);
}

static void call_values(const metric_value_t *a, const metric_value_t *b) {
  double dy = 0;
  int dt = 0;
  CHECK(metric_to_nnt_type(ORLITH_METRIC_INT64) == NNT_TYPE_INT64);
  CHECK(metric_value_is_negative(a) == 1 && metric_value_is_negative(b) == 0);
  CHECK(metric_value_uint64(b) == 10 && metric_value_int64(a) == -5 && metric_value_double(a) == -5.0);
  calculate_change(a, b, &dy, &dt);
  CHECK(dy == 15.0 && dt == 1000);
  const metric_value_t text = {.type = ORLITH_METRIC_STRING};
  const double undefined = calculate_change_undefined(&text, a);
  CHECK(undefined != undefined);
}

static void call_bucket(const metric_value_t *a, const metric_value_t *b) {
  metric_value_t *last = NULL;
  nnt_multitype bucket;
  int drun = 0, crun = 0;
  memset(&bucket, 0, sizeof bucket);
  add_data_to_bucket(a, &last, &bucket, &drun, &crun);
  add_data_to_bucket(b, &last, &bucket, &drun, &crun);
  CHECK(bucket.count == 2 && drun == 1000 && last->storage.v_int32 == 10);
  free(last);
}

void call_rollup(void) {
  orollupd_rollup_init();
  CHECK(orollup_debug_ls == ruxo_debug && orollup_error_ls == ruxo_error);
  init_private_nan();
  CHECK(liborlith_private_nan_double != liborlith_private_nan_double);
  CHECK(liborlith_private_nan_float != liborlith_private_nan_float);
  const metric_value_t a = {.whence_ms = 1000, .type = ORLITH_METRIC_INT32, .storage = {.v_int32 = -5}};
  const metric_value_t b = {.whence_ms = 2000, .type = ORLITH_METRIC_INT32, .storage = {.v_int32 = 10}};
  call_lines();
  call_values(&a, &b);
  call_bucket(&a, &b);
}
