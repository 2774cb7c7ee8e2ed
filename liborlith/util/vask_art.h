/* An adaptive radix tree: byte-string keys to value pointers, kept in the order of their bytes.
 *
 * References between cells are pins: words that count from the base of the tree's serializer. The base of an
 * ordinary tree is 0, so that its pins are addresses; a tree over an image counts from where its file is mapped, and
 * the same code walks both. doc/tree-image.md has the cells and the image, byte by byte.
 *
 * Keys are any bytes, and no key may be a proper prefix of another: pass strings with their NUL counted. The tree
 * does not enforce this. A key that breaks it is stored below the byte 0 that is taken to follow it; a search does
 * not find it, nor a longer key that has a byte 0 there, which each insert then adds once more; and as the node above
 * grows, cells may get lost. Nothing is read outside the keys even then. A
 * length below 0 is taken for 0, and the empty key is a key like others.
 *
 * Order: iteration is in the order of bytes, with one exception that is on purpose. A node of 5 to 16 children puts a
 * byte that is added to it where signed bytes would have it, so 0x80 to 0xff may come before 0x00 to 0x7f there. What
 * the tree calls its smallest and largest key follows the same order.
 *
 * Values are never looked at, copied or freed; a hook table may translate them. Running out of memory is not survived,
 * except where a function says so.
 *
 * Threads: none is started and nothing is locked. One thread at a time may write a tree; any number may read one that
 * nobody writes. */
#ifndef LIBORLITH_UTIL_VASK_ART_H
#define LIBORLITH_UTIL_VASK_ART_H

#include <sys/types.h>

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* A reference to a cell; 0 refers to none, bit 0 is set where the cell is a leaf. */
typedef uintptr_t vask_art_pin;

/* Bytes of a compressed path that a node holds. */
#define VASK_ART_MAX_PREFIX_LEN 10

/* The kinds of node, by how many children they have room for. */
enum { NODE4 = 1, NODE16 = 2, NODE48 = 3, NODE256 = 4 };

#define IS_LEAF(x) ((((uintptr_t)(x)) & 1) != 0)
#define SET_LEAF(x) ((vask_art_pin)(((uintptr_t)(x)) | 1))
/* The pin of a leaf without its mark: the leaf's address in a tree whose base is 0. */
#define LEAF_RAW(x) ((vask_art_pin)(((uintptr_t)(x)) & ~(uintptr_t)1))

/* Between pins and addresses, by the base of a serializer. A null node has pin 0 and the other way round. */
#define PIN_2_NODE(ser, pin) ((vask_art_node *)((pin) == 0 ? 0 : (pin) + (ser)->base))
#define PIN_2_PTR(ser, pin) ((void *)((pin) + (ser)->base))
#define NODE_2_PIN(ser, node) ((node) == NULL ? (vask_art_pin)0 : (vask_art_pin)(node) - (ser)->base)

/* What every inner node begins with. What a node does not use of its bytes is zero. */
typedef struct vask_art_node {
  uint32_t partial_len; /* bytes that all keys below share here; may exceed what `partial` holds */
  uint8_t type;
  uint8_t
      num_children; /* of a NODE256 with 256 children: 0. On purpose; its children are looked at instead */
  uint8_t partial[VASK_ART_MAX_PREFIX_LEN];
} vask_art_node;

typedef struct vask_art_node4 {
  vask_art_node n;
  uint8_t keys[4]; /* parallel to `children` */
  vask_art_pin children[4];
} vask_art_node4;

typedef struct vask_art_node16 {
  vask_art_node n;
  uint8_t keys[16]; /* parallel to `children` */
  vask_art_pin children[16];
} vask_art_node16;

typedef struct vask_art_node48 {
  vask_art_node n;
  uint8_t keys[256]; /* by key byte: 0 none, i the child in children[i - 1] */
  vask_art_pin children[48];
} vask_art_node48;

typedef struct vask_art_node256 {
  vask_art_node n;
  vask_art_pin children[256]; /* by key byte */
} vask_art_node256;

typedef struct vask_art_leaf {
  void *value;
  uint32_t key_len;
  unsigned char key[1]; /* key_len bytes from here on */
} vask_art_leaf;

