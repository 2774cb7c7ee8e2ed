/* NNT files: one numeric metric's rollup at one fixed period.
 *
 * A file is a 16-byte header and one fixed-size record per period slot from the epoch on, so that the place of a
 * timestamp is found by arithmetic. doc/nnt-file.md describes the bytes. This header is the container: creating,
 * opening, reading, writing and viewing files of any version, through a table of operations that the version in
 * the header selects (nnt_v1.h is the one version there is).
 *
 * Conventions
 * - Timestamps and periods are unsigned integers in one unit, seconds in all callers; nothing here converts them.
 *   A timestamp stands for the slot that covers it: any timestamp inside a period names that period's slot.
 * - Functions returning int give -1 on failure, with errno set when a system call failed. Reads give 1, also for
 *   a slot without data (type NNT_TYPE_ABSENT); writes give the number of records written.
 * - `char **error` may be null. Otherwise it is set to null first and, on failure, to a message that the caller
 *   frees. `const char **error` receives constant text, which is not freed.
 * - A handle or view must not be null unless its function says so.
 * - A handle belongs to one thread at a time; nothing locks. Views only read, so any number of threads may read
 *   one view, and views of one file may be read while a handle writes to it: a record caught half-written fails
 *   its checksum.
 * - Interrupted system calls are repeated. A file that is cut or damaged anywhere gives an error or an absent
 *   slot. A write that fails never leaves a part of a record at the end of a file. */
#ifndef LIBORLITH_NNT_NNT_H
#define LIBORLITH_NNT_NNT_H

#include <sys/types.h>

#include "liborlith/nnt/nnt_multitype.h"
#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* The longest file name, without folders, that callers build for an NNT file. */
#define NNT_MAX_FILE_NAME_LENGTH 255

/* The largest epoch a file may have. */
#define NNT_MAX_EPOCH UINT64_C(4999999999)

/* The first 16 bytes of a file; integers are little-endian. */
typedef struct nnt_hdr {
  char version[4]; /* "NNT1", without a NUL */
  uint32_t period; /* the width of a slot; never 0 in a valid file */
  uint64_t epoch;  /* timestamp of slot 0: a multiple of the period, at most NNT_MAX_EPOCH */
} nnt_hdr;

typedef struct nnt_opset nnt_opset;

/* An open file. Made by nnt_open and its kin, released by nnt_close. */
typedef struct nnt_handle {
  int fd;                 /* owned */
  int dirty;              /* 1 when something was written since the last nnt_sync */
  nnt_hdr hdr;            /* as read when the file was opened */
  const nnt_opset *opset; /* the operations of the file's version */
  void *op_ctx;           /* the version's own data */
  bool sync_on_close;     /* whether nnt_close calls nnt_sync */
} nnt_handle;

/* A read-only view of a whole file image in memory. Made by nnt_acquire_*, released by nnt_release_readfast. */
typedef struct nnt_handle_readfast nnt_handle_readfast;
struct nnt_handle_readfast {
  void *addr; /* the image; its header comes first */
  size_t len; /* bytes of the image */
  nnt_hdr hdr;
  const nnt_opset *opset;
  void *op_ctx;
  void (*dealloc)(nnt_handle_readfast *rf); /* releases `addr` */
};

/* A run of stored records, ready to be written behind `new_hdr` as a file of their own. */
typedef struct nnt_range_raw_data {
  uint64_t original_epoch;      /* of the view */
  uint64_t original_apocalypse; /* of the view: the first timestamp past its last slot */
  uint32_t datapoints;          /* whole records returned */
  nnt_hdr *new_hdr;             /* from the heap, freed by the caller; its epoch is where the run starts */
  int data_size;                /* datapoints * 32 */
  char *data;                   /* inside the view's image: not a copy, valid while the view lives */
} nnt_range_raw_data;

/* What a file version provides; one constant table a version. The functions are described where the calls below
 * forward to them. */
