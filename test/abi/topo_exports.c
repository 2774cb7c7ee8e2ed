#include "liborlith/topo/topo.h"

#include <fcntl.h>
#include <libxml/parser.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "liborlith/util/metric_locator.h"
#include "ruxo/conf.h"
#include "test/abi/abi_checks.h"

#define NODE(last_digit, port)                                \
  "<node id=\"7a0a2f4e-52a1-4f0b-9a3c-00000000000" last_digit \
  "\" weight=\"4\" address=\"127.0.0.1\" port=\"" port "\" apiport=\"9\"/>"

static const char two_of_three[] =
    "<nodes write_copies=\"2\">" NODE("1", "1") NODE("2", "2") NODE("3", "3") "</nodes>";
static const char two_of_two[] = "<nodes write_copies=\"2\">" NODE("1", "1") NODE("2", "2") "</nodes>";

static void call_hash(void) {
  static const char empty_hex[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
  uint8_t hash[TOPO_HASH_SIZE], again[TOPO_HASH_SIZE];
  char hex[TOPO_HASH_HEX_SIZE];
  topo_hash_ctx_t ctx;
  topo_hash(NULL, 0, hash);
  topo_hash_to_hex(hash, hex);
  CHECK_TEXT(hex, empty_hex);
  topo_hash("text", 4, hash);
  topo_hash_ctx_init(&ctx);
  topo_hash_ctx_update(&ctx, "te", 2);
  topo_hash_ctx_update(&ctx, "xt", 2);
  topo_hash_ctx_final(again, &ctx);
  CHECK(memcmp(hash, again, sizeof hash) == 0);
}

static topo_config *compile(const char *text) {
  char *err = NULL;
  struct _xmlDoc *doc = topo_parse_document(text, strlen(text), &err);
  CHECK(doc != NULL && err == NULL);
  topo_config *tc = topo_compile(doc, NULL, &err);
  CHECK(tc != NULL && err == NULL);
  if (tc == NULL) abort();
  xmlFreeDoc(doc);
  return tc;
}

static void call_documents(topo_config *tc) {
  char *err = NULL;
  uint8_t signature[TOPO_HASH_SIZE];
  abi_write_file("topology.xml", two_of_three);
  struct _xmlDoc *doc = topo_parse_document_file("topology.xml", &err);
  CHECK(doc != NULL);
  xmlFreeDoc(doc);
  topo_free(compile(two_of_two));

  const char *hex = topo_signature(tc, signature);
  CHECK_TEXT(hex, tc->hex_signature);
  CHECK(topo_retrieve(signature) == NULL);
  topo_retain(tc);
  CHECK(topo_retrieve(signature) == tc && topo_retrieve_hex(hex) == tc);
}

static void call_placement(topo_config *tc, orlith_metric_locator_t *locator) {
  host_config *fast[TOPO_MAX_COPIES], *slow[TOPO_MAX_COPIES], *h1 = NULL, *h2 = NULL;
  const uint8_t *hash = orlith_metric_locator_get_hash(locator);
  CHECK(_topo_find_insertion_point_config(tc, hash, fast, 0) == 2);
  CHECK(_topo_find_insertion_point_config_slow(tc, hash, slow, 0) == 2 && fast[0] == slow[0]);
  CHECK(topo_find_insertion_point_config(tc, "key", 3, fast, 1) == 1);
  CHECK(topo_find_insertion_point_config_slow(tc, "key", 3, slow, 1) == 1 && fast[0] == slow[0]);
  CHECK(topo_find_insertion_point_config_locator(tc, locator, fast, 0) == 2);
  CHECK(topo_find_insertion_point_config_locator_slow(tc, locator, slow, 0) == 2 && fast[1] == slow[1]);
  CHECK(topo_find_two(tc, tc->hc[0].id, (char[]){"cpu"}, &h1, &h2) == 2 && h1 != h2);
  CHECK(topo_is_local_to_topology(locator, tc, fast[0]->id, slow));
}

static void call_placement_on_active(topo_config *tc, orlith_metric_locator_t *locator) {
  host_config *owners[TOPO_MAX_COPIES];
  const char *id = tc->hc[0].id_str;
  CHECK(topo_find_insertion_point("key", 3, owners, 0) == 2);
  CHECK(topo_find_insertion_point_uuidstr_name(id, "cpu", owners, 0) == 2);
  CHECK(topo_find_insertion_point_name(tc->hc[0].id, "cpu", owners, 0) == 2);
  bool mine = false;
  for (int i = 0; i < 2; ++i) mine = mine || owners[i] == &tc->hc[0];
  CHECK(topo_is_mine_uuid_name(id, "cpu") == mine);
  CHECK(topo_find_insertion_point_config_locator(tc, locator, owners, 0) == 2);
  CHECK(topo_is_mine(locator) == (owners[0] == &tc->hc[0] || owners[1] == &tc->hc[0]));
}

static void call_nodes(topo_config *tc) {
  host_config *nodes[TOPO_MAX_HOSTS];
  unsigned char *me = tc->hc[0].id;
  CHECK(topo_contains(tc, me) == &tc->hc[0]);
  CHECK(topo_size(tc) == 3 && topo_n(tc) == 2 && topo_w(tc) == 2 && !topo_sided(tc));
  CHECK(topo_side(tc, me) == TOPO_RINGSIDE_BOTH);
  CHECK(topo_get_all_nodes(tc, nodes) == 3 && nodes[2] == &tc->hc[2]);
  CHECK(topo_get_all_nodes_except_self(tc, nodes) == 2 && topo_get_just_self(tc, nodes) == 1);
  CHECK(topo_get_all_nodes_in_tcs(tc, NULL, nodes) == 3);
  CHECK(topo_get_all_nodes_on_side(tc, nodes, me, ruxo_true) == 3);
  CHECK(topo_randomize_hosts(tc, nodes, 2) == 2 && nodes[0] != nodes[1]);
}

static int count_node(topo_config *tc, host_config *hc, void *thunk) {
  (void)tc, (void)hc, (void)thunk;
  return 1;
}

static int count_point(topo_config *tc, host_config *hc, unsigned short idx, uint8_t *location,
                       double percent, void *thunk) {
  (void)tc, (void)hc, (void)idx, (void)location, (void)thunk;
  return percent >= 0.0 && percent <= 100.0;
}

static void call_lifecycle(topo_config *tc, topo_config *next) {
  uint8_t me[16];
  topo_set_debug(NULL);
  CHECK_TEXT(topo_host_state_name(TOPO_ACTIVE_NEW), "new");
  CHECK(topo_active() == NULL && topo_initialize(tc, NULL, tc->hc[0].id) == 0 && topo_active() == tc);
  CHECK(topo_set_node(tc->hc[0].id) == 0);
  topo_me(me);
  CHECK(memcmp(me, tc->hc[0].id, 16) == 0);
  host_activate(tc, &tc->hc[1], TOPO_ACTIVE_TRANSITIONED);
  host_activate(tc, &tc->hc[2], TOPO_ACTIVE_TRANSITIONED);
  CHECK(tc->reads_allowed == 1 && tc->hosts_transitioned == 3);
  CHECK(topo_wait_on_readwrite_barrier(tc) == 0);
  CHECK(topo_update_ip(tc, tc->hc[2].id_str, (char[]){"127.0.0.9"}, NULL, (char[]){"10"}) == 0);
  topo_config *copy = topo_copy_topology(tc);
  CHECK(copy != NULL && copy->hc == tc->hc && copy->hosts_transitioned == 3);
  free(copy);
  CHECK(topo_apply(tc, NULL, count_node) == 3 && ring_apply(tc, NULL, count_point) == 12);
  CHECK(topo_activate_next(next) == 0 && topo_next_active() == next && topo_target() == next);
}

static void call_file(topo_config *tc) {
  static const char configuration[] = "<orlith><topology path=\"\"/></orlith>";
  char folder[3000], conf[3016];
  CHECK(getcwd(folder, sizeof folder) != NULL);
  snprintf(conf, sizeof conf, "%s/node.conf", folder);
  CHECK(ruxo_conf_load_text(configuration, strlen(configuration), conf, NULL) == 0);
  CHECK(topo_find_topo_file(tc->hex_signature) == NULL && topo_save(tc) == -1);
  abi_write_file(tc->hex_signature, "old");
  char *path = topo_find_topo_file(tc->hex_signature);
  CHECK(path != NULL && strstr(path, tc->hex_signature) != NULL);
  CHECK(topo_save(tc) == 0);
  struct _xmlDoc *doc = topo_parse_document_file(path, NULL);
  topo_config *again = topo_compile(doc, tc->hex_signature, NULL);
  CHECK(again != NULL);
  topo_free(again);
  xmlFreeDoc(doc);
  free(path);
  int fd = open("/dev/null", O_WRONLY);
  CHECK(topo_write_entry(tc, &tc->hc[0], &fd) == 1);
  close(fd);
  ruxo_conf_unload();
}

static void call_ending(topo_config *next) {
  static unsigned char temporary[16] = {1};
  CHECK(topo_transition() == 0 && topo_active() == next && topo_next_active() == NULL);
  CHECK(!topo_i_am_ephemeral());
  topo_set_i_am_ephemeral(temporary);
  CHECK(topo_i_am_ephemeral());
}

void call_topo(void) {
  static topo_config *tc, *next; /* in force to the end of the process */
  orlith_metric_locator_t *locator;
  mem_reader_t name;
  mem_reader_init_mem(&name, "cpu", 3);
  locator =
      orlith_metric_locator_create_full(0, METRIC_TYPE_NUMERIC, (const uint8_t *)"0123456789abcdef", &name);
  tc = compile(two_of_three);
  next = compile(two_of_two);
  call_hash();
  call_documents(tc);
  call_placement(tc, locator);
  call_lifecycle(tc, next);
  call_placement_on_active(tc, locator);
  call_nodes(tc);
  topo_retain(next);
  call_file(tc);
  call_ending(next);
  orlith_metric_locator_deref(locator);
}
