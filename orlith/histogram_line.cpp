#include "orlith/histogram_line.h"

#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/liborlith_init.h"
#include "liborlith/util/histogram.h"

namespace {

constexpr size_t kUuidChars = 36;

bool take_field(mline_view_t *rest, mline_view_t *field) {
  const char *tab = static_cast<const char *>(memchr(rest->text, '\t', rest->len));
  if (tab == nullptr) return false;
  *field = {rest->text, static_cast<size_t>(tab - rest->text)};
  *rest = {tab + 1, rest->len - field->len - 1};
  return true;
}

}  // namespace

int histogram_line_split(mline_fields_t *fields) {
  mline_view_t rest = fields->timestamp;
  if (!take_field(&rest, &fields->timestamp)) return -2;
  if (!take_field(&rest, &fields->check)) return -3;
  if (!take_field(&rest, &fields->name)) return -4;
  fields->type = ORLITH_METRIC_HISTOGRAM;
  fields->value = rest;
  return 1;
}

Locator histogram_line_locator(const mline_fields_t &fields, int *code) {
  // The M line's own reader finds the same faults of check and name, without a log line for each.
  orlith_metric_locator_t *made = nullptr;
  *code = mline_locator(&fields, &made);
  Locator tried(made);
  constexpr int kIgnoredExtension = -10;  // an ignored extension is a matter of numbers
  if (*code != 1 && *code != kIgnoredExtension) return nullptr;

  std::string line = "H\t0\t";
  line.append(fields.check.text, fields.check.len).append("\t");
  line.append(fields.name.text, fields.name.len).append("\t");
  std::vector<char> check(line.size());
  uint64_t ignored_time = 0;
  metric_value_t ignored_value;
  made = nullptr;
  *code = decode_histogram_string(line.c_str(), &ignored_time, &made, &ignored_value, true, check.data(),
                                  check.size());
  return Locator(made);
}

std::string locator_key(const orlith_metric_locator_t *locator) {
  std::string key(orlith_metric_locator_get_name_len_with_tags(locator) + kUuidChars + 2, '\0');
  orlith_metric_locator_get_key(locator, key.data(), key.size());
  key.pop_back();
  return key;
}

void start_library() {
  // A stream that exists before the library starts is the one it uses.
  ruxo_log_stream_new("error/metric_locator");
  liborlith_init();
}