struct nnt_opset {
  int (*init)(nnt_handle *h);   /* at the end of opening; non-zero refuses the file */
  void (*close)(nnt_handle *h); /* may be null */
  int (*get)(nnt_handle *h, uint64_t whence, nnt_multitype *v);
  int (*get_range)(nnt_handle *h, uint64_t whence, int cnt, nnt_multitype *v);
  int (*get_raw_range)(nnt_handle_readfast *rf, uint64_t whence, int cnt, nnt_range_raw_data *data);
  int (*put)(nnt_handle *h, uint64_t whence, const nnt_multitype *v);
  int (*put_range)(nnt_handle *h, uint64_t whence, int cnt, const nnt_multitype *v);
  int (*rewind_epoch)(nnt_handle *h, uint64_t whence, int fd);
  int (*merge)(nnt_handle *dst, nnt_handle *src, const char **error);
  void (*init_readfast)(nnt_handle_readfast *rf, nnt_handle *h); /* h is null for transient views */
  void (*uninit_readfast)(nnt_handle_readfast *rf);
  int (*getfast)(nnt_handle_readfast *rf, uint64_t whence, nnt_multitype *v);
  int (*getfast_apocalypse)(nnt_handle_readfast *rf, uint64_t *whence);
  int (*del)(nnt_handle *h, nnt_handle *h2, uint64_t end);
  int (*get_apocalypse)(nnt_handle *h, uint64_t *whence);
  int (*get_create_time)(nnt_handle *h, uint64_t *whence); /* may be null */
};

/* ---- creating ---- */

/* Creates `file` with permissions `m` (less the umask), holding only a header: `version` (its first four bytes;
 * null for "NNT1"), the period `t` (kept to 32 bits) and the epoch `e`. Returns 0; -1 with errno when `t` is 0 in
 * its 32 bits or `e` is no multiple of `t` (EINVAL), the file exists (EEXIST) or cannot be made, or the header
 * cannot be written whole: then the file is removed again. Any thread. */
RUXO_EXPORT int nnt_create(const char *version, const char *file, uint64_t e, uint64_t t,
                           mode_t m) RUXO_NOEXCEPT;

/* The same for an anonymous file, made beside `filebase` under a name of its own and unlinked at once: it lives as
 * long as the descriptor. `m` has no effect: the file is its owner's only. Returns the descriptor, open for reading
 * and writing and positioned after the header, which the caller owns; -1 with errno. Any thread. */
RUXO_EXPORT int nnt_create_tmp(const char *version, const char *filebase, uint64_t e, uint64_t t,
                               mode_t m) RUXO_NOEXCEPT;

/* ---- opening and closing ---- */

/* Takes over `fd`, open for reading and writing, and checks the header in this order: "could not read header",
 * "unknown version", "invalid period", "epoch misaligned", "bad epoch" (past NNT_MAX_EPOCH), "initialization
 * failed" (for version 1: the size is not a header and whole records). Returns the handle; null with one of these
 * as *error, errno EIO and `fd` closed. */
RUXO_EXPORT nnt_handle *nnt_open_fd_sync(int fd, bool sync_on_close, char **error) RUXO_NOEXCEPT;
/* Opens `file` for reading and writing. As nnt_open_fd_sync; when the file cannot be opened, *error is strerror's
 * text and errno is open's. */
RUXO_EXPORT nnt_handle *nnt_open_sync(const char *file, bool sync_on_close, char **error) RUXO_NOEXCEPT;
/* Both with sync_on_close set. */
RUXO_EXPORT nnt_handle *nnt_open(const char *file, char **error) RUXO_NOEXCEPT;
RUXO_EXPORT nnt_handle *nnt_open_fd(int fd, char **error) RUXO_NOEXCEPT;

/* Makes what was written through this handle durable; without a write since the last call it does nothing. The
 * handle is clean afterwards, whatever happened. Returns 0; -1 with errno when the data may not be on disk. Note
 * that nnt_merge and nnt_rewind_epoch do not mark a handle. */
RUXO_EXPORT int nnt_sync(nnt_handle *h) RUXO_NOEXCEPT;

/* Syncs if sync_on_close is set, closes the descriptor and frees the handle; nothing for null. Returns 0; -1 with
 * errno when that sync failed (the handle is gone all the same). */
RUXO_EXPORT int nnt_close(nnt_handle *h) RUXO_NOEXCEPT;

/* Stores the epoch in *e and the period in *t; either may be null. */
RUXO_EXPORT void nnt_get_metadata(nnt_handle *h, uint64_t *e, uint64_t *t) RUXO_NOEXCEPT;

