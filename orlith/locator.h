// Metric locators as the commands make them from what a user wrote.
#ifndef ORLITH_LOCATOR_H
#define ORLITH_LOCATOR_H

#include <memory>
#include <string>
#include <string_view>

#include "liborlith/util/metric_locator.h"

struct DerefLocator {
  void operator()(orlith_metric_locator_t *locator) const { orlith_metric_locator_deref(locator); }
};
using Locator = std::unique_ptr<orlith_metric_locator_t, DerefLocator>;

// The locator of a numeric metric; `check_uuid` is a valid UUID's text. Null when the name, in any spelling, is
// refused; `*fault` then says why.
Locator make_locator(const std::string &check_uuid, std::string_view name, std::string *fault);

#endif
