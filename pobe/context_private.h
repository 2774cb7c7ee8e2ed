// How a tag list is to be parsed. Internal to the library.
#ifndef POBE_CONTEXT_PRIVATE_H
#define POBE_CONTEXT_PRIVATE_H

#include "pobe/pobe.h"

struct pobe_metric_tagset_context {
  pobe_metric_tagset_validate_f validate = nullptr;
};

#endif
