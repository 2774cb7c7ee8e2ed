#include "pobe/context_private.h"

#include <new>

pobe_metric_tagset_context_t *pobe_metric_tagset_context_alloc(void) {
  return new (std::nothrow) pobe_metric_tagset_context;
}

void pobe_metric_tagset_context_free(pobe_metric_tagset_context_t *ctx) {
  delete ctx;
}

void pobe_metric_tagset_context_set_validate_function(pobe_metric_tagset_context_t *ctx,
                                                      pobe_metric_tagset_validate_f fn) {
  if (ctx != nullptr) ctx->validate = fn;
}
