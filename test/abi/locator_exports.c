#include "liborlith/util/metric_locator.h"
#include "liborlith/util/oil.h"
#include "ruxo/memory.h"
#include "ruxo/uuid.h"
#include "test/abi/abi_checks.h"

static const char uuid_text[] = "1f846f26-0cfd-4df5-b4f1-e0930604e577";
static const char full_name[] = "cpu|ST[a:1,b:2]";

static orlith_metric_locator_t *make_locator(void) {
  ruxo_uuid_t uuid;
  mem_reader_t name;
  CHECK(ruxo_uuid_parse(uuid_text, uuid) == 0);
  mem_reader_init_mem(&name, "cpu|ST[b:2,a:1]", 15);
  return orlith_metric_locator_create_full(7, METRIC_TYPE_NUMERIC, uuid, &name);
}

static void call_accessors(orlith_metric_locator_t *loc) {
  uint8_t uuid[16];
  orlith_metric_locator_get_check_uuid(loc, uuid);
  CHECK(uuid[0] == 0x1f && uuid[15] == 0x77);
  CHECK(orlith_metric_locator_get_hash(loc) != NULL);
  CHECK(orlith_metric_locator_get_stream_tags(loc)->tag_count == 2);
  CHECK_TEXT(orlith_metric_locator_get_name_with_tags(loc), full_name);
  CHECK(orlith_metric_locator_get_name_len_with_tags(loc) == 15);
  CHECK(orlith_metric_locator_get_name_without_tags(loc) == orlith_metric_locator_get_name_with_tags(loc));
  CHECK(orlith_metric_locator_get_name_len_without_tags(loc) == 3);
  CHECK(orlith_metric_locator_get_name_buf_with_tags(loc).input_buffer_size == 15);
  CHECK(orlith_metric_locator_get_name_buf_without_tags(loc).input_buffer_size == 3);
}

static void call_setters(orlith_metric_locator_t *loc) {
  orlith_metric_locator_set_accountid(loc, 9);
  CHECK(orlith_metric_locator_get_account_id(loc) == 9);
  orlith_metric_locator_set_type(loc, METRIC_TYPE_TEXT);
  CHECK(orlith_metric_locator_get_type(loc) == METRIC_TYPE_TEXT);
  orlith_metric_locator_set_egress_function(loc, 3);
  CHECK(orlith_metric_locator_get_egress_function(loc) == 3);
  orlith_metric_locator_set_surrogate_id(loc, 11);
  CHECK(orlith_metric_locator_get_surrogate_id(loc) == 11);
  CHECK(!orlith_metric_locator_is_canonical(loc));
  orlith_metric_locator_mark_canonical(loc);
  CHECK(orlith_metric_locator_is_canonical(loc));
}

static void call_texts(orlith_metric_locator_t *loc) {
  char key[ORLITH_METRIC_LOCATOR_MAX_KEY_SIZE];
  char uuid[ORLITH_METRIC_LOCATOR_UUID_TEXT_SIZE];
  char type[64];
  char path[128];
  mem_reader_t out;
  CHECK_TEXT(orlith_metric_locator_get_key(loc, key, sizeof key),
             "1f846f26-0cfd-4df5-b4f1-e0930604e577-cpu|ST[a:1,b:2]");
  mem_reader_init_mem(&out, uuid, sizeof uuid);
  orlith_metric_locator_get_check_uuid_str_buf(loc, &out);
  CHECK(out.input_buffer_size == 36);
  CHECK_TEXT(uuid, uuid_text);
  CHECK_TEXT(orlith_metric_locator_get_type_str(loc, type, sizeof type), "text");

  CHECK(orlith_metric_locator_b64_path(loc, path, sizeof path) == 37);
  orlith_metric_locator_t *same = orlith_metric_locator_from_b64_path(path, path + 37);
  CHECK(orlith_metric_locator_equal(loc, same));
  orlith_metric_locator_deref(same);

  ruxo_json_object *json = orlith_metric_locator_to_json(loc);
  same = orlith_metric_locator_from_json(json);
  CHECK(orlith_metric_locator_matches(loc, same) && orlith_metric_locator_uuid_cmp(loc, same) == 0);
  orlith_metric_locator_deref(same);
  ruxo_json_free(json);
}

static int released = 0;

static void count_release(orlith_metric_locator_immutable_data_t *immutable) {
  ++released;
  orlith_metric_locator_immutable_data_release(immutable);
}

static void call_shared_parts(void) {
  static const uint8_t hash[32] = {1}, uuid[16] = {2};
  orlith_metric_locator_immutable_data_t parts = {{NULL, 0, 0}, 0, 3, 3, count_release, "cpu", hash, uuid};
  orlith_metric_locator_t *loc = orlith_metric_locator_create_from_parts(&parts, 5, METRIC_TYPE_ANY);
  CHECK(orlith_metric_locator_get_hash(loc) == hash);
  orlith_metric_locator_deref(loc);
  CHECK(released == 1);
}

