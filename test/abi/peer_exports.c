/* Requests to peers. Nobody listens at the ports that are asked: what is checked is how that ends. */
#include <libxml/parser.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "liborlith/topo/orlith_client.h"
#include "liborlith/topo/topo.h"
#include "liborlith/util/vask_proxy_buffer.h"
#include "test/abi/abi_checks.h"

#define NOBODY "http://127.0.0.1:1"

static const char one_node[] =
    "<nodes write_copies=\"1\"><node id=\"7a0a2f4e-52a1-4f0b-9a3c-000000000001\" weight=\"4\" "
    "address=\"127.0.0.1\" port=\"1\" apiport=\"1\"/></nodes>";

static topo_config *compile_one_node(void) {
  struct _xmlDoc *doc = topo_parse_document(one_node, strlen(one_node), NULL);
  topo_config *tc = topo_compile(doc, NULL, NULL);
  CHECK(tc != NULL);
  if (tc == NULL) abort();
  xmlFreeDoc(doc);
  return tc;
}

static void call_transport(topo_config *tc) {
  CHECK_TEXT(topo_host_config_url_prefix(&tc->hc[0]), "http://7a0a2f4e-52a1-4f0b-9a3c-000000000001:1");
  CHECK(topo_curl_connect_to(tc) == tc->connect_to && topo_curl_connect_to(NULL) == NULL);
  CHECK(!topo_curl_tls_enabled(tc));
  topo_set_ca_chain(tc, "/chain.pem");
  CHECK_TEXT(tc->ca_chain, "/chain.pem");
  topo_set_ca_chain(tc, NULL);
  CHECK(tc->ca_chain == NULL);
}

static void no_header(char *key, char *value, void *closure) {
  (void)key, (void)value;
  ++*(int *)closure;
}

/* The handle is made, used and, at last, given away. */
static void call_requests(topo_config *tc) {
  int headers = 0;
  CURL *curl = vask_proxy_buffer_make_curl_object(NULL, NOBODY "/x", NULL, 20000);
  CHECK(curl != NULL);
  topo_curl_setup(curl, tc);
  CHECK(topo_curl_perform(curl, tc) == CURLE_COULDNT_CONNECT);
  vask_proxy_buffer_t *pb = vask_proxy_buffer_new();
  CHECK(vask_proxy_buffer_perform_borrow_curl(pb, curl, NULL, 20000, NULL, no_header, &headers) == -1);
  CHECK(vask_proxy_buffer_perform_borrow_curl_topo(pb, curl, topo_host_config_url_prefix(&tc->hc[0]), 20000,
                                                   NULL, NULL, NULL, tc) == -1);
  CHECK(vask_proxy_buffer_perform_curl_topo(pb, curl, NOBODY, 20000, NULL, NULL, NULL, tc) == -1);
  CHECK(vask_proxy_buffer_perform_curl(pb, NULL, NOBODY, 20000, NULL, NULL, NULL) == -1);
  CHECK(vask_proxy_buffer_get_httpcode(pb) == VASK_PROXY_BUFFER_HTTP_RESPONSE_SERVER_ERROR && headers == 0);
  CHECK(vask_proxy_buffer_get_curl_error_code(pb) == CURLE_COULDNT_CONNECT);
  vask_proxy_buffer_destroy(pb);
}

static void call_buffer(void) {
  char byte = 0;
  vask_proxy_buffer_t *pb = vask_proxy_buffer_new();
  CHECK(!vask_proxy_buffer_has_valid_fd(pb));
  CHECK(!vask_proxy_buffer_ruxo_http_append_mmap_from_fd(pb, NULL, MAP_SHARED, 0));
  CHECK(vask_proxy_buffer_handle_curl_data((char[]){"[7]"}, 1, 3, pb) == 3);
  CHECK(vask_proxy_buffer_has_valid_fd(pb) && vask_proxy_buffer_get_len(pb) == 3);
  ruxo_json_object *o = vask_proxy_buffer_to_json_object(pb);
  CHECK(ruxo_json_array_length(o) == 1);
  ruxo_json_free(o);
  CHECK(vask_proxy_buffer_reset_fd_position(pb) && vask_proxy_buffer_read_fd(pb, &byte, 1) == 1 &&
        byte == '[');
  const uint8_t *map = vask_proxy_buffer_mmap(pb, MAP_PRIVATE);
  CHECK(map != NULL && memcmp(map, "[7]", 3) == 0);
  const int fd = vask_proxy_buffer_transfer_fd_ownership(pb);
  CHECK(fd >= 0 && close(fd) == 0);
  vask_proxy_buffer_destroy(pb);
}

static void call_client(topo_config *tc) {
  char *boot[] = {(char[]){"127.0.0.1:1"}}, *hosts[4];
  int ret_code = 0;
  orlith_client_t *c = orlith_client_alloc(1, boot);
  CHECK_TEXT(c->boot[0], NOBODY);
  CHECK(orlith_client_set_timeout(c, 20000) == 30000 && orlith_client_set_connecttimeout(c, 20000) == 100);
  orlith_client_ref(c);
  orlith_client_deref(c);
  CHECK(orlith_client_get_active_hash(c, NOBODY) == NULL && orlith_client_get_topo(NOBODY, "abc") == NULL);
  orlith_client_retopo(c);
  CHECK(orlith_client_get_active_topo(c) == NULL && orlith_client_node_count(c) == -1);

  mem_reader_t name;
  mem_reader_init_mem(&name, "cpu", 3);
  orlith_metric_locator_t *metric =
      orlith_metric_locator_create((const uint8_t *)"0123456789abcdef", &name, 1);
  c->active_topo = tc;
  CHECK(orlith_client_find(c, hosts, 1, metric) == 1);
  CHECK_TEXT(hosts[0], topo_host_config_url_prefix(&tc->hc[0]));
  free(hosts[0]);
  CHECK(orlith_client_find_with_random_fill(c, hosts, 4, metric) == 1);
  free(hosts[0]);
  CHECK(orlith_client_get_all_nodes(c, hosts) == 1);
  abi_write_file("upload", "bytes");
  FILE *file = fopen("upload", "r");
  CHECK(file != NULL);
  if (file == NULL) abort();
  CHECK(orlith_client_api_put(c, hosts[0], "/upload/x", fileno(file), NULL, NULL, &ret_code) ==
        CURLE_COULDNT_CONNECT);
  CHECK(ret_code == CURLE_COULDNT_CONNECT);
  fclose(file);
  free(hosts[0]);
  orlith_metric_locator_deref(metric);
  CHECK(orlith_client_force_retopo(c) == 0 && c->active_topo == NULL);
  orlith_client_free(c);
  CHECK(c->boot == NULL);
  pthread_rwlock_destroy(&c->lock);
  free(c);
}

void call_peers(void) {
  topo_config *tc = compile_one_node();
  vask_proxy_buffer_init("spool", 20000);
  call_transport(tc);
  call_requests(tc);
  call_buffer();
  call_client(tc);
  topo_free(tc);
}
