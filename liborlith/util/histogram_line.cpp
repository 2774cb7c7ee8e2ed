// The histogram line: cutting it into fields, making its locator, trying its histogram. doc/histogram-line.md
// has the grammar.
#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "liborlith/util/histogram.h"
#include "liborlith/util/text_number_internal.h"
#include "ruxo/log.h"
#include "ruxo/uuid.h"

namespace {

constexpr size_t kUuidTextLen = RUXO_UUID_STRING_SIZE - 1;
constexpr std::string_view kAccountMark = "`c_";
constexpr int kOutOfMemory = -9;

struct Fields {
  std::string_view timestamp;
  std::string_view check;
  std::string_view name;
  std::string_view histogram;  // the rest of the line, up to its NUL
};

// Takes the field up to the next TAB, and the TAB; false when there is none.
bool take_field(std::string_view &line, std::string_view *field) {
  const size_t tab = line.find('\t');
  if (tab == std::string_view::npos) return false;
  *field = line.substr(0, tab);
  line.remove_prefix(tab + 1);
  return true;
}

// 1, or the code of the first field that does not end in a TAB.
int split(std::string_view line, bool bundled, Fields *out) {
  std::string_view skipped;
  if (!take_field(line, &skipped)) return -1;
  if (!bundled && !take_field(line, &skipped)) return -1;
  if (!take_field(line, &out->timestamp)) return -2;
  if (!take_field(line, &out->check)) return -3;
  if (!take_field(line, &out->name)) return -4;
  out->histogram = line;
  return 1;
}

// As much of `text` as fits into `len` bytes with a NUL. Returns what was copied.
std::string_view copy_cut(std::string_view text, char *out, size_t len) {
  if (len == 0) return {};
  const size_t copied = std::min(text.size(), len - 1);
  memcpy(out, text.data(), copied);
  out[copied] = '\0';
  return {out, copied};
}

// The number after the first mark in the copy of the check field; 0 without one.
int32_t find_account(std::string_view copy) {
  const size_t mark = copy.find(kAccountMark);
  if (mark == std::string_view::npos) return 0;
  const char *digits = copy.data() + mark + kAccountMark.size();
  return static_cast<int32_t>(text_number::read_int64(digits, copy.data() + copy.size()));
}

int make_locator(const Fields &fields, char *cid_str, size_t cid_str_len,
                 orlith_metric_locator_t **metric_locator) {
  const std::string_view check = fields.check;
  if (check.size() < kUuidTextLen) return -6;
  const char *uuid_text = check.data() + (check.size() - kUuidTextLen);
  ruxo_uuid_t uuid;
  if (ruxo_uuid_parse_n(uuid_text, kUuidTextLen, uuid) != 0) {
    ruxo_log(ruxo_error, "ruxo_uuid_parse(%.*s) failed\n", static_cast<int>(kUuidTextLen), uuid_text);
    return -7;
  }
  int32_t account_id = 0;
  if (cid_str != nullptr) {
    // The search is in the copy on purpose: hosts that give a short buffer, or none, get the account of what
    // they kept.
    const std::string_view copy = copy_cut(check, cid_str, cid_str_len);
    if (check.size() > kUuidTextLen) account_id = find_account(copy);
  }
  mem_reader_t name;
  mem_reader_init_mem(&name, fields.name.data(), fields.name.size());
  orlith_metric_locator_t *made =
      orlith_metric_locator_create_full(account_id, METRIC_TYPE_HISTOGRAM, uuid, &name);
  if (made == nullptr) {
    const int shown = static_cast<int>(std::min<size_t>(fields.name.size(), INT_MAX));
    ruxo_log(ruxo_error, "metric_name_v1_parse(%.*s) failed\n", shown, fields.name.data());
    return -8;
  }
  *metric_locator = made;
  return 1;
}

// ---- The histogram

std::string_view without_newlines(std::string_view text) {
  if (text.size() < 2) return text;
  while (!text.empty() && text.back() == '\n') text.remove_suffix(1);
  return text;
}

struct HistogramFree {
  void operator()(histogram_t *histogram) const { hist_free(histogram); }
};

// 1 when the text is a histogram, 0 when it is not, or kOutOfMemory.
int try_decode(std::string_view text) {
  const std::unique_ptr<histogram_t, HistogramFree> histogram(hist_alloc());
  if (histogram == nullptr) return kOutOfMemory;
  return hist_deserialize_b64(histogram.get(), text.data(), text.size()) >= 0 ? 1 : 0;
}

// Sets everything but the value's time: 1, or kOutOfMemory.
int read_value(std::string_view text, metric_value_t *value) {
  value->type = ORLITH_METRIC_STRING;
  value->is_null = true;
  if (text.empty()) return 1;
  const int decoded = try_decode(without_newlines(text));
  if (decoded == kOutOfMemory) return decoded;
  if (decoded == 0) {
    ruxo_log(ruxo_error, "Failed to deserialize histogram: |%s|\n", text.data());
    return 1;
  }
  auto *copy = static_cast<char *>(malloc(text.size() + 1));
  if (copy == nullptr) return kOutOfMemory;
  memcpy(copy, text.data(), text.size() + 1);  // the line's NUL too
  value->is_null = false;
  value->storage.v_string = copy;
  return 1;
}

}  // namespace

extern "C" int decode_histogram_string(const char *line, uint64_t *rawtime,
                                       orlith_metric_locator_t **metric_locator, metric_value_t *value,
                                       bool is_bundled_line, char *cid_str, size_t cid_str_len) {
  Fields fields;
  *value = {};
  int code = split(line, is_bundled_line, &fields);
  if (code == -1 || code == -2) return code;
  const std::string_view timestamp = fields.timestamp;
  *rawtime = value->whence_ms =
      text_number::read_timestamp_ms(timestamp.data(), timestamp.data() + timestamp.size());
  if (code != 1) return code;
  orlith_metric_locator_t *made = nullptr;
  if ((code = make_locator(fields, cid_str, cid_str_len, &made)) != 1) return code;
  if ((code = read_value(fields.histogram, value)) != 1) {
    orlith_metric_locator_deref(made);
    return code;
  }
  *metric_locator = made;
  return 1;
}
