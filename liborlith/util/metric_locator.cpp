// Making, sharing and freeing metric locators, and reading their fields. The text forms are in
// metric_locator_text.cpp.
#include "liborlith/util/metric_locator.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <string_view>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/liborlith_module.h"
#include "liborlith/topo/topo.h"
#include "liborlith/util/metric_locator_internal.h"
#include "liborlith/util/metric_name.h"
#include "liborlith/util/metric_name_private.h"
#include "ruxo/memory.h"
#include "ruxo/uuid.h"

ruxo_log_stream_t ml_debug_ls = nullptr;
ruxo_log_stream_t ml_error_ls = nullptr;

extern "C" void orlith_metric_locator_lib_init(void) {
  static int started = 0;
  if (!liborlith::first_call(started)) return;
  liborlith::open_streams(ml_debug_ls, "debug/metric_locator", ml_error_ls, "error/metric_locator");
}

namespace {

using Locator = orlith_metric_locator_t;
using Immutable = orlith_metric_locator_immutable_data_t;

constexpr size_t kUuidTextLen = ORLITH_METRIC_LOCATOR_UUID_TEXT_SIZE - 1;
constexpr size_t kNameOffset = kUuidTextLen + 1;  // of the name in a key, after the "-"
constexpr size_t kNameRoom = ORLITH_METRIC_LOCATOR_MAX_NAME + 1;
constexpr std::string_view kStreamTagMark = "|ST[";

// The hashed text: the UUID's 36 characters, "-", the canonical name, in one run so that it is hashed in one go.
struct Key {
  char text[kNameOffset + kNameRoom];
  size_t name_len = 0;

