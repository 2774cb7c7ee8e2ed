/* Deferred reclamation: memory that concurrent readers may still look at is freed only after every section
 * that could see it has ended. A reader opens a section, fetches a shared pointer, looks, closes the section;
 * a writer replaces the pointer and gives the old block to ruxo_memory_safe_free(). Neither waits for the
 * other.
 *
 * Sections nest and are per thread; a thread registers itself on first use, and leaves its unfinished frees
 * to the others when it ends. No loop has to run: a block that no open section can see is freed by the call
 * itself; one that has to wait, as the sections in its way close, by the thread that closes the last, even when
 * the thread that asked never calls again. A section that stays open for long holds back all that is freed
 * meanwhile, and at most what still waited as it was opened. A forked child keeps the sections of the one
 * thread that it has. All functions may be called on any thread. A violated rule ("must") is fatal: one line on
 * the error stream, then abort().
 */
#ifndef RUXO_MEMORY_H
#define RUXO_MEMORY_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

/* Opens a section of this thread, or one more inside it. Fatal when a first section finds no memory for the
 * thread's record (256 bytes). */
RUXO_EXPORT void ruxo_memory_begin(void);

/* Closes the innermost section, which must be open; the outermost may then free what waited for it. Sections of
 * a thread end with it at the latest. */
RUXO_EXPORT void ruxo_memory_end(void);

/* Whether this thread is inside a section. */
RUXO_EXPORT ruxo_boolean ruxo_memory_in_cs(void);

/* A block of `size` bytes, aligned as malloc does, which only ruxo_memory_safe_free() may free; null when
 * there is no memory. */
RUXO_EXPORT void *ruxo_memory_safe_malloc(size_t size);

/* The same for `count` times `size` bytes, all zero; null also when the product overflows. */
RUXO_EXPORT void *ruxo_memory_safe_calloc(size_t count, size_t size);

/* A copy of the text and its NUL in such a block; null when there is no memory. */
RUXO_EXPORT char *ruxo_memory_safe_strdup(const char *text);

/* Takes over a block of the functions above, and frees it after all sections that are now open, on any thread
 * and also on this one, have ended. New readers must not be able to find it any more. Inside or outside a
 * section; never waits. Null is ignored. */
RUXO_EXPORT void ruxo_memory_safe_free(void *p);

/* Waits until everything that this thread has given to ruxo_memory_safe_free() is freed: until all sections
 * of other threads that are open now have ended. Must not be called inside a section. */
RUXO_EXPORT void ruxo_memory_synchronize(void);

RUXO_END_DECLS

#endif
