// What the tests of NNT files share: bytes written out by hand, files made of them, and values.
#ifndef TEST_NNT_NNT_SUPPORT_H
#define TEST_NNT_NNT_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "liborlith/nnt/nnt.h"
#include "test/support/temp_dir.h"

namespace nnt_test {

// ---- bytes ----

inline void append_little_endian(std::string *bytes, uint64_t number, int width) {
  for (int i = 0; i < width; ++i) bytes->push_back(static_cast<char>(number >> (8 * i) & 0xff));
}

inline void append_float(std::string *bytes, float number) {
  uint32_t bits = 0;
  memcpy(&bits, &number, sizeof(bits));
  append_little_endian(bytes, bits, 4);
}

inline std::string header(uint32_t period, uint64_t epoch, const std::string &version = "NNT1") {
  std::string bytes = version;
  append_little_endian(&bytes, period, 4);
  append_little_endian(&bytes, epoch, 8);
  return bytes;
}

// Sets the first byte so that the XOR of all 32 is 0.
inline std::string with_checksum(std::string record) {
  uint8_t sum = 0;
  for (size_t i = 1; i < record.size(); ++i)
    sum = static_cast<uint8_t>(sum ^ static_cast<uint8_t>(record[i]));
  record[0] = static_cast<char>(sum);
  return record;
}

// The record of a value, byte by byte, as doc/nnt-file.md has it. For types 1 to 6.
inline std::string record_of(const nnt_multitype &v) {
  std::string bytes(1, '\0');
  append_little_endian(&bytes, static_cast<uint64_t>(v.type) + (v.stddev_present ? 0 : 8), 1);
  append_little_endian(&bytes, v.count > 65535 ? 65535 : v.count, 2);
  append_float(&bytes, v.stddev_present ? v.stddev : 0.0F);
  uint64_t number = 0;
  if (v.type == NNT_TYPE_INT32 || v.type == NNT_TYPE_UINT32) number = v.value.v_uint32;
  if (v.type == NNT_TYPE_INT64 || v.type == NNT_TYPE_UINT64) number = v.value.v_uint64;
  if (v.type == NNT_TYPE_DOUBLE) memcpy(&number, &v.value.v_double, 8);
  append_little_endian(&bytes, number, 8);
  for (const float rate : {v.derivative, v.derivative_stddev, v.counter, v.counter_stddev})
    append_float(&bytes, rate);
  return with_checksum(bytes);
}

inline std::string absent_records(size_t count) {
  return std::string(32 * count, '\0');
}

// ---- values ----

inline nnt_multitype uint64_value(uint64_t number) {
  nnt_multitype v{};
  v.type = NNT_TYPE_UINT64;
  v.count = 1;
  v.value.v_uint64 = number;
  v.derivative = 0.5F;
  v.counter_stddev = -2.0F;
  return v;
}

inline nnt_multitype value_of_type(nnt_type_t type) {
  nnt_multitype v = uint64_value(1);
  v.type = type;
  return v;
}

// A value whose every byte is set, to tell what a call writes.
inline nnt_multitype filler() {
  nnt_multitype v;
  memset(&v, 0x5a, sizeof(v));
  return v;
}

inline bool is_zero(const nnt_multitype &v) {
  const nnt_multitype zero{};
  return memcmp(&v, &zero, sizeof(v)) == 0;
}

// Whether everything that a record stores is the same.
inline bool same_stored(const nnt_multitype &a, const nnt_multitype &b) {
  return a.type == b.type && (a.type == NNT_TYPE_ABSENT || record_of(a) == record_of(b));
}

// ---- handles ----

struct Closer {
  void operator()(nnt_handle *h) const { nnt_close(h); }
  void operator()(nnt_handle_readfast *rf) const { nnt_release_readfast(rf); }
};
using Handle = std::unique_ptr<nnt_handle, Closer>;
using View = std::unique_ptr<nnt_handle_readfast, Closer>;

inline Handle open_file(const std::string &path) {
  char *error = nullptr;
  Handle h(nnt_open(path.c_str(), &error));
  EXPECT_NE(h, nullptr) << (error != nullptr ? error : "no message");
  free(error);
  return h;
}

inline Handle open_bytes(const TempDir &dir, const std::string &name, const std::string &bytes) {
  return open_file(dir.write(name, bytes));
}

inline View view_of(const std::string &bytes) {
  void *copy = malloc(bytes.size() + 1);
  memcpy(copy, bytes.data(), bytes.size());
  nnt_handle_readfast *rf = nnt_acquire_transient(copy, bytes.size());
  if (rf == nullptr) free(copy);
  return View(rf);
}

}  // namespace nnt_test

#endif
