/* The cluster client: finds the nodes that own a metric, and uploads files to them, from outside the cluster.
 *
 * A client knows some "boot" URLs. It asks them in order which topology is active ("URL/state"), fetches that one
 * ("URL/topology/xml/SIGNATURE") and compiles it; owners are then found as the nodes find them. Requests go through
 * topo_curl_perform() (topo/topo.h), so node URLs, which name a node by its id, reach the right host; they speak http
 * and https only and follow no redirection. An answer must be shorter than ORLITH_CLIENT_RESPONSE_BYTES.
 *
 * Threads: all functions but orlith_client_retopo() may be called from any thread while the caller holds a reference.
 * The first query without a topology fetches it, and others wait for it. What goes wrong is logged on the framework's
 * error stream. */
#ifndef LIBORLITH_TOPO_ORLITH_CLIENT_H
#define LIBORLITH_TOPO_ORLITH_CLIENT_H

/* Strict ISO C hides the read-write lock. A host that compiles as such, and includes another header of the system
 * first, asks for POSIX itself. */
#if defined(__STRICT_ANSI__) && !defined(_XOPEN_SOURCE) && !defined(__cplusplus)
#define _XOPEN_SOURCE 700
#endif

#include <pthread.h>

#include "liborlith/topo/topo.h"
#include "liborlith/util/metric_locator.h"
#include "ruxo/base.h"
#include "ruxo/hash.h"

RUXO_BEGIN_DECLS

/* The buffer for an answer, its NUL included. */
#define ORLITH_CLIENT_RESPONSE_BYTES 8192

typedef struct orlith_client {
  char **boot;              /* owned: boot URLs, then null */
  char *active_topo_hash;   /* owned: what a boot node reported last, or null */
  topo_config *active_topo; /* null until fetched; set under `lock`, read atomically without */
  pthread_rwlock_t lock;
  uint32_t ref_cnt;   /* atomic */
  int timeout;        /* of an upload, in milliseconds */
  int connecttimeout; /* in milliseconds */
} orlith_client_t;

/* A client with `nhosts` boot hosts (copied), a reference count of 1 and time-outs of 30000 and 100 ms. A host that
 * does not begin with "http://" or "https://" is taken to mean http. Null when memory ran out. */
RUXO_EXPORT orlith_client_t *orlith_client_alloc(int nhosts, char **hosts);

/* Set the time-outs of whole uploads and of connecting, in milliseconds; they return the value before. */
RUXO_EXPORT int orlith_client_set_timeout(orlith_client_t *c, int timeout);
RUXO_EXPORT int orlith_client_set_connecttimeout(orlith_client_t *c, int connecttimeout);

/* Adds a reference; gives one back. The last one to go frees the boot URLs and nothing else: the structure, its
 * topology, which others may still read, and its lock stay (deliberate). */
RUXO_EXPORT void orlith_client_ref(orlith_client_t *c);
RUXO_EXPORT void orlith_client_deref(orlith_client_t *c);
/* The same as orlith_client_deref(). */
RUXO_EXPORT void orlith_client_free(orlith_client_t *c);

/* ---- The topology ---- */

/* Forgets the topology, without freeing it, so that the next query fetches it again. Returns 0. */
RUXO_EXPORT int orlith_client_force_retopo(orlith_client_t *c);

/* The hex signature of the topology that is active on the node at the URL `host`, a text to free(). Null when it has
 * none and on any failure. Waits up to 5 s. */
RUXO_EXPORT char *orlith_client_get_active_hash(orlith_client_t *c, const char *host);

/* Fetches the topology with that signature from the node at the URL `host` and compiles it: the caller's, unknown to
 * the process. Null for null arguments, for a signature of other bytes than letters and digits, and on any failure.
 * Waits up to 5 s. */
RUXO_EXPORT topo_config *orlith_client_get_topo(const char *host, const char *hash);

/* Asks the boot nodes in order until one has given a topology, which becomes the active one; nothing while there is
 * one. The caller holds `lock` for writing, or has the client to himself. */
RUXO_EXPORT void orlith_client_retopo(orlith_client_t *c);

/* The active topology, fetched when there is none; null when none can be had. Never freed by the client. */
RUXO_EXPORT topo_config *orlith_client_get_active_topo(orlith_client_t *c);

/* ---- Nodes ----
 * On the active topology, fetched when there is none. Node URLs ("http://ID:APIPORT") are written to `hosts`, each
 * a text to free(). */

/* The number of nodes; -1 without a topology. */
RUXO_EXPORT int orlith_client_node_count(orlith_client_t *c);
/* The URLs of all nodes in document order, for which `hosts` has room. Their number; -1 without a topology. */
RUXO_EXPORT int orlith_client_get_all_nodes(orlith_client_t *c, char **hosts);
/* The URLs of the first `cnt` owners of a metric (10 at most) in placement order. Their number; -1 without a
 * topology. */
RUXO_EXPORT int orlith_client_find(orlith_client_t *c, char **hosts, int cnt,
                                   const orlith_metric_locator_t *metric_locator);
/* The same, and then other nodes, from a random one on (rand(3)), until there are `cnt` or all. Their number; -2
 * without a topology. */
RUXO_EXPORT int orlith_client_find_with_random_fill(orlith_client_t *c, char **hosts, int cnt,
                                                    const orlith_metric_locator_t *metric_locator);

/* ---- Uploads ---- */

/* Sends the whole file open on `fd` (which stays open and the caller's) to `host` followed by `api`, with the method
 * `custom_request` (null: PUT), the header "X-Orlith-Timeout" and those of `hdrs` (null: none), a table of texts by
 * header names.
 *
 * Returns 0 when the node has answered with status 200 and JSON without a member "error" and without a number of
 * "errors"; -2 when there were such "errors"; -1 for any other answer and for a file that cannot be read; a libcurl
 * code (above 0) when the transfer failed. -1 and -2 are logged with the answer. *ret_code (unless null) is the
 * libcurl code, or -1 together with a result of -1.
 *
 * `hdrs` is emptied and its values are given to free(), except when the file cannot be read or libcurl has no memory:
 * then it stays as it was. Destroying it again is right in either case. */
RUXO_EXPORT int orlith_client_api_put(orlith_client_t *c, const char *host, const char *api, int fd,
                                      const char *custom_request, ruxo_hash_table *hdrs, int *ret_code);

RUXO_END_DECLS

#endif
