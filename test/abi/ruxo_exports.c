#include <fcntl.h>
#include <sched.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "ruxo/b64.h"
#include "ruxo/conf.h"
#include "ruxo/eventer.h"
#include "ruxo/hash.h"
#include "ruxo/json.h"
#include "ruxo/log.h"
#include "ruxo/lz4f.h"
#include "ruxo/memory.h"
#include "ruxo/skiplist.h"
#include "ruxo/stats.h"
#include "ruxo/util.h"
#include "ruxo/uuid.h"
#include "ruxo/zipkin.h"
#include "test/abi/abi_checks.h"

static void call_b64(void) {
  char text[8];
  char bytes[8];
  CHECK(ruxo_b64_encode_len(4) == 8);
  CHECK(ruxo_b64_encode("any", 3, text, sizeof text) == 4 && memcmp(text, "YW55", 4) == 0);
  CHECK(ruxo_b64_max_decode_len(4) >= 3);
  CHECK(ruxo_b64_decode(text, 4, bytes, sizeof bytes) == 3 && memcmp(bytes, "any", 3) == 0);
}

static void call_conf_values(const ruxo_conf_node_t *a) {
  int32_t i32 = 0;
  int64_t i64 = 0;
  uint64_t u64 = 0;
  double number = 0;
  ruxo_boolean flag = ruxo_false;
  ruxo_uuid_t uuid;
  char text[8];
  CHECK(ruxo_conf_get_int32(a, "@n", &i32) == RUXO_CONF_FOUND && i32 == 7);
  CHECK(ruxo_conf_get_int64(a, "@n", &i64) == RUXO_CONF_FOUND && i64 == 7);
  CHECK(ruxo_conf_get_uint64(a, "@n", &u64) == RUXO_CONF_FOUND && u64 == 7);
  CHECK(ruxo_conf_get_double(a, "@n", &number) == RUXO_CONF_FOUND && number == 7);
  CHECK(ruxo_conf_get_boolean(a, "@on", &flag) == RUXO_CONF_FOUND && flag);
  CHECK(ruxo_conf_get_uuid(a, "@id", uuid) == RUXO_CONF_FOUND && uuid[15] == 0x77);
  CHECK(ruxo_conf_get_text(a, "@on", text, sizeof text) == RUXO_CONF_FOUND);
  CHECK_TEXT(text, "yes");
  char *copy = ruxo_conf_get_string(a, "@none", "default");
  CHECK_TEXT(copy, "default");
  free(copy);
}

static void call_conf(void) {
  static const char file[] = "<a n='7' on='yes' id='1f846f26-0cfd-4df5-b4f1-e0930604e577'/>";
  char name[4096];
  char *err = NULL;
  abi_write_file("conf.xml", file);
  CHECK(ruxo_conf_load("conf.xml", &err) == 0 && err == NULL);
  CHECK(ruxo_conf_config_filename(name, sizeof name) && strstr(name, "/conf.xml") != NULL);
  ruxo_conf_list_t *list = ruxo_conf_list_new(NULL, "/a");
  CHECK(ruxo_conf_list_size(list) == 1);
  const ruxo_conf_node_t *a = ruxo_conf_list_at(list, 0);
  CHECK_TEXT(ruxo_conf_node_name(a), "a");
  CHECK_TEXT(ruxo_conf_node_file(a), name);
  CHECK(ruxo_conf_node_line(a) == 1);
  CHECK(ruxo_conf_load_text("<b/>", 4, "other.xml", NULL) == 0);
  call_conf_values(a);
  ruxo_conf_list_free(list);
  ruxo_conf_unload();
  CHECK(ruxo_conf_list_new(NULL, "/a") == NULL);
}

static int nothing_to_do(eventer_t e, int mask, void *closure, struct timeval *now) {
  (void)e, (void)mask, (void)closure, (void)now;
  return 0;
}

static void call_eventer(void) {
  CHECK(eventer_name_callback("abi/nothing", nothing_to_do) == 0);
  CHECK(eventer_callback_for_name("abi/nothing") == nothing_to_do);
  CHECK_TEXT(eventer_name_for_callback(nothing_to_do), "abi/nothing");
  eventer_t e = eventer_alloc();
  eventer_set_mask(e, EVENTER_READ | EVENTER_TIMER);
  CHECK(eventer_get_mask(e) == (EVENTER_READ | EVENTER_TIMER));
  eventer_free(e);
}