  char *name() { return text + kNameOffset; }
  const char *name() const { return text + kNameOffset; }
};

// A name's length for the "%.*s" of a log line; names are views without a NUL.
int printable_len(size_t len) {
  return len < INT_MAX ? static_cast<int>(len) : INT_MAX;
}

bool canonicalize_name(std::string_view given, Key &key) {
  if (given.empty()) return true;
  const ssize_t len =
      pobe_metric_canonicalize_ex(given.data(), given.size(), key.name(), kNameRoom, true, true, false);
  if (len < 0) {
    ruxo_log(ml_error_ls, "Unable to canonicalize metric name (error code %zd): %.*s\n", len,
             printable_len(given.size()), given.data());
    return false;
  }
  if (static_cast<size_t>(len) >= kNameRoom) {
    ruxo_log(ml_error_ls, "Metric name is too long: %.*s\n", printable_len(given.size()), given.data());
    return false;
  }
  key.name_len = static_cast<size_t>(len);
  ruxo_log(ml_debug_ls, "Canonical ML name: %.*s\n", printable_len(key.name_len), key.name());
  return true;
}

// What a locator made from a name is: one block, these two and then the name with its NUL, the 32-byte hash and
// the 16-byte UUID. The two start as zeros; the rest is written in full.
struct Block {
  Locator locator;
  Immutable immutable;
};
static_assert(sizeof(Block) == sizeof(Locator) + sizeof(Immutable));

Block *allocate_block(const Key &key, const uint8_t *uuid) {
  const size_t text_size = key.name_len + 1;
  void *memory = malloc(sizeof(Block) + text_size + TOPO_HASH_SIZE + RUXO_UUID_SIZE);
  if (memory == nullptr) return nullptr;
  auto *block = new (memory) Block{};
  char *name = reinterpret_cast<char *>(block + 1);
  auto *hash = reinterpret_cast<uint8_t *>(name + text_size);
  memcpy(name, key.name(), key.name_len);
  name[key.name_len] = '\0';
  memcpy(hash + TOPO_HASH_SIZE, uuid, RUXO_UUID_SIZE);

  Immutable &immutable = block->immutable;
  immutable.release = orlith_metric_locator_immutable_data_release;
  immutable.key_mem = name;
  immutable.key_len = static_cast<uint32_t>(key.name_len);
  immutable.hash = hash;
  immutable.check_uuid = hash + TOPO_HASH_SIZE;
  block->locator.immutable = &immutable;
  block->locator.ref_cnt = 1;
  return block;
}

// Completes a block whose tags are parsed.
Locator *finish(Block *block, const Key &key, int32_t account_id, orlith_metric_locator_metric_type_e type) {
  Locator *rval = &block->locator;
  Immutable &immutable = block->immutable;
  const size_t mark = std::string_view(immutable.key_mem, immutable.key_len).find(kStreamTagMark);
  immutable.untagged_metric_name_len =
      mark == std::string_view::npos ? immutable.key_len : static_cast<uint32_t>(mark);
  topo_hash(key.text, kNameOffset + key.name_len, reinterpret_cast<uint8_t *>(block + 1) + key.name_len + 1);
  rval->account_id = account_id;
  rval->type = type;
  return rval;
}

bool parse_tags(Immutable &immutable) {
  mem_reader_t name;
  mem_reader_init_mem(&name, immutable.key_mem, immutable.key_len);
  if (!metric_name_v1_parse(&name, &name, &immutable.stream_tags)) {
    ruxo_log(ml_error_ls, "Unable to parse metric name: %s\n", immutable.key_mem);
    return false;
  }
  ruxo_log(ml_debug_ls, "parsed tags: %d, %p\n", immutable.stream_tags.tag_count,
           static_cast<void *>(immutable.stream_tags.tags));
  return true;
}

// For a name that is canonical as given, which is recognised together with its tags in one pass (and then has no
// NUL in it). Null for every other name, and while somebody follows the steps on a debug stream: then they are
// taken one by one.
Block *make_short_way(std::string_view given, Key &key, const uint8_t *uuid) {
  if (given.empty() || given.size() >= kNameRoom) return nullptr;
  if (ruxo_log_stream_is_live(ml_debug_ls) || ruxo_log_stream_is_live(mn_debug_ls)) return nullptr;
  memcpy(key.name(), given.data(), given.size());
  key.name_len = given.size();
  Block *block = allocate_block(key, uuid);
  if (block == nullptr) return nullptr;
  if (pobe_metric_tagset_init_if_canonical(&block->immutable.stream_tags, block->immutable.key_mem,
                                           key.name_len, reject_artificial_stream_tags)) {
    return block;
  }
  free(block);
  key.name_len = 0;
  return nullptr;
}

Block *make_long_way(std::string_view given, Key &key, const uint8_t *uuid) {
  if (!canonicalize_name(given, key)) return nullptr;
  Block *block = allocate_block(key, uuid);
  if (block == nullptr) return nullptr;
  if (!parse_tags(block->immutable)) {
    free(block);
    return nullptr;
  }
  const Locator *rval = &block->locator;
  liborlith_assert(strlen(rval->immutable->key_mem) == rval->immutable->key_len);
  return block;
}

// `key` holds the UUID text and the dash already.
Locator *create(Key &key, const uint8_t *uuid, const mem_reader_t *name, int32_t account_id, int type) {
  std::string_view given;
  if (name != nullptr) {
    given = {reinterpret_cast<const char *>(mem_reader_get_buffer(name)), mem_reader_get_buffer_size(name)};
  }
  Block *block = make_short_way(given, key, uuid);
  if (block == nullptr) block = make_long_way(given, key, uuid);
  return block == nullptr ? nullptr : finish(block, key, account_id, static_cast<uint16_t>(type));
}

void free_last_values(Locator *loc) {
  if (loc->last_t != nullptr) ruxo_memory_safe_free(loc->last_t->value);
  if (loc->last_h != nullptr) ruxo_memory_safe_free(loc->last_h->serialized_value);
  free(loc->last_t);
  free(loc->last_h);
}

// False when no part of the locator can be in a reader's hands: it never had a text or a histogram, nor a release of
// the host's own, which may count on being called inside a section.
bool needs_section(const Locator *loc) {
  return loc->last_t != nullptr || loc->last_h != nullptr ||
         loc->immutable->release != orlith_metric_locator_immutable_data_release;
}

void destroy(Locator *loc) {
  oil_free(loc->activity_oil);
  if (needs_section(loc)) {
    ruxo_memory_begin();
    free_last_values(loc);
    loc->immutable->release(loc->immutable);
    ruxo_memory_end();
  } else {
    orlith_metric_locator_immutable_data_release(loc->immutable);
  }
  free(loc->last_n);
  free(loc);
}

}  // namespace

