// The module's start-up, its NaN and ignore set, and the accessors of typed values.
#include "liborlith/orollupd/rollup.h"

#include <array>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/liborlith_module.h"
#include "liborlith/orollupd/rollup_private.h"
#include "ruxo/hash.h"

ruxo_log_stream_t orollup_debug_ls = nullptr;
ruxo_log_stream_t orollup_error_ls = nullptr;

double liborlith_private_nan_double = std::numeric_limits<double>::quiet_NaN();
float liborlith_private_nan_float = std::numeric_limits<float>::quiet_NaN();

static_assert(sizeof(metric_value_t) == 24 && offsetof(metric_value_t, storage) == 16);

// ---- Start-up

namespace {

// Filled at configuration time, then only read; so lines are parsed without a lock. The count keeps the set's
// look-up away from the usual case of an empty set.
ruxo_hash_table extensions_to_ignore;
size_t extensions_to_ignore_count = 0;

// A host may store extensions before or after the module's start-up.
void prepare_ignore_set() {
  static std::once_flag prepared;
  std::call_once(prepared, [] { ruxo_hash_init(&extensions_to_ignore); });
}

}  // namespace

extern "C" void orollupd_rollup_init(void) {
  static int started = 0;
  if (!liborlith::first_call(started)) return;
  prepare_ignore_set();
  liborlith::open_streams(orollup_debug_ls, "debug/orollup", orollup_error_ls, "error/orollup");
  init_private_nan();
}

extern "C" void init_private_nan(void) {
  // Divided when the program runs, not when it is compiled: the result then has the same bits as every other
  // undefined result of this machine.
  volatile float single_zero = 0.0F;
  volatile double double_zero = 0.0;
  rollup::adopt_nan(single_zero / single_zero, double_zero / double_zero);
}

void rollup::adopt_nan(float single_nan, double double_nan) noexcept {
  liborlith_private_nan_float = single_nan;
  liborlith_private_nan_double = double_nan;
  if (single_nan != single_nan && double_nan != double_nan) return;
  ruxo_log_go_synch();
  ruxo_log(orollup_error_ls, "Cannot construct a NaN value!\n");
  exit(-1);
}

extern "C" void store_extension_to_ignore(const char *extension) {
  static char present[] = "1";
  prepare_ignore_set();
  ruxo_hash_store(&extensions_to_ignore, extension, strlen(extension), present);
  extensions_to_ignore_count = ruxo_hash_size(&extensions_to_ignore);
}

bool rollup::has_ignored_extension(std::string_view name) noexcept {
  if (extensions_to_ignore_count == 0) return false;
  const size_t colon = name.rfind(':');
  if (colon == std::string_view::npos || colon + 1 == name.size()) return false;
  const std::string_view extension = name.substr(colon + 1);
  return ruxo_hash_retrieve(&extensions_to_ignore, extension.data(), extension.size(), nullptr) != 0;
}

// ---- Types

namespace {

constexpr orlith_metric_type_t kFirstNumericType = ORLITH_METRIC_UINT32;  // 'I'
constexpr size_t kNumericTypeSpan = ORLITH_METRIC_DOUBLE - ORLITH_METRIC_UINT32 + 1;
static_assert(kNumericTypeSpan == 38, "'I' to 'n'");

constexpr std::array<nnt_type_t, kNumericTypeSpan> nnt_types_from_I() {
  std::array<nnt_type_t, kNumericTypeSpan> types{};
  types.fill(NNT_TYPE_NULL);
  types[ORLITH_METRIC_UINT32 - kFirstNumericType] = NNT_TYPE_UINT32;
  types[ORLITH_METRIC_UINT64 - kFirstNumericType] = NNT_TYPE_UINT64;
  types[ORLITH_METRIC_INT32 - kFirstNumericType] = NNT_TYPE_INT32;
  types[ORLITH_METRIC_INT64 - kFirstNumericType] = NNT_TYPE_INT64;
  types[ORLITH_METRIC_DOUBLE - kFirstNumericType] = NNT_TYPE_DOUBLE;
  return types;
}

[[noreturn]] void unknown_type(orlith_metric_type_t type) {
  liborlith_fatal(orollup_error_ls, "[FATAL] Unknown type: 0x%04x\n", type);
}

}  // namespace

extern "C" nnt_type_t metric_to_nnt_type(orlith_metric_type_t in) {
  static constexpr auto kTypes = nnt_types_from_I();
  const orlith_metric_type_t index = in - kFirstNumericType;  // wraps for what lies below
  return index < kTypes.size() ? kTypes[index] : NNT_TYPE_NULL;
}

// ---- Accessors

extern "C" int metric_value_is_negative(const metric_value_t *v) {
  if (v->is_null) return 0;
  switch (v->type) {
    case ORLITH_METRIC_UINT32:
    case ORLITH_METRIC_UINT64:
      return 0;
    case ORLITH_METRIC_INT32:
      return v->storage.v_int32 < 0;
    case ORLITH_METRIC_INT64:
      return v->storage.v_int64 < 0;
    case ORLITH_METRIC_DOUBLE:
      return v->storage.v_double < 0.0;
    default:
      unknown_type(v->type);
  }
}

extern "C" uint64_t metric_value_uint64(const metric_value_t *v) {
  if (v->is_null) unknown_type(v->type);
  switch (v->type) {
    case ORLITH_METRIC_UINT32:
      return v->storage.v_uint32;
    case ORLITH_METRIC_UINT64:
      return v->storage.v_uint64;
    case ORLITH_METRIC_INT32:
      liborlith_assert(v->storage.v_int32 >= 0);
      return static_cast<uint64_t>(v->storage.v_int32);
    case ORLITH_METRIC_INT64:
      liborlith_assert(v->storage.v_int64 >= 0);
      return static_cast<uint64_t>(v->storage.v_int64);
    default:
      unknown_type(v->type);
  }
}

extern "C" int64_t metric_value_int64(const metric_value_t *v) {
  if (v->is_null) unknown_type(v->type);
  switch (v->type) {
    case ORLITH_METRIC_UINT32:
      return v->storage.v_uint32;
    case ORLITH_METRIC_INT32:
      return v->storage.v_int32;
    case ORLITH_METRIC_INT64:
      return v->storage.v_int64;
    default:
      unknown_type(v->type);
  }
}

extern "C" double metric_value_double(const metric_value_t *v) {
  if (v->is_null) return liborlith_private_nan_double;
  switch (v->type) {
    case ORLITH_METRIC_UINT32:
      return v->storage.v_uint32;
    case ORLITH_METRIC_UINT64:
      // The nearest double. Above 2^63 - 1 the machine halves, keeping the low bit for the rounding, and
      // doubles.
      return static_cast<double>(v->storage.v_uint64);
    case ORLITH_METRIC_INT32:
      return v->storage.v_int32;
    case ORLITH_METRIC_INT64:
      return static_cast<double>(v->storage.v_int64);
    case ORLITH_METRIC_DOUBLE:
      return v->storage.v_double;
    default:
      return liborlith_private_nan_double;
  }
}