static void call_eventer_descriptors(void) {
  int ends[2];
  CHECK(pipe(ends) == 0);
  eventer_t e = eventer_alloc_fd(nothing_to_do, ends, ends[0], EVENTER_READ);
  CHECK(eventer_get_fd(e) == ends[0] && eventer_get_closure(e) == ends);
  eventer_set_owner(e, eventer_choose_owner(0));
  CHECK(eventer_add(e) == 0 && eventer_get_owner(e) == eventer_choose_owner(0) && !eventer_is_owner(e));
  eventer_update(e, EVENTER_READ | EVENTER_EXCEPTION);
  CHECK(eventer_remove_fd(ends[0]) == e);
  eventer_wakeup(e, EVENTER_READ);
  eventer_free(e);
  close(ends[0]);
  close(ends[1]);
}

static void call_eventer_timers(void) {
  const struct timeval when = {4000000000, 5};
  eventer_t e = eventer_alloc_timer(nothing_to_do, NULL, &when);
  CHECK(eventer_get_when(e).tv_usec == 5 && eventer_add(e) == 0);
  CHECK(eventer_remove_timer(e) == e);
  eventer_free(e);
  CHECK(eventer_add_in_s_us(nothing_to_do, NULL, 1000, 0) != NULL);
}

static void call_eventer_jobs(void) {
  eventer_jobq_t *queue = eventer_jobq_create("abi/jobs", 1);
  CHECK(eventer_jobq_by_name("abi/jobs") == queue);
  eventer_add_asynch(queue, eventer_alloc_asynch(nothing_to_do, NULL));
  while (eventer_jobq_backlog(queue) + eventer_jobq_inflight(queue) > 0) sched_yield();
  eventer_jobq_destroy(queue);
}

static void call_eventer_loops(void) {
  CHECK(eventer_start(2) == 0 && eventer_loop_count() == 2);
  call_eventer_descriptors();
  call_eventer_timers();
  call_eventer_jobs();
  eventer_stop();
}

static void add_value(const void *key, size_t key_len, void *data, void *closure) {
  (void)key, (void)key_len;
  *(int *)closure += *(int *)data;
}

static void add_one(void *data) {
  ++*(int *)data;
}

static void call_hash(void) {
  ruxo_hash_table table;
  int two = 2, five = 5, sum = 0;
  void *found = NULL;
  ruxo_hash_init(&table);
  CHECK(ruxo_hash_store(&table, "two", 3, &two) == 1);
  CHECK(ruxo_hash_store(&table, "five", 4, &two) == 1);
  CHECK(ruxo_hash_replace(&table, "five", 4, &five, NULL) == 1);
  CHECK(ruxo_hash_retrieve(&table, "five", 4, &found) == 1 && found == &five);
  CHECK(ruxo_hash_size(&table) == 2);
  ruxo_hash_each(&table, add_value, &sum);
  CHECK(sum == 7);
  CHECK(ruxo_hash_delete(&table, "two", 3, add_one) == 1 && two == 3);
  ruxo_hash_destroy(&table, add_one);
  CHECK(five == 6);
}

static void call_json_makers(void) {
  ruxo_json_object *o = ruxo_json_new_object();
  ruxo_json_object *array = ruxo_json_new_array();
  ruxo_json_array_add(array, ruxo_json_new_int(-1));
  ruxo_json_array_add(array, ruxo_json_new_uint(UINT64_MAX));
  ruxo_json_array_add(array, ruxo_json_new_double(0.5));
  ruxo_json_array_add(array, ruxo_json_new_boolean(ruxo_true));
  ruxo_json_array_add(array, ruxo_json_new_string("s"));
  ruxo_json_array_add(array, ruxo_json_new_string_len("text", 2));
  ruxo_json_object_set(o, "all", array);
  CHECK_TEXT(ruxo_json_text(o), "{\"all\":[-1,18446744073709551615,0.5,true,\"s\",\"te\"]}");
  ruxo_json_free(o);
}