// ---- Creation and lifetime

extern "C" Locator *orlith_metric_locator_create_full(int32_t account_id, int type,
                                                      const uint8_t check_uuid[16],
                                                      const mem_reader_t *name) {
  Key key;
  ruxo_uuid_unparse_lower(check_uuid, key.text);
  key.text[kUuidTextLen] = '-';
  return create(key, check_uuid, name, account_id, type);
}

extern "C" Locator *orlith_metric_locator_create(const uint8_t uuid[16], const mem_reader_t *name,
                                                 orlith_metric_locator_metric_type_e type) {
  return orlith_metric_locator_create_full(0, type, uuid, name);
}

extern "C" Locator *orlith_metric_locator_create_from_parts(Immutable *immutable, int32_t account_id,
                                                            orlith_metric_locator_metric_type_e type) {
  auto *rval = static_cast<Locator *>(calloc(1, sizeof(Locator)));
  if (rval == nullptr) return nullptr;
  rval->immutable = immutable;
  rval->account_id = account_id;
  rval->type = type;
  rval->ref_cnt = 1;
  liborlith_assert(strlen(rval->immutable->key_mem) == rval->immutable->key_len);
  return rval;
}

extern "C" Locator *orlith_metric_locator_ref(Locator *loc) {
  __atomic_fetch_add(&loc->ref_cnt, 1U, __ATOMIC_RELAXED);
  return loc;
}

extern "C" void orlith_metric_locator_deref(Locator *loc) {
  if (loc == nullptr) {
    ruxo_log(ml_error_ls, "Attempt to deref null metric locator!\n");
    return;
  }
  // Release our own writes to the thread that frees; acquire everybody's when that is us.
  if (__atomic_fetch_sub(&loc->ref_cnt, 1U, __ATOMIC_ACQ_REL) != 1) return;
  destroy(loc);
}

extern "C" Locator *orlith_metric_locator_clone_without_activity_data(Locator *loc) {
  if (loc == nullptr) return nullptr;
  const mem_reader_t name = orlith_metric_locator_get_name_buf_with_tags(loc);
  Locator *copy =
      orlith_metric_locator_create_full(loc->account_id, loc->type, loc->immutable->check_uuid, &name);
  if (copy != nullptr) copy->egress_function = loc->egress_function;
  return copy;
}

extern "C" Locator *orlith_metric_locator_clone(Locator *loc) {
  Locator *copy = orlith_metric_locator_clone_without_activity_data(loc);
  if (copy == nullptr) return nullptr;
  const activity_lock::SharedGuard guard(&loc->activity_oil_lock);
  if (loc->activity_oil != nullptr) copy->activity_oil = oil_clone(loc->activity_oil);
  return copy;
}

extern "C" void orlith_metric_locator_immutable_data_release(Immutable *immutable) {
  pobe_metric_tagset_cleanup(&immutable->stream_tags);
}

// ---- Setters