/* Where pins count from, and the file of an image. */
typedef struct file_serializer {
  int fd;         /* -1: none */
  size_t offset;  /* writing: where the next block goes; reading: the size of the file in bytes */
  uintptr_t base; /* reading: the address of the mapping; otherwise 0 */
  bool mapped;    /* whether `base` is a mapping of `offset` bytes */
} file_serializer_t;

/* The serializer of every tree in memory: {-1, 0, 0, false}. */
RUXO_EXPORT extern file_serializer_t self_image_ser;

typedef struct vask_art_tree vask_art_tree;

/* Appends a block to the image and returns its offset; 0 on failure. */
typedef uint64_t (*vask_art_writer_f)(file_serializer_t *ser, const void *bytes, size_t len);

/* Writes a value into an image, normally with `writer`, and returns its offset there; negative on failure. */
typedef ssize_t (*vask_art_value_serialize_f)(void *closure, const vask_art_tree *t, void *value,
                                              vask_art_writer_f writer, file_serializer_t *ser);
/* Turns a stored value into the caller's. `stored` is the tree's base plus what the leaf holds, null where it holds
 * null. */
typedef void *(*vask_art_value_deserialize_f)(void *closure, const vask_art_tree *t, const void *stored);
typedef void (*vask_art_value_release_f)(void *closure, const vask_art_tree *t, void *value);
/* At least `len` bytes, aligned as malloc does; never null. */
typedef void *(*vask_art_alloc_f)(void *closure, const vask_art_tree *t, size_t len);
typedef void (*vask_art_free_f)(void *closure, const vask_art_tree *t, void *cell);

/* Hooks; each may be null but `alloc` and `free` of a tree that is written. */
typedef struct vask_art_tree_interposition {
  vask_art_value_serialize_f serialize;
  vask_art_value_deserialize_f deserialize; /* for search; the caller gives the result to vask_art_release */
  vask_art_value_release_f release;
  vask_art_alloc_f alloc;
  vask_art_free_f free;
  vask_art_value_deserialize_f deserialize_tmp; /* for the time of one callback of an iteration */
  vask_art_value_release_f release_tmp;
  bool read_only; /* to insert or delete is fatal */
} vask_art_tree_interposition_t;

/* Values as they are, cells from malloc. */
RUXO_EXPORT extern vask_art_tree_interposition_t vask_art_tree_default_interposition;
/* Its `alloc` and `free`: malloc, which may give null, and free. For tables of hooks that change only others. */
RUXO_EXPORT void *vask_art_default_alloc(void *closure, const vask_art_tree *t, size_t len);
RUXO_EXPORT void vask_art_default_free(void *closure, const vask_art_tree *t, void *cell);

struct vask_art_tree {
  vask_art_pin root;
  uint64_t size; /* keys inserted and not deleted by this process; 0 for an image */
  file_serializer_t *ser;
  vask_art_tree_interposition_t *ops;
  void *ops_closure; /* the first argument of every hook */
};

/* Called for each key; a result other than 0 ends the iteration, which returns it. `key` and a value from
 * `deserialize_tmp` are valid during the call only. The callback must not write the tree. */
typedef int (*vask_art_callback)(void *data, const unsigned char *key, uint32_t key_len, void *value);
/* The same; where `partial` is true, `key` is the path to an inner node, and `value` null. */
typedef int (*vask_art_partial_callback)(void *data, const unsigned char *key, uint32_t key_len, bool partial,
                                         void *value);

/* Makes `t` an empty tree in memory with the default hooks. 0. */
RUXO_EXPORT int vask_art_tree_init(vask_art_tree *t);

/* Gives an empty tree its hooks, their closure, and its serializer, null for &self_image_ser. All are borrowed for as
 * long as the tree is used. `ops` may be null for the default hooks. Fatal when the tree has keys. */
RUXO_EXPORT void vask_art_tree_interpose(vask_art_tree *t, file_serializer_t *ser,
                                         vask_art_tree_interposition_t *ops, void *closure);

