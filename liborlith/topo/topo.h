/* The cluster's topology: which nodes there are, and which of them own a piece of data.
 *
 * A topology document is compiled once into an immutable topo_config: its nodes, its signature and a
 * consistent-hash ring on which every node has as many points as its weight. A node process holds at most two
 * topologies in force, the active one and the one the cluster is moving to. doc/topology.md describes the
 * document, the signature, the ring and the walk.
 *
 * Conventions of this header:
 *   - a location, a signature and a hash are 32 bytes, compared with memcmp; a node id is 16 bytes;
 *   - `host_config **loc` receives pointers into the topology: they live as long as it does and are never
 * freed;
 *   - `char **err` may be null; otherwise it is set to null first and receives a message to free() on
 * failure;
 *   - a compiled topology is only read, so placement and queries run on any number of threads without locks;
 * whoever calls keeps the topology alive. The functions that change what is active, and host_activate, are
 * for one control thread;
 *   - a broken invariant (more copies than there are eligible nodes, say) stops the process with a "[FATAL]"
 * line. */
#ifndef LIBORLITH_TOPO_H
#define LIBORLITH_TOPO_H

#include <netinet/in.h>

#include "ruxo/base.h"
#include "ruxo/hash.h"
#include "ruxo/log.h"
#include "ruxo/skiplist.h"
#include "ruxo/uuid.h"

RUXO_BEGIN_DECLS

struct orlith_metric_locator;
struct evp_md_ctx_st;
struct curl_slist;
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

/* Which half of the ring a node's points lie in, in a topology that has sides. The values enter the
 * signature. */
typedef enum {
  TOPO_RINGSIDE_BOTH = 0,
  TOPO_RINGSIDE_A = 1, /* the lower half: top bit of the location clear */
  TOPO_RINGSIDE_B = 2  /* the upper half */
} topo_host_ringside_t;

/* How far a node is with a rebalance. */
typedef enum {
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

/* A compiled topology. Only the counts, reads_allowed and ca_chain change after compilation. */
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
  host_config_slot **fast_slot_ring; /* owned: the same points; the first one begins the block of all slots */
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

/* Hashes `len` bytes of `data` (may be null when len is 0) into out[0..31]. Allocates nothing after a
 * thread's first call. Any thread. */
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

RUXO_END_DECLS

#endif
