// Activity from JSON of any shape: an array is taken and nothing else, the list that comes of it is valid, holds what
// the intervals of the form [start, end] say, and is empty when there are none.
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string_view>

#include "liborlith/util/metric_locator.h"
#include "liborlith/util/oil.h"
#include "ruxo/json.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

constexpr double kPeriodS = 300.0;

// Whether `bound` is a whole number with a period of its own, from the text of the number.
bool has_period(const ruxo_json_object *bound) {
  if (ruxo_json_type(bound) != RUXO_JSON_INT) return false;
  const double seconds = ruxo_json_double(bound);
  return seconds > -kPeriodS && seconds < (std::numeric_limits<uint32_t>::max() + 1.0) * kPeriodS;
}

// Returns whether the element counts, after checking that the list has all of it.
bool check_element(oil_list_t *list, const ruxo_json_object *element) {
  if (ruxo_json_type(element) != RUXO_JSON_ARRAY || ruxo_json_array_length(element) != 2) return false;
  const ruxo_json_object *start = ruxo_json_array_get(element, 0);
  const ruxo_json_object *end = ruxo_json_array_get(element, 1);
  if (!has_period(start) || !has_period(end)) return false;
  const auto first = static_cast<uint32_t>(ruxo_json_int(start) / 300);
  const auto last = static_cast<uint32_t>(ruxo_json_int(end) / 300);
  if (first > last || (first == 0 && last == 0)) return false;
  require(oil_find(list, first, nullptr) == 1 && oil_find(list, last, nullptr) == 1);
  require(oil_range_contains(list, first, last, nullptr) == 1);
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  ruxo_json_object *json = ruxo_json_parse_n(reinterpret_cast<const char *>(data), size);
  if (json == nullptr) return 0;
  const uint8_t uuid[16] = {};
  orlith_metric_locator_t *loc = orlith_metric_locator_create(uuid, nullptr, METRIC_TYPE_NUMERIC);
  orlith_metric_locator_record_activity(loc, 3000000);
  const bool taken = orlith_metric_locator_set_activity_from_json(loc, json) == 1;
  require(taken == (ruxo_json_type(json) == RUXO_JSON_ARRAY));
  oil_list_t *list = orlith_metric_locator_get_activity(loc);
  require(oil_valid(list) == 1);
  size_t counted = 0;
  for (size_t i = 0; i < ruxo_json_array_length(json); ++i) {
    counted += check_element(list, ruxo_json_array_get(json, i)) ? 1 : 0;
  }
  if (taken) require((oil_size(list) == 0) == (counted == 0) && oil_size(list) <= counted);
  if (!taken) require(oil_size(list) == 1 && oil_find(list, 10000, nullptr) == 1);
  orlith_metric_locator_deref(loc);
  ruxo_json_free(json);
  return 0;
}