/* Frees every cell, but no value, and leaves an empty tree. 0. Not for a tree over an image, whose cells belong to the
 * mapping. */
RUXO_EXPORT int vask_art_tree_destroy(vask_art_tree *t);

/* The number of keys. */
RUXO_EXPORT uint64_t vask_art_size(const vask_art_tree *t);

/* The value of a key, null if there is none. A value from the `deserialize` hook goes back to vask_art_release. */
RUXO_EXPORT void *vask_art_search(const vask_art_tree *t, const unsigned char *key, int len);

/* The leaf of the smallest and the largest key (see "Order" above); null for an empty tree. It belongs to the tree and
 * lives as long as its key; its value is as stored, without any hook. */
RUXO_EXPORT const vask_art_leaf *vask_art_minimum(const vask_art_tree *t);
RUXO_EXPORT const vask_art_leaf *vask_art_maximum(const vask_art_tree *t);

/* Gives `key`, which is copied, a value. Returns the value that it had until now, null for a new key. Fatal on a
 * read-only tree. */
RUXO_EXPORT void *vask_art_insert(vask_art_tree *t, const unsigned char *key, int len, void *value);

/* The same, but a key that has a value keeps it: then that is returned and nothing changes. */
RUXO_EXPORT void *vask_art_insert_no_replace(vask_art_tree *t, const unsigned char *key, int len,
                                             void *value);

/* Removes a key and returns its value as stored; null, and nothing changes, if there is none. Fatal on a read-only
 * tree. */
RUXO_EXPORT void *vask_art_delete(vask_art_tree *t, const unsigned char *key, int len);

/* Calls `cb` for every key in order. 0 after all, or else what `cb` returned. */
RUXO_EXPORT int vask_art_iter(const vask_art_tree *t, vask_art_callback cb, void *data);

/* The same for the keys that start with `prefix`; the empty prefix means all. */
RUXO_EXPORT int vask_art_iter_prefix(const vask_art_tree *t, const unsigned char *prefix, int len,
                                     vask_art_callback cb, void *data);

/* Walks the part of the tree below `prefix` from the node where the prefix ends. For each node, all its children are
 * told first: an inner one by the path to it, up to and including its key byte; a leaf by its key. Then it descends
 * into each in the same order, so a leaf below an inner node is told twice, once in each pass. That is on purpose. A
 * path is as long as the real one, but of a compressed path, bytes beyond the tenth read as zero: nodes do not hold
 * them. 0 after all, or else what `pcb` returned. */
RUXO_EXPORT int vask_art_iter_bfsp_prefix(const vask_art_tree *t, const unsigned char *prefix, int len,
                                          vask_art_partial_callback pcb, void *data);

/* Hands a value from search back to the `release` hook, if there is one; and one from `deserialize_tmp` to
 * `release_tmp`, which iterations do by themselves. */
RUXO_EXPORT void vask_art_release(const vask_art_tree *t, void *value);
RUXO_EXPORT void vask_art_release_tmp(const vask_art_tree *t, void *value);

/* ---- images ----
 *
 * A tree can be written into a file and later be used in place, from a read-only private mapping of it. One file holds
 * any number of trees and of blocks of the caller's; the caller keeps the offsets that the writing functions return.
 *
 * To write: vask_art_serializer_new with `create`, then any number of write_tree and write_custom, then finalize, then
 * destroy. To read: vask_art_serializer_new without `create`, a tree_at_offset for each tree, and destroy after the
 * last use of any tree and any value in the mapping. After a failed write the file must not be finalized.
 *
 * Two ways to open a tree. vask_art_serializer_tree_at_offset trusts the image and does not look at it: for files that
 * this library wrote and nobody could have changed. Any other content is walked as it is, out of the mapping or for
 * ever. vask_art_serializer_verified_tree_at_offset reads the whole tree first and refuses what is not one; then every
 * function stays within the mapping. Neither can do anything about a file that is changed or cut while it is mapped.
 *
 * Threads: one writes with a serializer; any number may read trees over one that was opened. */

