#include "ruxo/uuid.h"

#include <string.h>
#include <uuid/uuid.h>

#include <array>
#include <bit>

namespace {

constexpr size_t kTextLen = RUXO_UUID_STRING_SIZE - 1;
constexpr uint8_t kNotHex = 0xf0;  // any high bit marks a fault, so faults can be collected by or-ing

constexpr std::array<uint8_t, 256> hex_values() {
  std::array<uint8_t, 256> values{};
  values.fill(kNotHex);
  for (uint8_t i = 0; i < 10; ++i) values[static_cast<size_t>('0') + i] = i;
  for (uint8_t i = 0; i < 6; ++i) {
    values[static_cast<size_t>('a') + i] = static_cast<uint8_t>(10 + i);
    values[static_cast<size_t>('A') + i] = static_cast<uint8_t>(10 + i);
  }
  return values;
}

constexpr std::array<uint8_t, 256> kHexValues = hex_values();
// Where each byte's two digits begin in the text.
constexpr std::array<uint8_t, RUXO_UUID_SIZE> kDigitsAt = {0,  2,  4,  6,  9,  11, 14, 16,
                                                           19, 21, 24, 26, 28, 30, 32, 34};

using DigitPair = std::array<char, 2>;

constexpr std::array<DigitPair, 256> digit_pairs() {
  constexpr char digits[] = "0123456789abcdef";
  std::array<DigitPair, 256> pairs{};
  for (size_t byte = 0; byte < pairs.size(); ++byte) pairs[byte] = {digits[byte >> 4], digits[byte & 15]};
  return pairs;
}

constexpr std::array<DigitPair, 256> kDigitPairs = digit_pairs();

uint8_t hex_value(char digit) {
  return kHexValues[static_cast<unsigned char>(digit)];
}

// The byte that the two digits at `text` make; what is no digit shows in the high bits of `faults`.
uint32_t take_pair(const char *text, uint32_t &faults) {
  const uint32_t high = hex_value(text[0]);
  const uint32_t low = hex_value(text[1]);
  faults |= high | low;
  return high << 4 | low;
}

// The eight bytes whose digits begin at these places, the first one highest. The places are constants and a
// word grows by shifting, so all is done in registers: an array of bytes would be written and at once read
// back.
template <size_t... kPlaces>
uint64_t parse_half(const char *text, uint32_t &faults) {
  static_assert(sizeof...(kPlaces) == RUXO_UUID_SIZE / 2);
  uint64_t bytes = 0;
  ((bytes = bytes << 8 | take_pair(text + kPlaces, faults)), ...);
  return bytes;
}

void store_big_endian(uint64_t bytes, uint8_t *out) {
  if constexpr (std::endian::native == std::endian::little) bytes = __builtin_bswap64(bytes);
  memcpy(out, &bytes, sizeof bytes);
}

// One pass without a branch per digit: this runs once for every ingested line.
int parse_36(const char *text, uint8_t *out) {
  if (text[8] != '-' || text[13] != '-' || text[18] != '-' || text[23] != '-') return -1;
  uint32_t faults = 0;
  const uint64_t first = parse_half<0, 2, 4, 6, 9, 11, 14, 16>(text, faults);
  const uint64_t second = parse_half<19, 21, 24, 26, 28, 30, 32, 34>(text, faults);
  if (faults >= 16) return -1;
  store_big_endian(first, out);
  store_big_endian(second, out + RUXO_UUID_SIZE / 2);
  return 0;
}

}  // namespace

int ruxo_uuid_parse(const char *text, uint8_t *out) {
  return ruxo_uuid_parse_n(text, strnlen(text, kTextLen + 1), out);
}

int ruxo_uuid_parse_n(const char *text, size_t len, uint8_t *out) {
  return len == kTextLen ? parse_36(text, out) : -1;
}

void ruxo_uuid_unparse_lower(const uint8_t *uuid, char *out) {
  for (size_t i = 0; i < RUXO_UUID_SIZE; ++i) memcpy(out + kDigitsAt[i], kDigitPairs[uuid[i]].data(), 2);
  out[8] = out[13] = out[18] = out[23] = '-';
  out[kTextLen] = '\0';
}

void ruxo_uuid_generate(uint8_t *out) {
  uuid_generate_random(out);
}

int ruxo_uuid_compare(const uint8_t *a, const uint8_t *b) {
  return memcmp(a, b, RUXO_UUID_SIZE);
}