static void call_json_readers(void) {
  ruxo_boolean present = ruxo_false;
  size_t len = 0;
  ruxo_json_object *o = ruxo_json_parse("{\"list\":[7,1.5,true,\"s\"]}");
  ruxo_json_object *list = ruxo_json_object_get(o, "list", &present);
  CHECK(present && ruxo_json_type(list) == RUXO_JSON_ARRAY && ruxo_json_array_length(list) == 4);
  ruxo_json_object *seven = ruxo_json_array_get(list, 0);
  CHECK(ruxo_json_is_int64(seven) && ruxo_json_is_uint64(seven));
  CHECK(ruxo_json_int(seven) == 7 && ruxo_json_uint(seven) == 7);
  CHECK(ruxo_json_double(ruxo_json_array_get(list, 1)) == 1.5);
  CHECK(ruxo_json_boolean(ruxo_json_array_get(list, 2)));
  CHECK_TEXT(ruxo_json_string(ruxo_json_array_get(list, 3), &len), "s");
  CHECK(len == 1);
  ruxo_json_free(o);
  o = ruxo_json_parse_n("[]and more", 2);
  CHECK(ruxo_json_type(o) == RUXO_JSON_ARRAY);
  ruxo_json_free(o);
  abi_write_file("value.json", "[7]");
  const int fd = open("value.json", O_RDONLY);
  o = ruxo_json_from_fd(fd, 3);
  CHECK(ruxo_json_array_length(o) == 1);
  ruxo_json_free(o);
  close(fd);
}

static double read_level(void *closure) {
  return *(double *)closure;
}

static void call_stats(void) {
  static double level = 0.5;
  size_t len = 0;
  stats_ns_t *ns = stats_ns_get(NULL, "abi");
  stats_handle_t *counter = stats_register(ns, "calls", "kind=c", STATS_TYPE_COUNTER, "calls made");
  stats_handle_t *gauge = stats_register(ns, "depth", NULL, STATS_TYPE_GAUGE, "how deep");
  stats_handle_t *latency = stats_register(ns, "took", NULL, STATS_TYPE_LATENCY, "how long");
  CHECK(stats_register_callback(ns, "level", NULL, read_level, &level, "how high") != NULL);
  stats_add(counter, 3);
  stats_set(gauge, 1.5);
  stats_observe(latency, 0.25);
  CHECK(stats_count(counter) == 3 && stats_value(gauge) == 1.5 && stats_count(latency) == 1);
  char *text = stats_prometheus_text(&len);
  CHECK(text != NULL && strlen(text) == len && strstr(text, "\nabi_calls_total{kind=\"c\"} 3\n") != NULL);
  free(text);
}

static void call_lz4f(void) {
  static char frame[128 << 10];
  void *out = NULL;
  size_t len = 0;
  CHECK(ruxo_lz4f_compress_bound(4) <= sizeof frame);
  const size_t frame_len = ruxo_lz4f_compress("text", 4, frame, sizeof frame);
  CHECK(frame_len > 4);
  CHECK(ruxo_lz4f_decompress(frame, frame_len, 4, &out, &len) == RUXO_LZ4F_OK && len == 4);
  CHECK(memcmp(out, "text", 4) == 0);
  free(out);
  ruxo_lz4f_stream_t *stream = ruxo_lz4f_stream_alloc(4);
  CHECK(ruxo_lz4f_stream_write(stream, frame, frame_len) == RUXO_LZ4F_OK &&
        ruxo_lz4f_stream_complete(stream));
  CHECK(ruxo_lz4f_stream_finish(stream, &out, &len) == RUXO_LZ4F_OK && memcmp(out, "text", len) == 0);
  free(out);
  ruxo_lz4f_stream_free(stream);
  CHECK_TEXT(ruxo_lz4f_status_text(RUXO_LZ4F_MAGIC), "not an LZ4 frame");
}

static void call_memory(void) {
  ruxo_memory_begin();
  CHECK(ruxo_memory_in_cs());
  ruxo_memory_end();
  CHECK(!ruxo_memory_in_cs());
  void *bytes = ruxo_memory_safe_malloc(8);
  const char *zeros = ruxo_memory_safe_calloc(2, 4);
  char *text = ruxo_memory_safe_strdup("text");
  CHECK(bytes != NULL && zeros != NULL && zeros[7] == 0);
  CHECK_TEXT(text, "text");
  ruxo_memory_safe_free(bytes);
  ruxo_memory_safe_free((void *)(uintptr_t)zeros);
  ruxo_memory_safe_free(text);
  ruxo_memory_synchronize();
}

static int compare_ints(const void *a, const void *b) {
  const int left = *(const int *)a, right = *(const int *)b;
  return (left > right) - (left < right);
}