#define VASK_ART_SER_HDR_LEN 8
#define VASK_ART_SER_FLAGS_OFFSET 6
#define VASK_ART_SER_COMPLETE 1 /* the flag of an image that was finalized; others cannot be opened */
#define ART_DEFAULT_OFFSET 8    /* of the first block */
#define WRITEALIGN 8            /* blocks begin at multiples of this */

/* What an image begins with; both integers are little-endian. */
typedef struct vask_art_ser_hdr {
  uint8_t hdr_ver[4]; /* "ART" and a zero byte */
  uint16_t version;   /* the caller's */
  uint16_t flags;
} vask_art_ser_hdr;

/* An initialiser: version 0, no flags. */
#define VASK_ART_SER_HDR \
  { {0x41, 0x52, 0x54, 0x00}, 0, 0 }

/* With `create`, makes the file `filename`, which must not exist, with mode 0640 less the umask, and writes its header.
 * Otherwise opens it: it must have this `version` and be complete, and is mapped whole. The caller owns the result and
 * releases it with vask_art_serializer_destroy. Null on failure, with the reason in errno: EINVAL for a file that is no
 * image, has another version or was not finalized. A create that fails late leaves the file behind. */
RUXO_EXPORT file_serializer_t *vask_art_serializer_new(const char *filename, uint16_t version, bool create);

/* Unmaps, closes and frees; null is ignored. */
RUXO_EXPORT void vask_art_serializer_destroy(file_serializer_t *ser);

/* Writes the tree `t` and puts the offset of its root, 0 for an empty tree, into `*offset`. `ops` (may be null) and
 * `closure` are those of the image: values go through its `serialize`, and are copied as they are without one. On
 * failure of a write, a hook or an allocation false, with blocks left behind that nothing refers to. */
RUXO_EXPORT bool vask_art_serializer_write_tree(file_serializer_t *ser, const vask_art_tree *t,
                                                vask_art_tree_interposition_t *ops, void *closure,
                                                uintptr_t *offset);

/* Writes `len` bytes, padded with zeros to a multiple of 8. Returns their offset, never 0; 0 on failure, with errno
 * where the system gave one: a short write gives none. */
RUXO_EXPORT uintptr_t vask_art_serializer_write_custom(file_serializer_t *ser, const void *bytes, size_t len);

/* Makes what was written durable, then writes `flags`, which should hold VASK_ART_SER_COMPLETE, then makes that
 * durable. False, with the reason in errno, if any of it fails. */
RUXO_EXPORT bool vask_art_serializer_finalize(file_serializer_t *ser, uint16_t flags);

/* Makes `dt` the tree whose root was written at `offset`, 0 for an empty one. `ops`, which should be read_only, and
 * `closure` are borrowed. Where values were written by a `serialize` hook, `deserialize` and `deserialize_tmp` get
 * their addresses. False, with `dt` an empty tree, when the offset is not within the file or nothing is mapped. The
 * image is not looked at: see above. vask_art_size of the tree is 0, since images do not hold the number. */
RUXO_EXPORT bool vask_art_serializer_tree_at_offset(file_serializer_t *ser, vask_art_tree *dt,
                                                    uintptr_t offset, vask_art_tree_interposition_t *ops,
                                                    void *closure);

/* The same for any bytes. Reads the tree once from end to end, in time and memory that do not exceed what the size of
 * the file allows, and sees to it that its cells lie within the file and apart from each other, that its nodes are
 * whole, that every key lies where its bytes lead, and, where `ops` translates values, that they begin within the file;
 * what stands there is for the hooks to judge. On failure false, `dt` is an empty tree, and `*err` (unless `err` is
 * null) tells what is wrong at which offset, in a text from malloc. */
RUXO_EXPORT bool vask_art_serializer_verified_tree_at_offset(file_serializer_t *ser, vask_art_tree *dt,
                                                             uintptr_t offset,
                                                             vask_art_tree_interposition_t *ops,
                                                             void *closure, char **err);

/* The address of an offset in the mapping, which must be that of a block written before; null when nothing is mapped
 * or the address would wrap. An offset beyond the file is not noticed. */
RUXO_EXPORT const void *vask_art_serializer_offset_to_address(file_serializer_t *ser, uintptr_t offset);

RUXO_END_DECLS

#endif
