/* How large a file system is, and how much of it is free.
 *
 * The figures are statfs(2)'s. On ZFS these mislead, so the data set's own properties are read there through libzfs.
 * That is looked for at run time, once, when the first path on ZFS is asked about; without it statfs' figures stand. */
#ifndef LIBORLITH_FS_HELPERS_FS_HELPERS_H
#define LIBORLITH_FS_HELPERS_FS_HELPERS_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* Answers for the file system that holds `path`: its identity in *fsid; in bytes its size in *space_total, and in
 * *space_avail what an unprivileged user may still write; and in *compressratio how many times smaller ZFS stores its
 * data, 1.0 elsewhere. Returns 0.0; -1.0, with errno and *compressratio 1.0 and the rest as it was, when the path
 * cannot be looked at. No pointer may be null. Logs only what zfsinfo_dlopen() does. Any thread. */
RUXO_EXPORT double fs_get_avail(const char *path, uint64_t *fsid, uint64_t *space_total,
                                uint64_t *space_avail, double *compressratio);

/* Replaces those of the figures that libzfs tells of the data set at `path`, a path on ZFS; leaves the others. A
 * libzfs that lacks a function is logged to the notice stream once, then done without. Any thread; the first caller
 * loads the library while the others wait. */
RUXO_EXPORT void zfsinfo_dlopen(const char *path, uint64_t *space_total, uint64_t *space_avail,
                                double *compressratio);

RUXO_END_DECLS

#endif