static void call_skiplist(void) {
  int numbers[] = {10, 20, 30, 40};
  void *sorted[] = {&numbers[0], &numbers[1], &numbers[2]};
  const int key = 25;
  ruxo_skiplist_node node, prev, next;
  ruxo_skiplist *list = ruxo_skiplist_alloc(compare_ints, compare_ints);
  CHECK(ruxo_skiplist_build_strided(list, numbers, sizeof numbers[0], 4) == 0);
  CHECK(ruxo_skiplist_size(list) == 4);
  CHECK(ruxo_skiplist_build(list, sorted, 3) == 0 && ruxo_skiplist_size(list) == 3);
  CHECK(ruxo_skiplist_data(ruxo_skiplist_insert(list, &numbers[3])) == &numbers[3]);
  CHECK(ruxo_skiplist_find(list, &numbers[1], &node) == &numbers[1]);
  CHECK(ruxo_skiplist_data(ruxo_skiplist_next(list, node)) == &numbers[2]);
  CHECK(ruxo_skiplist_previous(list, node) == ruxo_skiplist_first(list));
  CHECK(ruxo_skiplist_find_neighbors(list, &key, &node, &prev, &next) == NULL);
  CHECK(ruxo_skiplist_data(prev) == &numbers[1] && ruxo_skiplist_data(next) == &numbers[2]);
  CHECK(ruxo_skiplist_remove(list, &numbers[0], add_one) == 1 && numbers[0] == 11);
  ruxo_skiplist_destroy(list, add_one);
  CHECK(numbers[3] == 41);
}

static void call_util_and_uuid(void) {
  static const char haystack[] = "some text";
  struct stat status;
  CHECK(ruxo_memmem(haystack, 9, "te", 2) == haystack + 5);
  CHECK(mkdir_for_file("one/two/file", 0700) == 0 && stat("one/two", &status) == 0);
  CHECK(ruxo_now_ms() > 1600000000000u);
  CHECK(ruxo_task_id() != 0);

  static const char text[] = "1f846f26-0cfd-4df5-b4f1-e0930604e577";
  ruxo_uuid_t id, same, other;
  char again[RUXO_UUID_STRING_SIZE];
  CHECK(ruxo_uuid_parse(text, id) == 0 && id[0] == 0x1f);
  CHECK(ruxo_uuid_parse_n(text, 36, same) == 0 && ruxo_uuid_compare(id, same) == 0);
  ruxo_uuid_unparse_lower(id, again);
  CHECK_TEXT(again, text);
  ruxo_uuid_generate(other);
  CHECK(ruxo_uuid_compare(id, other) != 0);
}

void call_ruxo_data(void) {
  call_b64();
  call_conf();
  call_eventer();
  call_eventer_loops();
  call_hash();
  call_json_makers();
  call_json_readers();
  call_lz4f();
  call_memory();
  call_skiplist();
  call_stats();
  call_util_and_uuid();
}

static void write_with_list(ruxo_log_stream_t ls, const char *format, ...) RUXO_PRINTF(2, 3);
static void write_with_list(ruxo_log_stream_t ls, const char *format, ...) {
  va_list args;
  va_start(args, format);
  ruxo_log_vwrite(ls, __FILE__, __LINE__, format, args);
  va_end(args);
}

static void call_streams(ruxo_log_stream_t ls, ruxo_log_outlet_t memory) {
  CHECK(ruxo_log_stream_exists("abi/log") && ruxo_log_stream_find("abi/log") == ls);
  CHECK_TEXT(ruxo_log_stream_name(ls), "abi/log");
  CHECK(ruxo_log_stream_add_outlet(ls, memory));
  ruxo_log_stream_disable(ls);
  CHECK(!ruxo_log_stream_is_live(ls));
  ruxo_log_stream_enable(ls);
  CHECK(ruxo_log_has_material_output(ls) && ruxo_log_stream_is_live(ls));
  ruxo_log_write(ls, __FILE__, __LINE__, "one %d\n", 1);
  write_with_list(ls, "two %d\n", 2);
  ruxo_log(ls, "three\n");
  ruxo_log_flush();
  CHECK(ruxo_log_outlet_memory_count(memory) == 3);
  CHECK_TEXT(ruxo_log_outlet_memory_line(memory, 1), "two 2\n");
  ruxo_log_outlet_memory_clear(memory);
  CHECK(ruxo_log_outlet_memory_count(memory) == 0);
}

