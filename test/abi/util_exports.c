#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>

#include "liborlith/fs_helpers/fs_helpers.h"
#include "liborlith/liborlith_init.h"
#include "liborlith/util/cfssz.h"
#include "liborlith/util/go_asynch.h"
#include "liborlith/util/http_header_parse.h"
#include "liborlith/util/join.h"
#include "liborlith/util/liborlith_hooks.h"
#include "liborlith/util/metric_name.h"
#include "liborlith/util/oil.h"
#include "liborlith/util/strdup_reader.h"
#include "liborlith/util/vask_move.h"
#include "liborlith/util/vask_proxy_buffer.h"
#include "test/abi/abi_checks.h"

void call_init(void) {
  /* Some modules one by one, then all: the second start of a module changes nothing. */
  topo_init_globals();
  vask_move_init();
  CHECK(vask_move_debug_ls == ruxo_debug && vask_move_error_ls == ruxo_error);
  vask_proxy_buffer_lib_init();
  CHECK(vask_proxy_buffer_debug_ls == ruxo_debug && vask_proxy_buffer_error_ls == ruxo_error);
  orlith_go_asynch_lib_init();
  CHECK(go_asynch_debug_ls == ruxo_debug && go_asynch_error_ls == ruxo_error);
  liborlith_join_init();
  CHECK(join_debug_ls == ruxo_debug && join_error_ls == ruxo_error);
  orlith_metric_name_lib_init();
  CHECK(mn_debug_ls == ruxo_debug && mn_error_ls == ruxo_error);
  oil_lib_init();
  CHECK(oil_debug_ls == ruxo_debug && oil_error_ls == ruxo_error);
  oil_debug_ls = NULL;
  liborlith_init();
  CHECK(oil_debug_ls == NULL);
  CHECK(liborlith_init_log("abi/none", ruxo_error) == ruxo_error);
  CHECK(eventer_callback_for_name("vask_move_vask_asynch_move") == vask_asynch_move);
}

static void call_mem_reader(void) {
  static const char text[] = "key=one,two";
  mem_reader_t whole, cursor, before;
  mem_reader_init_mem(&whole, text, 11);
  CHECK(mem_reader_get_buffer_size(&whole) == 11 && mem_reader_get_buffer(&whole) == (const uint8_t *)text);
  CHECK(mem_reader_advance_if_match(&whole, "key", 3, &cursor));
  CHECK(mem_reader_try_advance(&cursor, 1, &cursor) == 1);
  CHECK(mem_reader_find_pos_after_sep(&cursor, ',', &cursor) == 4);
  CHECK(mem_reader_find_pos_after_sep_from_end(&whole, '=', &before) == 4);
  mem_reader_truncate_to(&whole, &before, 1, &before);
  CHECK(before.input_buffer_size == 3);
  CHECK(!mem_reader_try_truncate(&cursor, 4, &cursor));
  mem_reader_init_empty(&cursor);
  CHECK(cursor.input_buffer == NULL);
}

/* The readers are inline in the header. A host that looks them up, or does not inline, uses the library's. */
static void call_mem_reader_symbols(void) {
  size_t (*volatile find)(const mem_reader_t *, char, mem_reader_t *) = mem_reader_find_pos_after_sep;
  mem_reader_t view;
  mem_reader_init_mem(&view, "a|b", 3);
  CHECK(find(&view, '|', &view) == 2 && view.input_buffer_size == 1);
}

static void call_buffers(void) {
  strdup_reader_t owner;
  rw_buffer_t region;
  mem_reader_t whole, value;
  strdup_reader_init(&owner);
  CHECK(strdup_reader_try_fill(&owner, "key=value"));
  rw_buffer_t *buffer = strdup_reader_get_buffer(&owner);
  rw_buffer_get_reader(buffer, &whole);
  CHECK(mem_reader_find_pos_after_sep(&whole, '=', &value) == 4);
  CHECK(rw_buffer_write_preceding_byte(buffer, &value, '\0'));
  CHECK_TEXT((const char *)rw_buffer_get_buffer(buffer, &whole), "key");
  strdup_reader_cleanup(&owner);
  CHECK(owner.to_free.mem.input_buffer == NULL);

  char bytes[] = "bytes";
  rw_buffer_fill(&region, bytes, 5);
  CHECK(region.mem.input_buffer_size == 5);
  rw_buffer_init(&region);
  CHECK(region.mem.input_buffer_size == 0);
}

void call_readers(void) {
  call_mem_reader();
  call_mem_reader_symbols();
  call_buffers();
}

