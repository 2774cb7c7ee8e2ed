/* The cluster's topology: which nodes there are, and which of them own a piece of data.
 *
 * A topology document is compiled once into an immutable topo_config: its nodes, its signature and a
 * consistent-hash ring on which every node has as many points as its weight. A node process holds at most two
 * topologies in force, the active one and the one the cluster is moving to. doc/topology.md describes the
 * document, the signature, the ring and the walk.
 *
 * Conventions of this header:
 *   - a location, a signature and a hash are 32 bytes, compared with memcmp; a node id is 16 bytes;
 *   - `host_config **loc` receives pointers into the topology: they live as long as it does, nobody frees them;
 *   - `char **err` may be null; otherwise it is set to null first, and on failure to a message to free();
 *   - a compiled topology is only read, so placement and queries run on any number of threads without locks;
 *     whoever calls keeps the topology alive. The functions that change what is active are for one control thread;
 *     what placement sees of a change may be a moment old, never half of it. Node states, addresses and ports may
 *     change on any thread;
 *   - a broken invariant (more copies than there are eligible nodes, say) stops the process with a line that
 *     begins "[FATAL]". */
#ifndef LIBORLITH_TOPO_H
#define LIBORLITH_TOPO_H

#include <curl/curl.h>
#include <netinet/in.h>

#include "ruxo/base.h"
#include "ruxo/hash.h"
#include "ruxo/log.h"
#include "ruxo/skiplist.h"
#include "ruxo/uuid.h"

RUXO_BEGIN_DECLS

struct orlith_metric_locator;
struct evp_md_ctx_st;
struct _xmlDoc;

#define TOPO_HASH_SIZE 32     /* bytes of a SHA-256 digest */
#define TOPO_HASH_HEX_SIZE 65 /* 64 lower-case hex characters and a NUL */
#define TOPO_MAX_COPIES 10    /* no placement returns more owners, no topology asks for more */
#define TOPO_MAX_HOSTS 128

/* The search hints are indexed by this many leading bits of a location. */
#define FAST_SIZE_BITS 14
#define FAST_SIZE (1 << FAST_SIZE_BITS)
#define FAST_TYPE uint16_t

typedef struct topo_config topo_config;
typedef struct host_config host_config;

/* From C any value may arrive in one of these enumerations; the fixed type makes that defined in C++ too. */
#ifdef __cplusplus
#define TOPO_ENUM_TYPE : unsigned
#else
#define TOPO_ENUM_TYPE
#endif

/* Which half of the ring a node's points lie in, in a topology that has sides. The values enter the
 * signature. */
typedef enum TOPO_ENUM_TYPE {
  TOPO_RINGSIDE_BOTH = 0,
  TOPO_RINGSIDE_A = 1, /* the lower half: top bit of the location clear */
  TOPO_RINGSIDE_B = 2  /* the upper half */
} topo_host_ringside_t;

/* How far a node is with a rebalance. */
typedef enum TOPO_ENUM_TYPE {
  TOPO_ACTIVE_UNKNOWN = 0,
  TOPO_ACTIVE_NEW = 1,
  TOPO_ACTIVE_TRANSITIONING = 2,
  TOPO_ACTIVE_TRANSITIONED = 3
} topo_host_state_t;

/* One node of a topology. */
struct host_config {
  ruxo_uuid_t id;
  char id_str[RUXO_UUID_STRING_SIZE]; /* lower case */
  uint16_t weight;                    /* number of ring points, 1 to 65535 */
  struct in_addr net_address;
  uint16_t net_port;    /* network byte order */
  uint16_t net_apiport; /* network byte order */
  topo_host_state_t active;
  topo_host_ringside_t ringside;
  topo_config *topo; /* the topology that holds this node */
  char *hostname;    /* owned: the address as the document wrote it */
  char *url_prefix;  /* owned: "http://ID:APIPORT" or "https://..." */
};

/* One point of the ring. */
typedef struct host_config_slot {
  uint8_t location[TOPO_HASH_SIZE];
  host_config *node;
  uint16_t idx; /* the point's number within its node, from 0 */
} host_config_slot;

/* Where the points of one hint bucket begin and end in ring order; see doc/topology.md. */
typedef struct fast_search_hints_t {
  int32_t lower;
  int32_t upper;
} fast_search_hints_t;

/* A compiled topology. Only the counts, reads_allowed and ca_chain change after compilation, and of its nodes the
 * state, the address and the ports. */