static void call_span(ruxo_log_stream_t ls) {
  ruxo_zipkin_span *span = ruxo_zipkin_span_new("work");
  CHECK_TEXT(ruxo_zipkin_span_name(span), "work");
  CHECK(ruxo_zipkin_span_trace_id(span) != 0);
  ruxo_zipkin_span_attach_logs(span, ruxo_true);
  CHECK(ruxo_zipkin_span_logs_attached(span));
  CHECK(ruxo_zipkin_set_active_span(span) == NULL && ruxo_zipkin_active_span() == span);
  CHECK(__atomic_load_n(&ruxo_log_overrides, __ATOMIC_RELAXED) != 0 &&
        ruxo_log_stream_is_live_overridden(ls));
  ruxo_log(ls, "under the span\n");
  CHECK(ruxo_zipkin_span_annotation_count(span) == 1);
  CHECK(ruxo_zipkin_span_annotation(span, 0) != NULL);
  CHECK(ruxo_zipkin_set_active_span(NULL) == span);
  ruxo_zipkin_span_free(span);
}

/* Nothing listens at the collector's URL: what is reported is dropped. */
static void call_tracing(void) {
  char header[64];
  uint64_t sent = 1, dropped = 0;
  CHECK(ruxo_zipkin_client_start("off") == NULL);
  CHECK(ruxo_zipkin_report_to("http://127.0.0.1:1/", "abi", 1.0));
  ruxo_zipkin_span *server =
      ruxo_zipkin_server_start("GET", "00000000000000ff", NULL, "00000000000000fe", "1");
  CHECK(ruxo_zipkin_span_trace_id(server) == 0xff);
  ruxo_zipkin_set_active_span(server);
  ruxo_zipkin_span *client = ruxo_zipkin_client_start("request");
  CHECK(client != NULL && ruxo_zipkin_client_span() == client);
  CHECK_TEXT(ruxo_zipkin_client_trace_header(header, sizeof header), "X-B3-TraceId: 00000000000000ff");
  CHECK_TEXT(ruxo_zipkin_client_parent_header(header, sizeof header), "X-B3-ParentSpanId: 00000000000000fe");
  CHECK(ruxo_zipkin_client_span_header(header, sizeof header) == header);
  CHECK_TEXT(ruxo_zipkin_client_sampled_header(header, sizeof header), "X-B3-Sampled: 1");
  ruxo_zipkin_span_annotate(client, ZIPKIN_CLIENT_SEND);
  ruxo_zipkin_span_bannotate_i32(client, "http.status_code", 200);
  ruxo_zipkin_span_bannotate_str(client, "http.uri", "http://peer/");
  ruxo_zipkin_client_publish();
  ruxo_zipkin_span_publish(server);
  CHECK(ruxo_zipkin_active_span() == NULL && ruxo_zipkin_flush(60000));
  ruxo_zipkin_reporter_counts(&sent, &dropped);
  CHECK(sent == 0 && dropped == 2);
  CHECK(ruxo_zipkin_report_to(NULL, NULL, 0));
}

void call_ruxo_log(void) {
  ruxo_log_stream_t ls = ruxo_log_stream_new("abi/log");
  CHECK(ruxo_error != NULL && ruxo_notice != NULL && ruxo_debug != NULL && ls != NULL);
  CHECK(ruxo_log_outlet_stderr(ruxo_false) != NULL);
  call_streams(ls, ruxo_log_outlet_memory());
  call_span(ls);
  call_tracing();
  ruxo_log_stream_remove_outlets(ls);
  CHECK(!ruxo_log_has_material_output(ls));

  ruxo_log_outlet_t file = ruxo_log_outlet_file("abi.log", ruxo_false);
  CHECK(file != NULL && ruxo_log_stream_add_outlet(ls, file) && ruxo_log_outlet_reopen(file));
  struct stat status;
  ruxo_log_go_synch();
  ruxo_log(ls, "to the file\n");
  CHECK(stat("abi.log", &status) == 0 && status.st_size > 0);
  ruxo_log_go_asynch();
  ruxo_log_set_global_enabled(ruxo_true);
  CHECK(ruxo_log_global_enabled());
  ruxo_log_set_global_enabled(ruxo_false);
  ruxo_log_stream_remove_outlets(ls);
}
