// An ingestion line, first byte: bundled or not. The whole parser on a NUL-terminated copy and the steps on a block of
// exactly the line's bytes must agree on the code, the value and the locator.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "liborlith/orollupd/rollup.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

struct Result {
  int code = 0;
  uint64_t ts_ms = 0;
  metric_value_t value{};
  orlith_metric_locator_t *loc = nullptr;

  Result() = default;
  Result(const Result &) = delete;
  Result &operator=(const Result &) = delete;
  ~Result() {
    if (has_text()) free(value.storage.v_string);
    if (loc != nullptr) orlith_metric_locator_deref(loc);
  }
  bool has_text() const { return value.type == ORLITH_METRIC_STRING && !value.is_null; }
};

void parse_in_steps(const char *line, size_t len, bool bundled, Result &out) {
  mline_fields_t fields;
  out.code = mline_split(line, len, bundled, &fields);
  if (out.code == -1) return;
  out.ts_ms = fields.whence_ms;
  if (out.code != 1) return;
  const int value_code = mline_value(&fields, &out.value);
  out.code = mline_locator(&fields, &out.loc);
  const bool identity_is_good = out.code == 1 || out.code == -8;
  if (identity_is_good && value_code != 1) out.code = value_code;
}

void require_same(const Result &a, const Result &b) {
  require(a.code == b.code);
  require(a.ts_ms == b.ts_ms);
  if (a.code != 1) {
    require(a.loc == nullptr);
    require(!a.has_text() || a.value.storage.v_string == nullptr);
    return;
  }
  require(a.value.whence_ms == b.value.whence_ms && a.value.type == b.value.type);
  require(a.value.is_null == b.value.is_null);
  if (a.has_text()) {
    require(strcmp(a.value.storage.v_string, b.value.storage.v_string) == 0);
  } else {
    require(a.value.storage.v_uint64 == b.value.storage.v_uint64);
  }
  require(orlith_metric_locator_equal(a.loc, b.loc));
  require(orlith_metric_locator_matches(a.loc, b.loc));
  require(orlith_metric_locator_get_account_id(a.loc) == orlith_metric_locator_get_account_id(b.loc));
  require(orlith_metric_locator_get_type(a.loc) == orlith_metric_locator_get_type(b.loc));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0) return 0;
  const bool bundled = (data[0] & 1) != 0;
  const size_t len = size - 1;
  const std::string copy(reinterpret_cast<const char *>(data + 1), len);
  const std::unique_ptr<char[]> exact(new char[len]);
  if (len != 0) memcpy(exact.get(), data + 1, len);

  Result whole;
  Result steps;
  whole.code = parse_Mline(copy.c_str(), &whole.ts_ms, &whole.loc, &whole.value, bundled);
  parse_in_steps(exact.get(), len, bundled, steps);
  require_same(whole, steps);
  return 0;
}