static ruxo_hook_return_t refuse_account(void *closure, const char *id, const char *name, int name_len,
                                         int account_id) {
  (void)id, (void)name, (void)name_len;
  return account_id == *(int *)closure ? RUXO_HOOK_ABORT : RUXO_HOOK_DONE;
}

void call_hooks(void) {
  static int refused_account = 13;
  CHECK(!metric_filter_hook_exists() && nh_metric_filter_list == NULL);
  metric_filter_hook_register("abi", refuse_account, &refused_account);
  CHECK(metric_filter_hook_exists() && nh_metric_filter_list->closure == &refused_account);
  CHECK(metric_filter_hook_invoke("id", "name", 4, 13) == RUXO_HOOK_ABORT);
  CHECK(metric_filter_hook_invoke("id", "name", 4, 14) == RUXO_HOOK_DONE);
  CHECK_TEXT(metric_filter_hook_proto(),
             "(void *closure, const char *id, const char *name, int name_len, int account_id)");
}

void call_metric_name(void) {
  mem_reader_t name, plain, type, value;
  pobe_metric_tagset_t tags;
  mem_reader_init_mem(&name, "cpu|ST[a:1]", 11);
  CHECK(metric_name_parse_next_metadata(&name, &plain, &type, &value) == METRIC_NAME_METADATA_STREAM_TAGS);
  CHECK(plain.input_buffer_size == 3 && type.input_buffer_size == 2 && value.input_buffer_size == 3);
  CHECK(metric_name_v1_parse(&name, &plain, &tags) && plain.input_buffer_size == 3 && tags.tag_count == 1);
  pobe_metric_tagset_cleanup(&tags);
}

static void count_interval(void *closure, uint32_t index, uint32_t size, uint32_t first, uint32_t last) {
  (void)index, (void)size;
  *(uint32_t *)closure += last - first + 1;
}

static void call_oil_queries(oil_list_t *oil) {
  int index = 0;
  uint32_t epoch = 0, apocalypse = 0, times = 0;
  char text[64];
  CHECK(oil_size(oil) == 2 && oil_capacity(oil) == 2);
  CHECK(oil_epoch_apoc(oil, &epoch, &apocalypse) == 1 && epoch == 100 && apocalypse == 1010);
  CHECK(oil_find(oil, 1005, &index) == 1 && index == 1);
  CHECK(oil_range_contains(oil, 150, 160, &index) == 1 && index == 0);
  CHECK(oil_valid(oil) == 1);
  oil_iter(oil, count_interval, &times);
  CHECK(times == 112);
  CHECK(oil_print(oil, text, sizeof text) == 23);
  CHECK_TEXT(text, "[(100,200),(1000,1010)]");
}

void call_oil(void) {
  oil_list_t *oil = oil_alloc();
  oil_list_t *roomy = oil_alloc_cap(5);
  CHECK(oil_capacity(roomy) == 5);
  CHECK(oil_put(oil, 100, 200) == 1 && oil_put(oil, 1000, 1010) == 1);
  call_oil_queries(oil);
  oil_list_t *copy = oil_clone(oil);
  CHECK(oil_exact_match(oil, copy) == 1 && oil_exact_match(oil, roomy) == 0);

  /* Text for people: an empty list on standard error and, piece by piece, on a stream. */
  ruxo_log_outlet_t memory = ruxo_log_outlet_memory();
  oil_debug_ls = ruxo_log_stream_new("abi/oil");
  CHECK(ruxo_log_stream_add_outlet(oil_debug_ls, memory));
  ruxo_log_stream_enable(oil_debug_ls);
  oil_dump(oil);
  CHECK_TEXT(ruxo_log_outlet_memory_line(memory, 1), "(100,200)");
  oil_debug(roomy);
  ruxo_log_stream_remove_outlets(oil_debug_ls);
  oil_free(copy);
  oil_free(roomy);
  oil_free(oil);
}

static void add_one(void *closure) {
  ++*(int *)closure;
}

static void store_one(void *closure) {
  __atomic_store_n((int *)closure, 1, __ATOMIC_RELEASE);
}

void call_join(void) {
  int completed = 0;
  liborlith_join_t *parent = liborlith_join_create(NULL, add_one, &completed);
  liborlith_join_t *child = liborlith_join_create(parent, add_one, &completed);
  liborlith_join_wait_more(child, 1);
  CHECK(!liborlith_join_commit(parent));
  CHECK(!liborlith_join_commit(child) && completed == 0);
  CHECK(liborlith_join_one(child) && completed == 2);
  int later = 0;
  CHECK(eventer_start(1) == 0);
  liborlith_join_commit_nextcycle(liborlith_join_create(NULL, store_one, &later));
  while (__atomic_load_n(&later, __ATOMIC_ACQUIRE) == 0) sched_yield();
  eventer_stop();
}

