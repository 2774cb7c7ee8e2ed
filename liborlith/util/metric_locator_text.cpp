// The forms in which a metric locator is written and read: key, type words, JSON, base64 path.
// doc/metric-locator.md shows each one.
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <string_view>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_locator_internal.h"
#include "ruxo/b64.h"
#include "ruxo/json.h"
#include "ruxo/uuid.h"

namespace {

using Locator = orlith_metric_locator_t;

constexpr size_t kUuidTextLen = ORLITH_METRIC_LOCATOR_UUID_TEXT_SIZE - 1;
constexpr size_t kPathNameOffset = kUuidTextLen + 1;  // of the encoded name in a path, after the "/"

std::string_view name_of(const Locator *loc) {
  return {loc->immutable->key_mem, loc->immutable->key_len};
}

Locator *create_from_text(int32_t account_id, int type, const uint8_t *uuid, const void *name,
                          size_t name_len) {
  mem_reader_t view;
  mem_reader_init_mem(&view, name, name_len);
  return orlith_metric_locator_create_full(account_id, type, uuid, &view);
}

// Bytes on the stack when they fit, else on the heap. `data` is null when the heap has none left.
template <size_t kStackSize>
class Scratch {
 public:
  explicit Scratch(size_t size) {
    if (size > kStackSize) heap_.reset(new (std::nothrow) char[size]);
    data_ = size > kStackSize ? heap_.get() : stack_;
  }
  char *data() { return data_; }

 private:
  char stack_[kStackSize];
  std::unique_ptr<char[]> heap_;
  char *data_;
};

}  // namespace

// ---- Key, UUID and type

extern "C" char *orlith_metric_locator_get_key(const Locator *loc, char *buf, size_t len) {
  const std::string_view name = name_of(loc);
  if (name.size() + kUuidTextLen + 2 > len) return nullptr;
  ruxo_uuid_unparse_lower(loc->immutable->check_uuid, buf);
  buf[kUuidTextLen] = '-';
  memcpy(buf + kUuidTextLen + 1, name.data(), name.size());
  buf[kUuidTextLen + 1 + name.size()] = '\0';
  return buf;
}

extern "C" void orlith_metric_locator_get_check_uuid_str_buf(const Locator *loc, mem_reader_t *out) {
  if (mem_reader_get_buffer_size(out) < ORLITH_METRIC_LOCATOR_UUID_TEXT_SIZE) {
    liborlith_fatal(
        ml_error_ls,
        "[FATAL] orlith_metric_locator_get_check_uuid_str_buf caller does not allocate enough space.\n");
  }
  // The reader describes memory that the caller lets us write; its type is the one of views that are only
  // read.
  char *text = reinterpret_cast<char *>(const_cast<uint8_t *>(mem_reader_get_buffer(out)));
  ruxo_uuid_unparse_lower(loc->immutable->check_uuid, text);
  out->input_buffer_size = kUuidTextLen;
}

extern "C" char *orlith_metric_locator_get_type_str(const Locator *loc, char *buf, size_t len) {
  if (len == 0) return buf;
  buf[0] = '\0';
  const unsigned type = loc->type;
  const bool numeric = (type & METRIC_TYPE_NUMERIC) != 0;
  const bool histogram = (type & METRIC_TYPE_HISTOGRAM) != 0;
  const bool text = (type & METRIC_TYPE_TEXT) != 0;
  // One byte less than the buffer has: what readers of these texts have always seen in buffers that are too
  // small.
  const size_t limit = len - 1;
  if (type == METRIC_TYPE_UNKNOWN) {
    snprintf(buf, limit, "unknown");
  } else if (type == METRIC_TYPE_ANY) {
    snprintf(buf, limit, "any");
  } else if (type > (METRIC_TYPE_HISTOGRAM | METRIC_TYPE_TEXT)) {
    snprintf(buf, limit, "invalid: 0x%04x", type);
  } else {
    snprintf(buf, limit, "%s%s%s%s%s", numeric ? "numeric" : "", numeric && histogram ? "," : "",
             histogram ? "histogram" : "", (numeric || histogram) && text ? "," : "", text ? "text" : "");
  }
  return buf;
}

// ---- JSON

extern "C" ruxo_json_object *orlith_metric_locator_to_json(const Locator *loc) {
  const std::string_view name = name_of(loc);
  char uuid[ORLITH_METRIC_LOCATOR_UUID_TEXT_SIZE];
  ruxo_uuid_unparse_lower(loc->immutable->check_uuid, uuid);
  ruxo_json_object *obj = ruxo_json_new_object();
  ruxo_json_object_set(obj, "account_id", ruxo_json_new_int(loc->account_id));
  ruxo_json_object_set(obj, "check_uuid", ruxo_json_new_string(uuid));
  ruxo_json_object_set(obj, "metric_name", ruxo_json_new_string_len(name.data(), name.size()));
  ruxo_json_object_set(obj, "metric_type", ruxo_json_new_int(loc->type));
  return obj;
}