struct topo_config {
  uint8_t signature[TOPO_HASH_SIZE];
  char hex_signature[TOPO_HASH_HEX_SIZE];
  uint16_t w_count;        /* copies kept of each item, 1 to 10 */
  uint16_t host_count;     /* 1 to 128 */
  host_config *hc;         /* owned: host_count nodes in document order */
  ruxo_skiplist *ring;     /* owned: host_config_slot by location */
  ruxo_hash_table hostset; /* 16-byte id to host_config */
  int hosts_unknown;       /* nodes per state, kept by host_activate */
  int hosts_new;
  int hosts_transitioning;
  int hosts_transitioned;
  int reads_allowed; /* 1 once no node is unknown or transitioning; never cleared */
  ruxo_boolean use_side;
  ruxo_boolean use_tls;
  char *ca_chain;                    /* owned, may be null: path of a CA bundle for TLS peers */
  struct curl_slist *connect_to;     /* owned: "ID:APIPORT:HOSTNAME:APIPORT" for each node */
  uint8_t *fast_loc_ring;            /* owned: the locations of all points, 32 bytes each, in ring order */
  host_config_slot **fast_slot_ring; /* the array of `ring`; its first point begins the block of all slots */
  fast_search_hints_t *fast_search_hints; /* owned: FAST_SIZE entries */
};

/* An incremental hash. The caller owns the structure; ictx belongs to it from init to final. */
typedef struct topo_hash_ctx_t {
  struct evp_md_ctx_st *ictx;
} topo_hash_ctx_t;

/* ---- Start-up ---- */

/* Prepares the table of retained topologies and libcrypto's digests. Idempotent; any thread. */
RUXO_EXPORT void topo_init_globals(void);

/* ---- Placement hash (SHA-256, FIPS 180-4) ---- */

/* Hashes `len` bytes of `data` (may be null when len is 0) into out[0..31]. Allocates nothing. Any thread, also
 * in destructors that run while a thread or the process ends. */
RUXO_EXPORT void topo_hash(const void *data, size_t len, uint8_t *out);
/* Starts an incremental hash and allocates its digest context; every init needs its final. Stops the process
 * when libcrypto knows no SHA-256. One thread at a time per context. */
RUXO_EXPORT void topo_hash_ctx_init(topo_hash_ctx_t *ctx);
/* Adds `len` bytes. */
RUXO_EXPORT void topo_hash_ctx_update(topo_hash_ctx_t *ctx, const void *data, size_t len);
/* Writes the 32-byte digest to `out` and frees the digest context; `ctx` needs an init before further use. */
RUXO_EXPORT void topo_hash_ctx_final(uint8_t *out, topo_hash_ctx_t *ctx);
/* Writes hash[0..31] as 64 lower-case hex characters and a NUL into out[0..64]; a hash of all zeros, which
 * stands for "no topology", is written as "-". */
RUXO_EXPORT void topo_hash_to_hex(const uint8_t *hash, char *out);

/* ---- Topology documents ---- */

/* The largest document that is read. 128 nodes never need a hundredth of it. */
#define TOPO_DOCUMENT_MAX_BYTES ((size_t)4 * 1024 * 1024)

/* Parses `len` bytes of XML, which may come from anywhere: documents that are over TOPO_DOCUMENT_MAX_BYTES,
 * hold a NUL, declare a document type or are not well-formed are refused; nothing is fetched and nothing is
 * printed. Returns a document to xmlFreeDoc(), or null with a message ("line 3: ...", without newline) in
 * *err. Any thread. */
RUXO_EXPORT struct _xmlDoc *topo_parse_document(const char *bytes, size_t len, char **err);
/* The same for a file; every message begins with the path. */
RUXO_EXPORT struct _xmlDoc *topo_parse_document_file(const char *path, char **err);

/* Compiles a parsed document. `hexhash` (may be null) is the signature it must have, in either case. `doc` is
 * only read. Returns a topology of the caller's, which is not yet known to the process (topo_retain,
 * topo_initialize) and is freed with topo_free(); or null, with the first fault in *err. Host names are
 * looked up with getaddrinfo(), so the call may wait for a name server. Any thread. */
RUXO_EXPORT topo_config *topo_compile(struct _xmlDoc *doc, const char *hexhash, char **err);
/* Frees a topology with all it owns; null is ignored. It must not be retained, active or next. */
RUXO_EXPORT void topo_free(topo_config *tc);

/* Enters `tc` into the process-wide table by its signature; the table keeps it for good. Stops the process
 * when one of that signature is there. Any thread. */