static int count_phase(eventer_t e, int mask, void *closure, struct timeval *now) {
  (void)e, (void)now;
  if (mask == EVENTER_ASYNCH_WORK || mask == EVENTER_ASYNCH_COMPLETE) ++*(int *)closure;
  return 0;
}

void call_go_asynch(void) {
  int phases = 0;
  eventer_jobq_t *queue = eventer_jobq_create("abi/go_asynch", 1);
  CHECK(orlith_go_asynch(queue, count_phase, &phases) == 0);
  CHECK(orlith_http_go_asynch(queue, count_phase, &phases, NULL) == 0);
  while (eventer_jobq_backlog(queue) > 0) sched_yield(); /* what it has not begun would be cancelled */
  eventer_jobq_destroy(queue);
  CHECK(phases == 4);
}

void call_vask_move(void) {
  struct stat status;
  struct timeval now = {0, 0};
  abi_write_file("source", "text");
  CHECK(vask_synch_copy("source", "copied/here") == 0 && stat("copied/here", &status) == 0);
  CHECK(vask_synch_move("source", "moved") == 0 && stat("source", &status) != 0);

  eventer_t job = eventer_alloc();
  vask_move_request_t *request = malloc(sizeof *request);
  if (request == NULL) abort();
  request->src = abi_copy("moved");
  request->dest = abi_copy("moved again");
  CHECK(vask_asynch_move(job, EVENTER_ASYNCH_WORK, request, &now) == 0 && stat("moved again", &status) == 0);
  CHECK(vask_asynch_unlink(job, EVENTER_ASYNCH_WORK, abi_copy("moved again"), &now) == 0);
  CHECK(stat("moved again", &status) != 0);
  eventer_free(job);
}

static void see_header(char *key, char *value, void *closure) {
  CHECK(strcmp(key, "content-type") == 0 && strcmp(value, "text/plain") == 0);
  ++*(int *)closure;
}

void call_http_header_parse(void) {
  char line[] = "Content-Type: text/plain\r\n";
  int seen = 0;
  http_header_parse_ctx_t *ctx = malloc(sizeof *ctx);
  if (ctx == NULL) abort();
  http_header_parse_ctx_init(ctx, see_header, &seen);
  http_header_parse_ctx_reset(ctx);
  CHECK(http_header_parse(line, 1, sizeof line - 1, ctx) == sizeof line - 1 && seen == 1);
  free(ctx);
}

void call_fs_helpers(void) {
  uint64_t fsid = 0, total = 0, avail = 0;
  double ratio = 0;
  CHECK(fs_get_avail(".", &fsid, &total, &avail, &ratio) == 0.0 && total > 0 && avail <= total &&
        ratio >= 1.0);
  zfsinfo_dlopen(".", &total, &avail, &ratio);
  CHECK(total > 0);
}

struct abi_sample {
  int64_t at;
  double load;
};

void call_cfssz(void) {
  const cfssz_field at = {offsetof(struct abi_sample, at), 0, 0, CFSSZ_INT64, CFSSZ_DELTADELTA_VARBIT};
  const cfssz_field load = {offsetof(struct abi_sample, load), 0, 0, CFSSZ_DOUBLE, CFSSZ_XOR_VARBIT};
  const cfssz_field *fields[] = {&at, &load, NULL};
  unsigned char stream[100];
  struct abi_sample sample = {1700000000, 0.5}, read = {0, 0};
  cfssz_definition *def = cfssz_compile_definition(0x5a01, fields);
  CHECK(def != NULL && def->nfields == 2 && def->len == 16 && def->fields[1].internal_offset == 8);
  cfssz_state *enc = cfssz_enc_state_alloc(def);
  CHECK(cfssz_enc_state_add(enc, stream, 10, &sample) == CFSSZ_HEADER_BYTES + 18);
  CHECK(cfssz_enc_state_add(enc, stream, sizeof stream, &sample) == 0);
  const size_t len = cfssz_enc_state_finalize(enc, stream, sizeof stream);
  CHECK(len > CFSSZ_HEADER_BYTES && stream[0] == 0x5a && stream[5] == 1);
  cfssz_state *dec = cfssz_dec_state_alloc(def, stream, len);
  CHECK(dec != NULL && dec->nelem == 1);
  CHECK(cfssz_dec_state_next(dec, stream, len, &read) > 0 && read.at == 1700000000 && read.load == 0.5);
  CHECK(cfssz_dec_state_next(dec, stream, len, &read) == 0);
  free(dec);
  free(enc);
  free(def);
}
