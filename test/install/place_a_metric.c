/* What a host does first: starts the library, compiles a topology, names a metric, and asks who owns it.
 * Prints the canonical name and the owners, in order. */
#include <libxml/parser.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "liborlith/liborlith_init.h"
#include "liborlith/topo/topo.h"
#include "liborlith/util/metric_locator.h"
#include "ruxo/uuid.h"

static const char kTopology[] =
    "<nodes write_copies=\"2\">"
    "<node id=\"7a0a2f4e-52a1-4f0b-9a3c-000000000001\" weight=\"3\" address=\"127.0.0.1\" port=\"8001\" "
    "apiport=\"9001\"/>"
    "<node id=\"7a0a2f4e-52a1-4f0b-9a3c-000000000002\" weight=\"4\" address=\"127.0.0.1\" port=\"8002\" "
    "apiport=\"9002\"/>"
    "<node id=\"7a0a2f4e-52a1-4f0b-9a3c-000000000003\" weight=\"5\" address=\"127.0.0.1\" port=\"8003\" "
    "apiport=\"9003\"/>"
    "</nodes>";

int main(void) {
  uint8_t check[RUXO_UUID_SIZE];
  const char *given = "cpu_time|ST[units:seconds,mode:user]";
  host_config *owners[10];
  char *error = NULL;

  liborlith_init();
  xmlDocPtr document = xmlReadMemory(kTopology, (int)strlen(kTopology), NULL, NULL, XML_PARSE_NONET);
  topo_config *topology = topo_compile(document, NULL, &error);
  xmlFreeDoc(document);
  if (topology == NULL) {
    fprintf(stderr, "topology: %s\n", error);
    free(error);
    return 1;
  }
  if (ruxo_uuid_parse("6f2d1c66-9d0e-4c35-8a35-0123456789ab", check) != 0) return 1;
  mem_reader_t name = {(const uint8_t *)given, strlen(given)};
  orlith_metric_locator_t *locator = orlith_metric_locator_create_full(0, METRIC_TYPE_NUMERIC, check, &name);
  if (locator == NULL) return 1;

  const int count = topo_find_insertion_point_config_locator(topology, locator, owners, 0);
  printf("%s", orlith_metric_locator_get_name_with_tags(locator));
  for (int i = 0; i < count; ++i) printf(" %s", owners[i]->id_str);
  printf("\n");

  orlith_metric_locator_deref(locator);
  topo_free(topology);
  xmlCleanupParser();
  return 0;
}
