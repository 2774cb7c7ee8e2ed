/* Starting the library.
 *
 * A host calls liborlith_init() once, before it uses anything else, from any thread. A module may also be
 * started directly with its own start-up function, before or without liborlith_init(). Every function here
 * runs its work at most once in a process: the flag that says so is raised before the work begins, so a
 * second, concurrent caller returns at once and must not conclude that the first has finished. Modules are
 * ready when the call that did the work has returned. There is no shutdown.
 *
 * Each module with streams of its own has two handles, `<prefix>_debug_ls` and `<prefix>_error_ls`, declared
 * in the module's header. Start-up fills only handles that are still null, debug first, so a host may set
 * them beforehand. They are plain variables: written during start-up, only read afterwards. */
#ifndef LIBORLITH_INIT_H
#define LIBORLITH_INIT_H

#include "ruxo/log.h"

RUXO_BEGIN_DECLS

/* Starts every module, in a fixed order: the topology table, rollup, file moves, proxy buffers, asynchronous
 * hand-off, joins, metric locators, metric names, interval lists. Further calls do nothing. Any thread. */
RUXO_EXPORT void liborlith_init(void);

/* The stream for a module's output: the stream called `name` (NUL-terminated, only read during the call) when
 * the host has configured one or when `fallback` is null, whatever the framework's look-up then answers,
 * which may be null; otherwise `fallback`. Creates nothing and logs nothing. Any thread. */
RUXO_EXPORT ruxo_log_stream_t liborlith_init_log(const char *name, ruxo_log_stream_t fallback);

/* The modules' start-up functions. Each does its work on its first call in the process only; any thread. */

/* The table of retained topologies, and the digests that the placement hash looks up by name. */
RUXO_EXPORT void topo_init_globals(void);
/* The set of ignored name extensions; streams "debug/orollup", "error/orollup". */
RUXO_EXPORT void orollupd_rollup_init(void);
/* The named callbacks of the asynchronous move and unlink jobs; streams "debug/vask_move", "error/vask_move".
 */
RUXO_EXPORT void vask_move_init(void);
/* Streams "debug/vask_proxy_buffer", "error/vask_proxy_buffer". */
RUXO_EXPORT void vask_proxy_buffer_lib_init(void);
/* Streams "debug/go_asynch", "error/go_asynch". */
RUXO_EXPORT void orlith_go_asynch_lib_init(void);
/* The named callback of the deferred commit; streams "debug/joiner", "error/joiner". */
RUXO_EXPORT void liborlith_join_init(void);
/* Streams "debug/metric_locator", "error/metric_locator". */
RUXO_EXPORT void orlith_metric_locator_lib_init(void);
/* Streams "debug/metric_name", "error/metric_name". */
RUXO_EXPORT void orlith_metric_name_lib_init(void);
/* Streams "debug/oil", "error/oil". */
RUXO_EXPORT void oil_lib_init(void);

RUXO_END_DECLS

#endif