/* ---- reading and writing through a handle ---- */

/* Reads the slot of `whence` with one positional read. Returns 1 with *v filled; for a slot without data, or
 * outside the file, 1 with only v->type set (absent). -1 when the read fails or the record is damaged; *v may then
 * be partly written. */
RUXO_EXPORT int nnt_get(nnt_handle *h, uint64_t whence, nnt_multitype *v) RUXO_NOEXCEPT;

/* Reads `cnt` consecutive slots from that of `whence` on into v[0] to v[cnt-1] with one positional read. Slots
 * without data, outside the file or damaged have type absent. Returns cnt (as it is when below 1, with nothing
 * read); -1 when the read fails, memory runs out or the file ends inside a record. */
RUXO_EXPORT int nnt_get_range(nnt_handle *h, uint64_t whence, int cnt, nnt_multitype *v) RUXO_NOEXCEPT;

/* Writes the slot of `whence` (see nnt_put_range). Returns 1; 0 when the slot is before the epoch; -1. */
RUXO_EXPORT int nnt_put(nnt_handle *h, uint64_t whence, const nnt_multitype *v) RUXO_NOEXCEPT;

/* Writes `cnt` consecutive slots, the first being that of `whence`, with one positional write. Values before the
 * epoch are passed over. Writing past the end extends the file; the slots between read as absent. An absent value
 * among several clears its slot; a single absent value, or any string, refuses the whole call. Sample counts are
 * stored as at most 65535. `v` is only read. Returns the number of records written, which is less than due when
 * the system took only a part; -1 with nothing written when a value was refused, memory ran out or the write
 * failed; -1 too when the system stopped inside a record, with the records before it written. Sets `dirty`. */
RUXO_EXPORT int nnt_put_range(nnt_handle *h, uint64_t whence, int cnt, const nnt_multitype *v) RUXO_NOEXCEPT;

/* The first timestamp past the last stored slot, in *whence. 0; -1 when `h` is null or its size is unknown. */
RUXO_EXPORT int nnt_get_apocalypse(nnt_handle *h, uint64_t *whence) RUXO_NOEXCEPT;

/* When the file was made, in seconds since the Unix epoch, as far as the version can tell (version 1 takes the time
 * of last access when it was opened; a version that cannot tell gives 0). 0; -1 when `h` is null. */
RUXO_EXPORT int nnt_get_create_time(nnt_handle *h, uint64_t *whence) RUXO_NOEXCEPT;

/* ---- whole files ---- */

/* Copies all of `src` over `dst` at the same timestamps; `src` wins at every slot it covers, also where it has no
 * data. Both must have the same version and period, and `dst` must not start later than `src`: anything else is
 * fatal. Returns 0; -1 with *error "short write" or strerror's text (valid until this thread's next strerror). */
RUXO_EXPORT int nnt_merge(nnt_handle *dst, nnt_handle *src, const char **error) RUXO_NOEXCEPT;

/* Writes to `fd` (open for writing, empty, at offset 0; it stays the caller's) a copy of `h` whose epoch is moved
 * back to the slot of `whence`. Returns 0; -1 when `whence` is 0 or not before the epoch (nothing written), or a
 * system call fails (the copy is then incomplete). */
RUXO_EXPORT int nnt_rewind_epoch(nnt_handle *h, uint64_t whence, int fd) RUXO_NOEXCEPT;

/* Copies what `h` holds from `h2`'s epoch onwards to the start of `h2`, so that `h2`, created with a later epoch,
 * can replace `h` without its older part. `end` has no effect. Returns the number of records copied, 0 when there
 * are none; -1, with errno EINVAL when `h2` starts before `h`. The size of the copy is a signed 32-bit number of
 * bytes: where that wraps to below 1 nothing is copied and the result is 0, where it wraps to another number the
 * result is -1 (EINVAL). So a caller with files of 2 GiB and more must not take 0 for an empty rest. Sets `dirty` on
 * both. */
RUXO_EXPORT int nnt_delete(nnt_handle *h, nnt_handle *h2, uint64_t end) RUXO_NOEXCEPT;

