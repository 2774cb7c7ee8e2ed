#include "liborlith/liborlith_init.h"

#include "liborlith/liborlith_module.h"

void liborlith_init(void) {
  static int once = 0;
  if (!liborlith::first_call(once)) return;
  topo_init_globals();
  orollupd_rollup_init();
  vask_move_init();
  vask_proxy_buffer_lib_init();
  orlith_go_asynch_lib_init();
  liborlith_join_init();
  orlith_metric_locator_lib_init();
  orlith_metric_name_lib_init();
  oil_lib_init();
}
