// The two written forms of a locator: a base64 path (UUID, "/", name) and a JSON object. What is read must survive
// being written and read again.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "liborlith/util/metric_locator.h"
#include "ruxo/b64.h"
#include "ruxo/json.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

void check_path(const orlith_metric_locator_t *loc) {
  const size_t name_len = orlith_metric_locator_get_name_len_with_tags(loc);
  std::vector<char> path(38 + ruxo_b64_encode_len(name_len));
  require(orlith_metric_locator_b64_path(loc, path.data(), path.size()) == 37);
  orlith_metric_locator_t *back = orlith_metric_locator_from_b64_path(path.data(), path.data() + 37);
  require((back != nullptr) == (name_len != 0));
  if (back == nullptr) return;
  require(orlith_metric_locator_equal(loc, back) && orlith_metric_locator_matches(loc, back));
  orlith_metric_locator_deref(back);
}

void check_json(const orlith_metric_locator_t *loc) {
  ruxo_json_object *obj = orlith_metric_locator_to_json(loc);
  orlith_metric_locator_t *back = orlith_metric_locator_from_json(obj);
  require(back != nullptr && orlith_metric_locator_equal(loc, back));
  require(orlith_metric_locator_get_type(back) == orlith_metric_locator_get_type(loc));
  require(orlith_metric_locator_get_account_id(back) == orlith_metric_locator_get_account_id(loc));
  orlith_metric_locator_deref(back);
  ruxo_json_free(obj);
}

void check(orlith_metric_locator_t *loc) {
  if (loc == nullptr) return;
  check_path(loc);
  check_json(loc);
  orlith_metric_locator_deref(loc);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const std::string text(reinterpret_cast<const char *>(data), size);
  ruxo_json_object *obj = ruxo_json_parse_n(text.data(), text.size());
  if (obj != nullptr) check(orlith_metric_locator_from_json(obj));
  ruxo_json_free(obj);
  check(orlith_metric_locator_from_b64_path(text.c_str(), size > 37 ? text.c_str() + 37 : ""));
  return 0;
}
