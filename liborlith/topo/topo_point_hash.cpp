// The locations of a node's ring points: SHA-256 of 38 bytes each, of which only the last two change.
//
// Those 38 bytes and their padding are one block, so a point costs one compression, and the block is prepared
// once a node. A large ring has millions of points; on x86-64 processors with SHA instructions two
// compressions run side by side, since one alone leaves the unit idle half of the time, and the eight rounds
// that see only the id are done once a node. Everywhere else libcrypto's compression is used, which picks the
// best instructions by itself.
#define OPENSSL_SUPPRESS_DEPRECATED  // the bare compression has no other name in libcrypto
#include <openssl/sha.h>

#include <cstring>

#include "liborlith/topo/topo_private.h"

#if defined(__x86_64__)
#include <cpuid.h>
#include <immintrin.h>
#endif

namespace {

constexpr size_t kIdBytes = 36;
constexpr size_t kBlockBytes = 64;
constexpr uint32_t kMessageBits = (kIdBytes + 2) * 8;

// The padded message of a node's point 0 (FIPS 180-4, section 5.1.1).
void prepare_block(const char *id_str, uint8_t *block) {
  memset(block, 0, kBlockBytes);
  memcpy(block, id_str, kIdBytes);
  block[kIdBytes + 2] = 0x80;
  block[kBlockBytes - 2] = static_cast<uint8_t>(kMessageBits >> 8);
  block[kBlockBytes - 1] = static_cast<uint8_t>(kMessageBits & 0xff);
}

#if defined(__x86_64__)

#define SHA_TARGET __attribute__((target("sha,sse4.1,ssse3")))
#define SHA_INLINE SHA_TARGET __attribute__((always_inline)) inline

alignas(16) constexpr uint32_t kInitial[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                              0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
alignas(16) constexpr uint32_t kRound[64] = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

// The eight working variables in the order the instructions want them, highest lane first.
struct State {
  __m128i abef;
  __m128i cdgh;
};

bool processor_has_sha() {
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0) return false;
  const bool has_sse = (c & bit_SSSE3) != 0 && (c & bit_SSE4_1) != 0;
  if (__get_cpuid_count(7, 0, &a, &b, &c, &d) == 0) return false;
  return has_sse && (b & bit_SHA) != 0;
}

SHA_INLINE __m128i load(const void *from) {
  return _mm_loadu_si128(static_cast<const __m128i *>(from));
}

SHA_INLINE __m128i swap_bytes(__m128i words) {
  return _mm_shuffle_epi8(words, _mm_set_epi8(12, 13, 14, 15, 8, 9, 10, 11, 4, 5, 6, 7, 0, 1, 2, 3));
}

SHA_INLINE State initial_state() {
  const __m128i badc = _mm_shuffle_epi32(load(kInitial), 0xb1);
  const __m128i hgfe = _mm_shuffle_epi32(load(kInitial + 4), 0x1b);
  return {_mm_alignr_epi8(badc, hgfe, 8), _mm_blend_epi16(hgfe, badc, 0xf0)};
}

// Four rounds on four message words.
SHA_INLINE void four_rounds(State *s, __m128i words, int round) {
  const __m128i keyed = _mm_add_epi32(words, load(kRound + round));
  s->cdgh = _mm_sha256rnds2_epu32(s->cdgh, s->abef, keyed);
  s->abef = _mm_sha256rnds2_epu32(s->abef, s->cdgh, _mm_shuffle_epi32(keyed, 0x0e));
}

// The next four message words from the sixteen before them.
SHA_INLINE __m128i next_words(__m128i w0, __m128i w1, __m128i w2, __m128i w3) {
  const __m128i partial = _mm_add_epi32(_mm_sha256msg1_epu32(w0, w1), _mm_alignr_epi8(w3, w2, 4));
  return _mm_sha256msg2_epu32(partial, w3);
}

// Adds the initial state and writes the digest in byte order.
SHA_INLINE void write_digest(const State &s, uint8_t *out) {
  const State start = initial_state();
  const __m128i feba = _mm_shuffle_epi32(_mm_add_epi32(s.abef, start.abef), 0x1b);
  const __m128i dchg = _mm_shuffle_epi32(_mm_add_epi32(s.cdgh, start.cdgh), 0xb1);
  __m128i *to = reinterpret_cast<__m128i *>(out);
  _mm_storeu_si128(to, swap_bytes(_mm_blend_epi16(feba, dchg, 0xf0)));
  _mm_storeu_si128(to + 1, swap_bytes(_mm_alignr_epi8(dchg, feba, 8)));
}

// What the points of a node share: the message words (the third quarter without the point's number) and the
// state after the rounds that see only id characters.
struct NodePrefix {
  __m128i words[4];
  State after_eight;
};

SHA_TARGET NodePrefix prepare_node(const char *id_str) {
  uint8_t block[kBlockBytes];
  prepare_block(id_str, block);
  NodePrefix node;
  for (int i = 0; i < 4; ++i) node.words[i] = swap_bytes(load(block + 16 * i));
  node.after_eight = initial_state();
  four_rounds(&node.after_eight, node.words[0], 0);
  four_rounds(&node.after_eight, node.words[1], 4);
  return node;
}

// `lanes` points side by side, numbered from `first`.
template <int lanes>
SHA_TARGET void hash_side_by_side(const NodePrefix &node, uint32_t first, uint8_t *out) {
  __m128i w[lanes][4];
  State s[lanes];
  for (int lane = 0; lane < lanes; ++lane) {
    // The number is the upper half of the tenth word: the second one of the third quarter.
    const uint32_t number = (first + static_cast<uint32_t>(lane)) << 16;
    w[lane][0] = node.words[0];
    w[lane][1] = node.words[1];
    w[lane][2] = _mm_or_si128(node.words[2], _mm_set_epi32(0, 0, static_cast<int>(number), 0));
    w[lane][3] = node.words[3];
    s[lane] = node.after_eight;
    four_rounds(&s[lane], w[lane][2], 8);
    four_rounds(&s[lane], w[lane][3], 12);
  }
#pragma GCC unroll 12
  for (int quad = 4; quad < 16; ++quad) {
#pragma GCC unroll 4
    for (int lane = 0; lane < lanes; ++lane) {
      __m128i *words = w[lane];
      words[quad % 4] =
          next_words(words[quad % 4], words[(quad + 1) % 4], words[(quad + 2) % 4], words[(quad + 3) % 4]);
      four_rounds(&s[lane], words[quad % 4], 4 * quad);
    }
  }
  for (int lane = 0; lane < lanes; ++lane) write_digest(s[lane], out + TOPO_HASH_SIZE * lane);
}

SHA_TARGET void hash_points_sha(const char *id_str, uint32_t first, uint32_t count, uint8_t *locations) {
  constexpr uint32_t kLanes = 2;
  const NodePrefix node = prepare_node(id_str);
  uint32_t i = 0;
  for (; i + kLanes <= count; i += kLanes) {
    hash_side_by_side<kLanes>(node, first + i, locations + size_t{TOPO_HASH_SIZE} * i);
  }
  for (; i < count; ++i) hash_side_by_side<1>(node, first + i, locations + size_t{TOPO_HASH_SIZE} * i);
}

#endif

}  // namespace

void topo_hash_points_portable(const char *id_str, uint32_t first, uint32_t count, uint8_t *locations) {
  uint8_t block[kBlockBytes];
  prepare_block(id_str, block);
  SHA256_CTX initial;
  SHA256_Init(&initial);
  for (uint32_t i = 0; i < count; ++i) {
    block[kIdBytes] = static_cast<uint8_t>((first + i) >> 8);
    block[kIdBytes + 1] = static_cast<uint8_t>((first + i) & 0xff);
    SHA256_CTX point = initial;
    SHA256_Transform(&point, block);
    uint8_t *out = locations + size_t{TOPO_HASH_SIZE} * i;
    for (const uint32_t word : point.h) {
      for (int shift = 24; shift >= 0; shift -= 8) *out++ = static_cast<uint8_t>(word >> shift);
    }
  }
}

void topo_hash_points(const char *id_str, uint32_t first, uint32_t count, uint8_t *locations) {
#if defined(__x86_64__)
  static const bool has_sha = processor_has_sha();
  if (has_sha) {
    hash_points_sha(id_str, first, count, locations);
    return;
  }
#endif
  topo_hash_points_portable(id_str, first, count, locations);
}
