// The ingestion "M" line: cutting it into fields, reading its value, making its locator. doc/m-line.md has
// the grammar.
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "liborlith/orollupd/rollup.h"
#include "liborlith/orollupd/rollup_private.h"
#include "liborlith/util/text_number_internal.h"
#include "ruxo/uuid.h"

namespace {

constexpr size_t kUuidTextLen = RUXO_UUID_STRING_SIZE - 1;
constexpr std::string_view kAccountMark = "`c_";

std::string_view text_of(const mline_view_t &view) {
  return {view.text, view.len};
}

// Cuts fields off the front of a line, which ends at `end`.
class Cutter {
 public:
  Cutter(const char *at, const char *end) : at_(at), end_(end) {}

  const char *at() const { return at_; }
  mline_view_t rest() const { return {at_, static_cast<size_t>(end_ - at_)}; }

  // Takes the field up to the next TAB, and the TAB; false when there is none.
  bool take_field(mline_view_t *field) {
    const bool is_one_letter =
        end_ - at_ > 1 && at_[0] != '\t' && at_[1] == '\t';  // a record or a value type
    if (is_one_letter) {
      *field = {at_, 1};
      at_ += 2;
      return true;
    }
    const char *tab = static_cast<const char *>(memchr(at_, '\t', static_cast<size_t>(end_ - at_)));
    if (tab == nullptr) return false;
    *field = {at_, static_cast<size_t>(tab - at_)};
    at_ = tab + 1;
    return true;
  }
  bool skip_field() {
    mline_view_t ignored;
    return take_field(&ignored);
  }

 private:
  const char *at_;
  const char *end_;
};

int split(const char *line, const char *end, bool bundled, mline_fields_t *out) {
  Cutter cutter(line, end);
  if (!cutter.skip_field()) return -1;
  if (!bundled && !cutter.skip_field()) return -1;
  out->timestamp = cutter.rest();
  // Read before the record type is looked at, and not bounded by the field: an empty timestamp field reads
  // on.
  out->whence_ms = text_number::read_timestamp_ms(cutter.at(), end);
  if (*line != 'M') return 0;
  if (!cutter.take_field(&out->timestamp)) return -2;
  if (!cutter.take_field(&out->check)) return -3;
  if (!cutter.take_field(&out->name)) return -4;
  out->type = static_cast<uint8_t>(cutter.rest().len == 0 ? 0 : *cutter.at());
  if (!cutter.skip_field()) return -5;
  out->value = cutter.rest();
  return 1;
}

struct Identity {
  ruxo_uuid_t check_uuid;
  int32_t account_id;
};

// The number after the first account marker between the check field's start and the line's end.
int32_t find_account(const mline_fields_t &fields) {
  const char *start = fields.check.text;
  const char *end = fields.value.text + fields.value.len;
  const std::string_view rest(start, static_cast<size_t>(end - start));
  const size_t mark = rest.find(kAccountMark);
  if (mark == std::string_view::npos) return 0;
  return static_cast<int32_t>(text_number::read_int64(start + mark + kAccountMark.size(), end));
}

int read_identity(const mline_fields_t &fields, Identity *out) {
  const mline_view_t &check = fields.check;
  if (check.len < kUuidTextLen) return -6;
  const char *uuid = check.text + (check.len - kUuidTextLen);
  if (ruxo_uuid_parse_n(uuid, kUuidTextLen, out->check_uuid) != 0) {
    ruxo_log(orollup_debug_ls, "ruxo_uuid_parse(%.*s) failed\n", static_cast<int>(kUuidTextLen), uuid);
    return -7;
  }
  out->account_id = check.len > kUuidTextLen ? find_account(fields) : 0;
  return rollup::has_ignored_extension(text_of(fields.name)) ? -10 : 1;
}

int make_locator(const mline_fields_t &fields, const Identity &identity, orlith_metric_locator_t **locator) {
  mem_reader_t name;
  mem_reader_init_mem(&name, fields.name.text, fields.name.len);
  const int kind = fields.type == ORLITH_METRIC_STRING ? METRIC_TYPE_TEXT : METRIC_TYPE_NUMERIC;
  orlith_metric_locator_t *made =
      orlith_metric_locator_create_full(identity.account_id, kind, identity.check_uuid, &name);
  if (made == nullptr) return -8;
  *locator = made;
  return 1;
}

bool is_null_value(std::string_view text) {
  return text == "[[null]]" || text == "[[null]]\n";
}

char *copy_text(const mline_view_t &text) {
  auto *copy = static_cast<char *>(malloc(text.len + 1));
  if (copy == nullptr) return nullptr;
  memcpy(copy, text.text, text.len);
  copy[text.len] = '\0';
  return copy;
}

// Gives a text back on a failure that comes after it was read.
void drop_text(metric_value_t *value) {
  if (value->type != ORLITH_METRIC_STRING || value->is_null) return;
  free(value->storage.v_string);
  value->storage.v_uint64 = 0;
}

}  // namespace

extern "C" int mline_split(const char *line, size_t len, bool bundled, mline_fields_t *out) {
  return split(line, line + strnlen(line, len), bundled, out);
}

extern "C" int mline_value(const mline_fields_t *fields, metric_value_t *value) {
  const char *at = fields->value.text;
  const char *end = at + fields->value.len;
  *value = {};
  value->whence_ms = fields->whence_ms;
  value->type = fields->type;
  value->is_null = is_null_value(text_of(fields->value));
  if (value->is_null) return 1;
  switch (fields->type) {
    case ORLITH_METRIC_UINT32:
      value->storage.v_uint32 = static_cast<uint32_t>(text_number::read_uint64(at, end));
      return 1;
    case ORLITH_METRIC_UINT64:
      value->storage.v_uint64 = text_number::read_uint64(at, end);
      return 1;
    case ORLITH_METRIC_INT32:
      value->storage.v_int32 = static_cast<int32_t>(text_number::read_int64(at, end));
      return 1;
    case ORLITH_METRIC_INT64:
      value->storage.v_int64 = text_number::read_int64(at, end);
      return 1;
    case ORLITH_METRIC_DOUBLE:
      value->storage.v_double = text_number::read_double(at, end);
      return 1;
    case ORLITH_METRIC_STRING:
      value->storage.v_string = copy_text(fields->value);
      return value->storage.v_string != nullptr ? 1 : -9;
    default:
      return -9;
  }
}

extern "C" int mline_locator(const mline_fields_t *fields, orlith_metric_locator_t **locator) {
  Identity identity;
  const int code = read_identity(*fields, &identity);
  return code == 1 ? make_locator(*fields, identity, locator) : code;
}

extern "C" int parse_Mline(const char *line, uint64_t *ts_ms, orlith_metric_locator_t **metric_locator,
                           metric_value_t *value, bool is_bundled_line) {
  mline_fields_t fields;
  Identity identity;
  *value = {};
  int code = split(line, line + strlen(line), is_bundled_line, &fields);
  if (code == -1) return code;
  *ts_ms = value->whence_ms = fields.whence_ms;
  if (code != 1) return code;
  // A bad identity counts before a bad value, and the locator, the costly part, comes last.
  if ((code = read_identity(fields, &identity)) != 1) return code;
  if ((code = mline_value(&fields, value)) != 1) return code;
  if ((code = make_locator(fields, identity, metric_locator)) != 1) drop_text(value);
  return code;
}