static void call_activity(orlith_metric_locator_t *loc) {
  CHECK(orlith_metric_locator_record_activity(loc, 600) == 1);
  CHECK(orlith_metric_locator_was_active(loc, 600, 601) == 1);
  CHECK(!orlith_metric_locator_is_active(loc));
  orlith_metric_locator_set_global_active_before(500);
  CHECK(orlith_metric_locator_was_active(loc, 1, 2) == 1);
  orlith_metric_locator_set_global_active_before(0);

  orlith_metric_locator_oil_shared_lock(loc);
  CHECK(oil_find(orlith_metric_locator_get_activity(loc), 2, NULL) == 1);
  orlith_metric_locator_oil_shared_unlock(loc);
  oil_list_t *copy = orlith_metric_locator_get_activity_clone(loc);
  CHECK(oil_size(copy) == 1);
  orlith_metric_locator_set_activity(loc, NULL);
  CHECK(orlith_metric_locator_merge_oil(loc, copy) == 1);
  oil_free(copy);
  orlith_metric_locator_oil_dump(loc);

  ruxo_json_object *json = ruxo_json_parse("[[0, 600]]");
  CHECK(orlith_metric_locator_set_activity_from_json(loc, json) == 1);
  ruxo_json_free(json);
  orlith_metric_locator_oil_lock(loc);
  CHECK(oil_find(orlith_metric_locator_get_activity(loc), 1, NULL) == 1);
  orlith_metric_locator_oil_unlock(loc);
  orlith_metric_locator_set_activity(loc, NULL);
}

static void call_last_values(orlith_metric_locator_t *loc) {
  orlith_metric_locator_numeric_value_t value[2] = {{0}, {0}};
  uint64_t whence_ms[2] = {0, 0};
  uint8_t type[2] = {0, 0};
  const char *text = NULL;
  orlith_metric_locator_set_type(loc, METRIC_TYPE_ANY);
  CHECK(orlith_metric_locator_last_missing(loc) == 7);
  value[0].v_int32 = 5;
  orlith_metric_locator_set_global_future_bound(1000);
  orlith_metric_locator_update_numeric(loc, 10, 'i', value, ruxo_true);
  orlith_metric_locator_update_numeric(loc, 1001, 'i', value, ruxo_true);
  CHECK(orlith_metric_locator_last2_numeric(loc, whence_ms, type, value) == 1);
  CHECK(whence_ms[1] == 10 && type[1] == 'i' && value[1].v_int32 == 5);
  CHECK(orlith_metric_locator_compare_last2_numeric(loc, loc) == 0);

  ruxo_memory_begin();
  orlith_metric_locator_update_text(loc, 11, "up", ruxo_true);
  CHECK(orlith_metric_locator_last_text(loc, whence_ms, &text) == 1 && whence_ms[0] == 11);
  CHECK_TEXT(text, "up");
  orlith_metric_locator_set_global_implicit_latest(ruxo_true);
  orlith_metric_locator_update_hist(loc, 12, "AAA=", ruxo_false);
  orlith_metric_locator_set_global_implicit_latest(ruxo_false);
  orlith_metric_locator_update_hist_withstream(loc, 13, "AAEA", ruxo_false, NULL);
  CHECK(orlith_metric_locator_last_hist_b64(loc, whence_ms, &text) == 1 && whence_ms[0] == 13);
  CHECK_TEXT(text, "AAEA");
  ruxo_memory_end();
  histogram_t *hist = hist_alloc(), *last = NULL;
  char b64[64];
  CHECK(hist_insert(hist, 1.5, 3) == 0 && hist_serialize_b64(hist, b64, sizeof b64) > 0);
  orlith_metric_locator_update_hist(loc, 14, b64, ruxo_false);
  CHECK(orlith_metric_locator_last_hist(loc, whence_ms, &last) == 1 && whence_ms[0] == 14);
  CHECK(hist_sample_count(last) == 3);
  hist_free(last);
  hist_free(hist);
  CHECK(orlith_metric_locator_last_missing(loc) == 0);
}

void call_metric_locator(void) {
  orlith_metric_locator_lib_init();
  CHECK(ml_debug_ls == ruxo_debug && ml_error_ls == ruxo_error);
  orlith_metric_locator_t *loc = make_locator();
  CHECK(orlith_metric_locator_ref(loc) == loc);
  orlith_metric_locator_deref(loc);
  call_accessors(loc);
  call_setters(loc);
  call_texts(loc);
  call_activity(loc);
  call_last_values(loc);

  oil_list_t *activity = oil_alloc();
  oil_put(activity, 1, 2);
  CHECK(oil_merge_inplace(loc, activity) == 1 && oil_merge_inplace(loc, activity) == 0);
  oil_free(activity);

  orlith_metric_locator_t *clone = orlith_metric_locator_clone(loc);
  orlith_metric_locator_t *bare = orlith_metric_locator_clone_without_activity_data(loc);
  CHECK(orlith_metric_locator_equal(clone, bare) && orlith_metric_locator_get_account_id(bare) == 9);
  orlith_metric_locator_deref(clone);
  orlith_metric_locator_deref(bare);
  orlith_metric_locator_t *nameless =
      orlith_metric_locator_create((const uint8_t *)"0123456789abcdef", NULL, 0);
  CHECK(orlith_metric_locator_get_name_len_with_tags(nameless) == 0);
  orlith_metric_locator_deref(nameless);
  orlith_metric_locator_deref(loc);
  call_shared_parts();
}