RUXO_EXPORT void topo_retain(topo_config *tc);
/* The retained topology with that signature, or null. Borrowed. Any thread. */
RUXO_EXPORT topo_config *topo_retrieve(const uint8_t *hash);
/* The same by exactly 64 lower-case hex characters; null for anything else, null included. */
RUXO_EXPORT topo_config *topo_retrieve_hex(const char *hex);
/* Copies the 32 signature bytes to `buff` (may be null) and returns the hex form, which lives as long as
 * `tc`. For a null topology: zeros, and "-". */
RUXO_EXPORT const char *topo_signature(topo_config *tc, void *buff);

/* ---- Placement ----
 * `loc` has room for min(count, 10) entries; 10 always suffice. `count` 0, or one above the topology's copy
 * count, asks for all copies. Each returns the number of owners written, which are distinct. A negative
 * count, and more copies than there are eligible nodes, stop the process; topo_compile lets no topology of
 * the latter kind pass. The fast walk allocates nothing; the walk whose name ends in "_slow" gives the same
 * owners without the search tables. */

/* The owners of a 32-byte location. */
RUXO_EXPORT int _topo_find_insertion_point_config(const topo_config *tc, const uint8_t *hash,
                                                  host_config **loc, int count);
RUXO_EXPORT int _topo_find_insertion_point_config_slow(const topo_config *tc, const uint8_t *hash,
                                                       host_config **loc, int count);
/* The owners of the hash of `buflen` bytes. */
RUXO_EXPORT int topo_find_insertion_point_config(const topo_config *tc, const void *buf, size_t buflen,
                                                 host_config **loc, int count);
RUXO_EXPORT int topo_find_insertion_point_config_slow(topo_config *tc, const void *buf, size_t buflen,
                                                      host_config **loc, int count);
/* The owners of a metric: its stored hash is the location. */
RUXO_EXPORT int topo_find_insertion_point_config_locator(const topo_config *tc,
                                                         const struct orlith_metric_locator *metric_locator,
                                                         host_config **loc, int count);
RUXO_EXPORT int topo_find_insertion_point_config_locator_slow(
    topo_config *tc, const struct orlith_metric_locator *metric_locator, host_config **loc, int count);
/* On the active topology; 0, writing nothing, when there is none. */
RUXO_EXPORT int topo_find_insertion_point(const void *buf, size_t buflen, host_config **loc, int count);
/* The owners of the key "ID-NAME" on the active topology. A key of 4133 bytes or more is logged and has no
 * owners. */
RUXO_EXPORT int topo_find_insertion_point_uuidstr_name(const char *id_str, const char *metric_name,
                                                       host_config **loc, int count);
/* The same for a 16-byte id, which enters the key as lower-case text. */
RUXO_EXPORT int topo_find_insertion_point_name(unsigned char *id, const char *metric_name, host_config **loc,
                                               int count);
/* The first two owners of "ID-NAME" on `tc`; null where there is no such copy. */
RUXO_EXPORT int topo_find_two(topo_config *tc, unsigned char *id, char *metric_name, host_config **h1,
                              host_config **h2);

/* Whether this node (topo_me) is an owner on the active topology; false when there is none. */
RUXO_EXPORT ruxo_boolean topo_is_mine(const struct orlith_metric_locator *metric_locator);
/* The same for the key "UUID-METRIC"; one of 4133 bytes or more is logged and is nobody's. */
RUXO_EXPORT ruxo_boolean topo_is_mine_uuid_name(const char *uuid_str, const char *metric_str);
/* Writes the owners on `tc` to hc[0..9] and tells whether `me` (16 bytes) is one of them; a null `tc` has none.
 * `hc` must not be null. */
RUXO_EXPORT ruxo_boolean topo_is_local_to_topology(const struct orlith_metric_locator *metric_locator,
                                                   const topo_config *tc, unsigned char *me,
                                                   host_config **hc);

/* ---- Nodes ----
 * Ids are 16 bytes; a null topology gives 0, null or false. Where `loc` is an array it has room for
 * host_count entries. */

/* The node with that id; null when there is none. */
RUXO_EXPORT host_config *topo_contains(topo_config *conf, const unsigned char *hostid);
RUXO_EXPORT int topo_size(topo_config *tc);           /* number of nodes */
RUXO_EXPORT int topo_n(topo_config *tc);              /* number of copies */
RUXO_EXPORT int topo_w(topo_config *tc);              /* the same */
RUXO_EXPORT ruxo_boolean topo_sided(topo_config *tc); /* whether its nodes have sides */
/* The side of a node; BOTH when it is not there. With `tc` null: of this node itself, or else in the active
 * topology. */
