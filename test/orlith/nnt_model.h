// Writes NNT files byte by byte, independently of the library.
#ifndef TEST_ORLITH_NNT_MODEL_H
#define TEST_ORLITH_NNT_MODEL_H

#include <cstdint>
#include <cstring>
#include <string>

inline void put_le(std::string &out, uint64_t value, size_t bytes) {
  for (size_t i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i));
}

inline void put_float(std::string &out, float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  put_le(out, bits, 4);
}

inline std::string nnt_header(uint32_t period_s, uint64_t epoch_s) {
  std::string out = "NNT1";
  put_le(out, period_s, 4);
  put_le(out, epoch_s, 8);
  return out;
}

struct RecordModel {
  uint8_t type = 6;  // a double
  uint64_t value_bits = 0;
  uint16_t count = 1;
  bool has_stddev = true;
  float stddev = 0, derivative = 0, derivative_stddev = 0, counter = 0, counter_stddev = 0;
};

inline std::string nnt_record(const RecordModel &model) {
  std::string out;
  put_le(out, static_cast<uint8_t>(model.type | (model.has_stddev ? 0 : 8)), 1);
  put_le(out, model.count, 2);
  put_float(out, model.has_stddev ? model.stddev : 0);
  put_le(out, model.value_bits, 8);
  for (const float value : {model.derivative, model.derivative_stddev, model.counter, model.counter_stddev})
    put_float(out, value);
  uint8_t checksum = 0;
  for (const char byte : out) checksum ^= static_cast<uint8_t>(byte);
  return static_cast<char>(checksum) + out;
}

inline std::string double_record(double value, float derivative = 0) {
  RecordModel model;
  std::memcpy(&model.value_bits, &value, sizeof value);
  model.derivative = derivative;
  return nnt_record(model);
}

inline const std::string absent_record(32, '\0');

// A day of 300-second slots from 2023-11-14T00:00:00Z on: a ramp 0, 1, 2, ...; the third hour has no data.
inline std::string sample_nnt_file() {
  std::string out = nnt_header(300, 1699920000);
  for (int i = 0; i < 288; ++i) out += i >= 24 && i < 36 ? absent_record : double_record(i, 1.0f / 300);
  return out;
}

// The same with slots 32 (no data) and 100 damaged.
inline std::string damaged_nnt_file() {
  std::string out = sample_nnt_file();
  out[16 + 32 * 32 + 5] = 1;
  out[16 + 32 * 100 + 12] ^= 0x40;
  return out;
}

#endif