extern "C" void orlith_metric_locator_set_accountid(Locator *loc, int32_t account_id) {
  loc->account_id = account_id;
}
extern "C" void orlith_metric_locator_set_type(Locator *loc, orlith_metric_locator_metric_type_e type) {
  loc->type = type;
}
extern "C" void orlith_metric_locator_set_egress_function(Locator *loc,
                                                          metrics_db_egress_function_e function) {
  loc->egress_function = function;
}
extern "C" void orlith_metric_locator_set_surrogate_id(Locator *loc, uint64_t surrogate_id) {
  loc->immutable->surrogate_id = surrogate_id;
}
extern "C" void orlith_metric_locator_mark_canonical(Locator *loc) {
  loc->canonical_copy = true;
}

// ---- Accessors

extern "C" int32_t orlith_metric_locator_get_account_id(const Locator *loc) {
  return loc->account_id;
}
extern "C" orlith_metric_locator_metric_type_e orlith_metric_locator_get_type(const Locator *loc) {
  return loc->type;
}
extern "C" metrics_db_egress_function_e orlith_metric_locator_get_egress_function(const Locator *loc) {
  return loc->egress_function;
}
extern "C" ruxo_boolean orlith_metric_locator_is_canonical(const Locator *loc) {
  return loc->canonical_copy;
}
extern "C" uint64_t orlith_metric_locator_get_surrogate_id(const Locator *loc) {
  return loc == nullptr ? 0 : loc->immutable->surrogate_id;
}
extern "C" const uint8_t *orlith_metric_locator_get_hash(const Locator *loc) {
  return loc->immutable->hash;
}
extern "C" const pobe_metric_tagset_t *orlith_metric_locator_get_stream_tags(const Locator *loc) {
  return &loc->immutable->stream_tags;
}
extern "C" void orlith_metric_locator_get_check_uuid(const Locator *loc, uint8_t out[16]) {
  memcpy(out, loc->immutable->check_uuid, RUXO_UUID_SIZE);
}
extern "C" const char *orlith_metric_locator_get_name_with_tags(const Locator *loc) {
  return loc == nullptr ? nullptr : loc->immutable->key_mem;
}
extern "C" const char *orlith_metric_locator_get_name_without_tags(const Locator *loc) {
  return orlith_metric_locator_get_name_with_tags(loc);
}
extern "C" size_t orlith_metric_locator_get_name_len_with_tags(const Locator *loc) {
  return loc->immutable->key_len;
}
extern "C" size_t orlith_metric_locator_get_name_len_without_tags(const Locator *loc) {
  return loc->immutable->untagged_metric_name_len;
}

namespace {

mem_reader_t name_view(const Locator *loc, size_t len) {
  mem_reader_t view;
  mem_reader_init_mem(&view, len == 0 ? nullptr : loc->immutable->key_mem, len);
  return view;
}

}  // namespace

extern "C" mem_reader_t orlith_metric_locator_get_name_buf_with_tags(const Locator *loc) {
  return name_view(loc, orlith_metric_locator_get_name_len_with_tags(loc));
}
extern "C" mem_reader_t orlith_metric_locator_get_name_buf_without_tags(const Locator *loc) {
  return name_view(loc, orlith_metric_locator_get_name_len_without_tags(loc));
}

// ---- Comparison

extern "C" ruxo_boolean orlith_metric_locator_equal(const Locator *a, const Locator *b) {
  if (a == nullptr || b == nullptr) return ruxo_false;
  const Immutable *left = a->immutable;
  const Immutable *right = b->immutable;
  return orlith_metric_locator_uuid_cmp(a, b) == 0 && left->key_len == right->key_len &&
         memcmp(left->key_mem, right->key_mem, left->key_len) == 0;
}

extern "C" ruxo_boolean orlith_metric_locator_matches(const Locator *a, const Locator *b) {
  if (a == nullptr || b == nullptr) return a == b;
  return memcmp(a->immutable->hash, b->immutable->hash, TOPO_HASH_SIZE) == 0;
}

extern "C" int orlith_metric_locator_uuid_cmp(const Locator *a, const Locator *b) {
  return memcmp(a->immutable->check_uuid, b->immutable->check_uuid, RUXO_UUID_SIZE);
}
