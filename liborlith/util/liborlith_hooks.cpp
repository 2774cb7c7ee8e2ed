#include "liborlith/util/liborlith_hooks.h"

#include <cstddef>
#include <cstdlib>
#include <cstring>

// Loadable modules walk the list with this layout.
static_assert(sizeof(ruxo_hook_metric_filter_list) == 40 &&
              offsetof(ruxo_hook_metric_filter_list, optional_name) == 0 &&
              offsetof(ruxo_hook_metric_filter_list, proto) == 8 &&
              offsetof(ruxo_hook_metric_filter_list, func) == 16 &&
              offsetof(ruxo_hook_metric_filter_list, closure) == 24 &&
              offsetof(ruxo_hook_metric_filter_list, next) == 32);

// Threads: nodes are published by a releasing swap of this head and found by an acquiring load of it; since nodes are
// immutable and never freed, a walk needs nothing more.
ruxo_hook_metric_filter_list *nh_metric_filter_list = nullptr;

static ruxo_hook_metric_filter_list *first_filter() {
  return __atomic_load_n(&nh_metric_filter_list, __ATOMIC_ACQUIRE);
}

const char *metric_filter_hook_proto(void) {
  return "(void *closure, const char *id, const char *name, int name_len, int account_id)";
}

void metric_filter_hook_register(const char *name, metric_filter_hook_f func, void *closure) {
  auto *node = static_cast<ruxo_hook_metric_filter_list *>(calloc(1, sizeof(ruxo_hook_metric_filter_list)));
  if (name != nullptr) node->optional_name = strdup(name);
  node->proto = metric_filter_hook_proto();
  node->func = func;
  node->closure = closure;
  node->next = first_filter();
  while (!__atomic_compare_exchange_n(&nh_metric_filter_list, &node->next, node, false, __ATOMIC_RELEASE,
                                      __ATOMIC_ACQUIRE)) {
  }
}

ruxo_boolean metric_filter_hook_exists(void) {
  return first_filter() != nullptr;
}

ruxo_hook_return_t metric_filter_hook_invoke(const char *id, const char *name, int name_len, int account_id) {
  ruxo_hook_return_t result = RUXO_HOOK_CONTINUE;
  for (const auto *node = first_filter(); node != nullptr; node = node->next) {
    if (node->func == nullptr) continue;
    // Compared as a number: a filter compiled elsewhere may answer a value that the enumeration does not have.
    const int answer = static_cast<int>(node->func(node->closure, id, name, name_len, account_id));
    if (answer == RUXO_HOOK_ABORT) return RUXO_HOOK_ABORT;
    if (answer == RUXO_HOOK_DONE) result = RUXO_HOOK_DONE;
  }
  return result;
}