/* Copies every slot of `src` to the front of `dest`, which keeps its own epoch: the image lands there whatever
 * `src`'s epoch was. Returns 0; -1 when either is null, `src` is empty, or not all was read and written. */
RUXO_EXPORT int nnt_image_from(nnt_handle *dest, nnt_handle *src) RUXO_NOEXCEPT;

/* ---- read-only views ---- */

/* Maps the whole file of `h` read-only. The view has the length seen now, shows later writes to those bytes in no
 * particular order, and outlives the handle. The file must not be made shorter while the view lives (nothing here
 * ever does that): reading bytes that are gone is a fault of the memory map. Null with errno on failure. */
RUXO_EXPORT nnt_handle_readfast *nnt_acquire_readfast(nnt_handle *h) RUXO_NOEXCEPT;

/* A view of an image that the caller holds, for instance one received from a peer: `len` bytes at `addr`, of any
 * alignment and content. Only the version is checked; reads stay inside the image whatever the header says. On
 * success the view takes over `addr` and frees it, as memory of malloc (first form) or of mmap (second form).
 * Null, with `addr` still the caller's, when len < 16, the first four bytes are not "NNT1" or memory ran out. */
RUXO_EXPORT nnt_handle_readfast *nnt_acquire_transient(void *addr, size_t len) RUXO_NOEXCEPT;
RUXO_EXPORT nnt_handle_readfast *nnt_acquire_transient_mmap(void *addr, size_t len) RUXO_NOEXCEPT;

/* Frees the view and its image; nothing for null. */
RUXO_EXPORT void nnt_release_readfast(nnt_handle_readfast *rf) RUXO_NOEXCEPT;
/* The two ways a view lets its image go: with free, with munmap. Both accept a null image. */
RUXO_EXPORT void nnt_handle_readfast_free(nnt_handle_readfast *rf) RUXO_NOEXCEPT;
RUXO_EXPORT void nnt_handle_readfast_munmap(nnt_handle_readfast *rf) RUXO_NOEXCEPT;

/* Reads the slot of `whence` without a system call. 1 with *v filled; 1 with type absent for a slot without data or
 * outside the image (the latter with all of *v zero). -1 with all of *v zero for a damaged record, or a header
 * whose period is 0; -1 when `rf` is null. */
RUXO_EXPORT int nnt_get_fast(nnt_handle_readfast *rf, uint64_t whence, nnt_multitype *v) RUXO_NOEXCEPT;

/* Reads `cnt` consecutive slots from that of `whence` on into v[0] to v[cnt-1], each as nnt_get_fast does with a
 * timestamp one period later than the last; timestamps past the end of uint64_t are outside the image. Returns cnt
 * (as it is when below 1), also when some records are damaged: their slots are all zero, so absent. -1 when `rf` is
 * null. */
RUXO_EXPORT int nnt_get_fast_range(nnt_handle_readfast *rf, uint64_t whence, int cnt,
                                   nnt_multitype *v) RUXO_NOEXCEPT;

/* The view's epoch, in *whence. 0; -1 when `rf` is null. */
RUXO_EXPORT int nnt_get_fast_epoch(nnt_handle_readfast *rf, uint64_t *whence) RUXO_NOEXCEPT;

/* The first timestamp past the view's last slot, in *whence: epoch + number of records * period, the product
 * taken modulo 2^32 on purpose, because readers depend on it. 0; -1 when `rf` is null. */
RUXO_EXPORT int nnt_get_fast_apocalypse(nnt_handle_readfast *rf, uint64_t *whence) RUXO_NOEXCEPT;

/* The stored records from the slot of `whence` on (from the epoch when that is later), at most `cnt` of them and at
 * most what data_size can tell, unverified and not copied. `new_hdr`, which the caller frees, is the view's header
 * with the epoch of the first record: `whence` as it was given, so an unaligned `whence` makes an unaligned epoch.
 * When the view ends before `whence` there are 0 records and that epoch is the view's. 0; -1, leaving *data
 * untouched, when `rf` is null or memory ran out. */
RUXO_EXPORT int nnt_get_raw_range(nnt_handle_readfast *rf, uint64_t whence, int cnt,
                                  nnt_range_raw_data *data) RUXO_NOEXCEPT;

RUXO_END_DECLS

#endif