RUXO_EXPORT topo_host_ringside_t topo_side(topo_config *tc, unsigned char *id);
/* All nodes in document order; `loc` may be null. Returns their number. */
RUXO_EXPORT int topo_get_all_nodes(topo_config *tc, host_config **loc);
/* All but this node. With `loc` null the number of all nodes. */
RUXO_EXPORT int topo_get_all_nodes_except_self(topo_config *tc, host_config **loc);
/* This node, when it is in `tc` and `loc` is not null: 1, else 0. */
RUXO_EXPORT int topo_get_just_self(topo_config *tc, host_config **loc);
/* The nodes of tc0, then those of tc1 whose id tc0 lacks. Either may be null. */
RUXO_EXPORT int topo_get_all_nodes_in_tcs(topo_config *tc0, topo_config *tc1, host_config **loc);
/* The nodes on the side of `my_id` (mine) or on the other one (not mine); `loc` may be null. Without sides,
 * or for a node on both, all nodes are mine; for an id that is not there, none. */
RUXO_EXPORT int topo_get_all_nodes_on_side(topo_config *tc, host_config **loc, const unsigned char *my_id,
                                           ruxo_boolean mine);
/* min(cnt, host_count) distinct nodes in random order, drawn with random(3). */
RUXO_EXPORT int topo_randomize_hosts(topo_config *tc, host_config **h, int cnt);

/* ---- Lifecycle: which topology is active, who this node is, how far the nodes are ---- */

/* Where the ring and each compiled topology are reported; null (the start value) is off. */
RUXO_EXPORT void topo_set_debug(ruxo_log_stream_t ndebug);
/* "unknown", "new", "transitioning", "transitioned"; "error" for any other value. Constant text. */
RUXO_EXPORT const char *topo_host_state_name(topo_host_state_t s);

RUXO_EXPORT topo_config *topo_active(void);      /* what serves placement now, or null */
RUXO_EXPORT topo_config *topo_next_active(void); /* what the cluster is moving to, or null */
RUXO_EXPORT topo_config *topo_target(void);      /* the next one if there is one, else the active one */

/* Makes this process act under a temporary id of its own (16 bytes, copied) that is in no topology. */
RUXO_EXPORT void topo_set_i_am_ephemeral(unsigned char *id);
/* Whether it does. */
RUXO_EXPORT ruxo_boolean topo_i_am_ephemeral(void);
/* Writes this node's 16-byte id: the ephemeral one, else that of the node found by topo_set_node, else the
 * one last given to topo_set_node. */
RUXO_EXPORT void topo_me(unsigned char *out);
/* Records who this node is and looks it up on the ring of the next, then of the active topology. 0 when it is
 * there, else -1; then this process is no node of a topology until the next call. */
RUXO_EXPORT int topo_set_node(unsigned char *id);

/* Installs the pair at start-up; either may be null. `me` becomes transitioned in conf, and in next new (when
 * there is no conf) or transitioning. Both are kept, not copied. Returns 0. An ephemeral process that finds
 * `me` in next logs it and exits. */
RUXO_EXPORT int topo_initialize(topo_config *conf, topo_config *next, unsigned char *me);
/* Starts a move to `conf`, which is kept. 0; -1, changing nothing, while a move is pending. May exit, as
 * above. */
RUXO_EXPORT int topo_activate_next(topo_config *conf);
/* Completes the move: next becomes active; the former active one stays retained. 0; -1 without a move. May
 * exit. */
RUXO_EXPORT int topo_transition(void);
/* Sets the state of one of `conf`'s nodes, keeps the counts (which are all zero until the first change), and
 * opens reads once no node is unknown or transitioning. Nothing for null and for the state it has. Any thread:
 * changes come one after the other; who reads the fields meanwhile sees each one old or new. */
RUXO_EXPORT void host_activate(topo_config *conf, host_config *hc, topo_host_state_t state);
/* Returns 0 as soon as reads on `conf` are open, which it looks for once a second, for ever; -1 for null. Any
 * thread. */
RUXO_EXPORT int topo_wait_on_readwrite_barrier(topo_config *conf);

/* Changes where a node is reached, in place: address (dotted quad), data port and API port, each left as it is
 * when null. Ports are read in base 10 and cut to 16 bits, unchecked. The node's url_prefix and hostname, its
 * connect_to entry and the signature stay as they were compiled. 0; -1, changing nothing, for a null topology,
 * an id that is no UUID or not there, and a bad address. Any thread. */
