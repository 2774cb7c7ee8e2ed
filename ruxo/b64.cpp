#include "ruxo/b64.h"

#include <openssl/evp.h>
#include <string.h>

#include <algorithm>
#include <array>

namespace {

constexpr uint8_t kNotInAlphabet = 0xff;

constexpr std::array<uint8_t, 256> alphabet_values() {
  constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<uint8_t, 256> values{};
  values.fill(kNotInAlphabet);
  for (uint8_t i = 0; i < 64; ++i) values[static_cast<unsigned char>(alphabet[i])] = i;
  return values;
}

constexpr std::array<uint8_t, 256> kValues = alphabet_values();

uint32_t value(char c) {
  return kValues[static_cast<unsigned char>(c)];
}

// Four characters of the alphabet to three bytes. False when one is not of the alphabet.
bool decode_group(const char *src, uint8_t *dest) {
  const uint32_t a = value(src[0]);
  const uint32_t b = value(src[1]);
  const uint32_t c = value(src[2]);
  const uint32_t d = value(src[3]);
  if ((a | b | c | d) >= 64) return false;
  const uint32_t bits = a << 18 | b << 12 | c << 6 | d;
  dest[0] = static_cast<uint8_t>(bits >> 16);
  dest[1] = static_cast<uint8_t>(bits >> 8);
  dest[2] = static_cast<uint8_t>(bits);
  return true;
}

size_t padding(const char *src, size_t len) {
  if (src[len - 1] != '=') return 0;
  return src[len - 2] == '=' ? 2 : 1;
}

// The last group, where `pad` of the characters are padding: the bits that then carry nothing must be zero.
bool decode_last_group(const char *src, size_t pad, uint8_t *dest) {
  char whole[4] = {'A', 'A', 'A', 'A'};
  memcpy(whole, src, 4 - pad);
  uint8_t bytes[3];
  if (!decode_group(whole, bytes)) return false;
  for (size_t i = 3 - pad; i < 3; ++i) {
    if (bytes[i] != 0) return false;
  }
  memcpy(dest, bytes, 3 - pad);
  return true;
}

}  // namespace

size_t ruxo_b64_encode_len(size_t len) {
  const size_t groups = len / 3 + (len % 3 != 0);
  return groups > SIZE_MAX / 4 ? SIZE_MAX : groups * 4;
}

size_t ruxo_b64_encode(const void *src, size_t len, char *dest, size_t dest_len) {
  const size_t encoded_len = ruxo_b64_encode_len(len);
  if (len == 0 || dest_len < encoded_len) return 0;
  const auto *bytes = static_cast<const unsigned char *>(src);
  auto *out = reinterpret_cast<unsigned char *>(dest);
  // The library counts in int and ends its text with a NUL, for which the caller's buffer has no room: so
  // whole groups go out in pieces, each NUL overwritten by the next piece, and the last group by way of a
  // buffer.
  const size_t last_len = len % 3 == 0 ? 3 : len % 3;
  size_t body_len = len - last_len;
  constexpr size_t piece_len = 3u << 20;
  while (body_len > 0) {
    const size_t taken = std::min(body_len, piece_len);
    out += EVP_EncodeBlock(out, bytes, static_cast<int>(taken));
    bytes += taken;
    body_len -= taken;
  }
  unsigned char last[5];
  EVP_EncodeBlock(last, bytes, static_cast<int>(last_len));
  memcpy(out, last, 4);
  return encoded_len;
}

size_t ruxo_b64_max_decode_len(size_t len) {
  return len / 4 * 3 + (len % 4 != 0 ? 3 : 0);
}

size_t ruxo_b64_decode(const char *src, size_t len, void *dest, size_t dest_len) {
  if (len == 0 || len % 4 != 0) return 0;
  const size_t pad = padding(src, len);
  const size_t decoded_len = len / 4 * 3 - pad;
  if (dest_len < decoded_len) return 0;
  auto *out = static_cast<uint8_t *>(dest);
  for (const char *const last = src + len - 4; src < last; src += 4, out += 3) {
    if (!decode_group(src, out)) return 0;
  }
  return decode_last_group(src, pad, out) ? decoded_len : 0;
}