namespace {

// The member when it is present and of the type, else null.
const ruxo_json_object *member(const ruxo_json_object *obj, const char *key, ruxo_json_type_t type) {
  ruxo_boolean present = ruxo_false;
  const ruxo_json_object *value = ruxo_json_object_get(obj, key, &present);
  return present && ruxo_json_type(value) == type ? value : nullptr;
}

// An integer modulo 2^64, whichever of the two ranges of JSON integers it is in.
uint64_t integer_bits(const ruxo_json_object *value) {
  return ruxo_json_is_int64(value) ? static_cast<uint64_t>(ruxo_json_int(value)) : ruxo_json_uint(value);
}

bool read_account(const ruxo_json_object *obj, int32_t *account_id) {
  ruxo_boolean present = ruxo_false;
  ruxo_json_object_get(obj, "account_id", &present);
  const ruxo_json_object *account = member(obj, "account_id", RUXO_JSON_INT);
  if (account != nullptr) *account_id = static_cast<int32_t>(integer_bits(account));
  return !present || account != nullptr;
}

bool read_uuid(const ruxo_json_object *obj, uint8_t *uuid) {
  const ruxo_json_object *check_uuid = member(obj, "check_uuid", RUXO_JSON_STRING);
  if (check_uuid == nullptr) return false;
  size_t len = 0;
  const char *text = ruxo_json_string(check_uuid, &len);
  return ruxo_uuid_parse_n(text, len, uuid) == 0;
}

}  // namespace

extern "C" Locator *orlith_metric_locator_from_json(const ruxo_json_object *obj) {
  if (obj == nullptr || ruxo_json_type(obj) != RUXO_JSON_OBJECT) return nullptr;
  int32_t account_id = -1;
  ruxo_uuid_t uuid;
  if (!read_account(obj, &account_id) || !read_uuid(obj, uuid)) return nullptr;
  const ruxo_json_object *type = member(obj, "metric_type", RUXO_JSON_INT);
  const ruxo_json_object *name = member(obj, "metric_name", RUXO_JSON_STRING);
  if (type == nullptr || name == nullptr) return nullptr;
  size_t name_len = 0;
  const char *name_text = ruxo_json_string(name, &name_len);
  return create_from_text(account_id, static_cast<uint16_t>(integer_bits(type)), uuid, name_text, name_len);
}

// ---- Base64 path

extern "C" size_t orlith_metric_locator_b64_path(const Locator *loc, char *buf, size_t len) {
  if (len < kPathNameOffset) return 0;
  ruxo_uuid_unparse_lower(loc->immutable->check_uuid, buf);
  const std::string_view name = name_of(loc);
  if (name.empty()) return kPathNameOffset;
  buf[kUuidTextLen] = '/';
  char *encoded = buf + kPathNameOffset;
  const size_t encoded_len = ruxo_b64_encode_len(name.size());
  ruxo_b64_encode(name.data(), name.size(), encoded, encoded_len);
  // The first character stays as it is encoded: existing trees hold such paths.
  for (size_t i = 1; i < encoded_len; ++i) {
    if (encoded[i] == '/') encoded[i] = '_';
  }
  encoded[encoded_len] = '\0';
  return kPathNameOffset;
}

namespace {

// The decoded name's length, or 0.
size_t decode_path_name(const char *encoded, size_t encoded_len, char *name, size_t name_room) {
  Scratch<136> standard(encoded_len);
  if (standard.data() == nullptr) return 0;
  for (size_t i = 0; i < encoded_len; ++i) standard.data()[i] = encoded[i] == '_' ? '/' : encoded[i];
  return ruxo_b64_decode(standard.data(), encoded_len, name, name_room);
}

// The UUID at the start of a path, which may go on with "/".
bool parse_path_uuid(const char *path, uint8_t *uuid) {
  if (strnlen(path, kUuidTextLen) < kUuidTextLen) return false;
  const char next = path[kUuidTextLen];
  return (next == '\0' || next == '/') && ruxo_uuid_parse_n(path, kUuidTextLen, uuid) == 0;
}

}  // namespace

extern "C" Locator *orlith_metric_locator_from_b64_path(const char *uuid_str, const char *b64path) {
  if (uuid_str == nullptr || b64path == nullptr) return nullptr;
  ruxo_uuid_t uuid;
  if (!parse_path_uuid(uuid_str, uuid)) return nullptr;
  const size_t encoded_len = strlen(b64path);
  const size_t name_room = ruxo_b64_max_decode_len(encoded_len);
  Scratch<99> name(name_room);  // most names are short
  if (name.data() == nullptr) return nullptr;
  const size_t name_len = decode_path_name(b64path, encoded_len, name.data(), name_room);
  if (name_len == 0) return nullptr;
  return create_from_text(0, METRIC_TYPE_NUMERIC, uuid, name.data(), name_len);
}
