/* Deferred reclamation: memory that concurrent readers may still look at is freed only after every section that
 * could see it has ended. Sections nest and are per thread; a thread registers itself on first use. */
#ifndef RUXO_MEMORY_H
#define RUXO_MEMORY_H

#include "ruxo/base.h"

RUXO_BEGIN_DECLS

RUXO_EXPORT void ruxo_memory_begin(void);
RUXO_EXPORT void ruxo_memory_end(void);
/* Whether this thread is inside a section. */
RUXO_EXPORT ruxo_boolean ruxo_memory_in_cs(void);
/* Memory that can later be given to ruxo_memory_safe_free; null when there is none left. */
RUXO_EXPORT void *ruxo_memory_safe_malloc(size_t size);
RUXO_EXPORT void *ruxo_memory_safe_calloc(size_t count, size_t size);
RUXO_EXPORT char *ruxo_memory_safe_strdup(const char *text);
/* Frees after all sections that are now open have ended; null is ignored. Safe inside and outside a section. */
RUXO_EXPORT void ruxo_memory_safe_free(void *p);
/* Waits until everything given to safe_free so far by this thread is freed. Not inside a section. */
RUXO_EXPORT void ruxo_memory_synchronize(void);

RUXO_END_DECLS

#endif