RUXO_EXPORT int topo_update_ip(topo_config *conf, char *node_id, char *ip_address, char *port, char *apiport);

/* A copy of the structure alone: nodes, ring, tables and all else that the original owns are shared with it, and
 * must outlive the copy, which is released with free(). Its counts and reads_allowed stay what they were at the copy:
 * change states, and wait for reads, on the original. Null for null and without memory. Any thread. */
RUXO_EXPORT topo_config *topo_copy_topology(const topo_config *from);

/* Calls f for each node in document order; returns the sum of its results. */
RUXO_EXPORT int topo_apply(topo_config *tc, void *thunk, int (*f)(topo_config *, host_config *, void *));
/* Calls f for each point in ring order with its node, number, 32-byte location and place on the ring in
 * percent (0 to 100); returns the sum of its results. */
RUXO_EXPORT int ring_apply(topo_config *tc, void *thunk,
                           int (*f)(topo_config *, host_config *, unsigned short idx, uint8_t *location,
                                    double percent, void *thunk));

/* ---- The topology file: DIR/SIGNATURE, DIR being what the configuration has at
 * "/orlith/topology/@path|/orlith/include/topology/@path", from the folder of the configuration file unless it is
 * absolute; without it that folder itself. doc/topology.md shows the file. ---- */

/* The path of the file of that signature (64 hex characters), if there is one; the caller frees it. Null when there
 * is none, when there is no configuration to tell, and for a path of 4096 bytes and more. Any thread. */
RUXO_EXPORT char *topo_find_topo_file(const char *hex_signature);
/* Rewrites the topology's file, which must be there, from the compiled topology. Returns 0; -1 when there is no file
 * to replace, when topo_update_ip() gave a node a port of 0, or when it cannot be replaced: then it is as it was.
 * Everything up to the new file is on disk when it returns; a crash at any point leaves the old or the new file,
 * complete. Host names become addresses, and "use_tls" is not written; the file compiles to the same signature. A
 * write that fails or comes up short stops the process. Any thread, one at a time. The copy is always called as the
 * file with ".tmp" appended, so that the one a crash left is found and removed: two processes that save the same
 * topology at once take each other's copy for such a one. Hosts keep to one process a folder, or lock around it. */
RUXO_EXPORT int topo_save(topo_config *tc);
/* Writes one node's entry to the descriptor that `c`, an int *, points to. Returns 1; 0, writing nothing, for a side
 * that is none and for a port of 0, which no document may have. A write that fails or comes up short stops the process.
 * For topo_apply(). */
RUXO_EXPORT int topo_write_entry(topo_config *tc, host_config *hc, void *c);

/* ---- Requests to peers ----
 * A URL names a peer by its node id (host_config's url_prefix); a request through a topology tells libcurl where that
 * node really is, and which authorities to trust. Nothing here keeps state but the bundle for all topologies; requests
 * may run on any number of threads. */

/* The node's url_prefix, which lives as long as its topology. */
RUXO_EXPORT const char *topo_host_config_url_prefix(const host_config *hc);
/* The topology's connect-to list, which lives as long as it; null for null. */
RUXO_EXPORT const struct curl_slist *topo_curl_connect_to(const topo_config *tc);
/* Whether its nodes speak TLS; false for null. */
RUXO_EXPORT bool topo_curl_tls_enabled(const topo_config *tc);
/* Sets the path of the bundle of authorities (copied; null: none) for the peers of a topology or, with `tc` null, for
 * topologies without one and requests without a topology. Without memory it stays as it was, and that is logged.
 * Requests that run meanwhile may read the old path: for the time of configuration. */
RUXO_EXPORT void topo_set_ca_chain(topo_config *tc, const char *ca_chain);
/* Gives a handle the bundle of authorities (CURLOPT_CAINFO), if there is one, whether or not the topology uses TLS;
 * and, with a topology, its connect-to list, which must outlive the handle's requests. What libcurl refuses is logged
 * on the error stream, and the handle goes without it. */
RUXO_EXPORT void topo_curl_setup(CURL *curl, const topo_config *tc);
/* Sets a handle up and performs its request. URL, method, body and callbacks are the caller's to set, and so is the
 * judgement of the result: nothing is retried or redirected. Returns what curl_easy_perform() does. The client span in
 * progress on this thread (ruxo/zipkin.h) gets what libcurl knows about the answer, and is published. */
RUXO_EXPORT CURLcode topo_curl_perform(CURL *curl, const topo_config *tc);

RUXO_END_DECLS

#endif
