// Bits of a packed stream. Bit k of a stream is bit k % 8 of its byte k / 8, and numbers have their lowest bit first:
// so the bits of a number stand in a little-endian 64-bit word as they stand in the stream, and all writing and
// reading below is done with such words.
//
//   byte      0        1        2
//   bits   76543210 76543210 76543210      the number 0b1011 at stream bit 6:
//            11           10                its bits 0 and 1 in bits 6 and 7 of byte 0, its bits 2 and 3 in byte 1
#ifndef LIBORLITH_UTIL_CFSSZ_BITS_PRIVATE_H
#define LIBORLITH_UTIL_CFSSZ_BITS_PRIVATE_H

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>

namespace liborlith {

static_assert(std::endian::native == std::endian::little, "words are laid over the stream as they are");

// These are inlined into the loop over a record's fields, which keeps their members in registers.
#define CFSSZ_INLINE __attribute__((always_inline)) inline

template <typename Word>
CFSSZ_INLINE Word load_word(const uint8_t *from) noexcept {
  Word word;
  memcpy(&word, from, sizeof(word));
  return word;
}

template <typename Word>
CFSSZ_INLINE void store_word(uint8_t *to, Word word) noexcept {
  memcpy(to, &word, sizeof(word));
}

// The lowest `n` bits set; 1 <= n <= 64.
constexpr uint64_t low_bits(unsigned n) noexcept {
  return ~uint64_t{0} >> (64 - n);
}

constexpr uint64_t swap_bytes(uint64_t word) noexcept {
  return __builtin_bswap64(word);
}
constexpr uint32_t swap_bytes(uint32_t word) noexcept {
  return __builtin_bswap32(word);
}

// The number of bytes that hold `bits` bits.
constexpr size_t bytes_for(size_t bits) noexcept {
  return bits / 8 + (bits % 8 != 0);
}

enum class Bounds {
  checked,  // stays within the buffer whatever is read or written
  ample     // the caller has seen to it that whole words fit wherever the record may end
};

// Writes on from a bit of a stream. `word_` are the 64 bits from `at_` on as far as they are known: `fill_` of them
// (fewer than 64) are written, those above are zero.
// The caller has made sure that what is put fits; with Bounds::ample, 8 bytes more may be written over.
template <Bounds kBounds>
class BitWriter {
 public:
  static constexpr bool kWrites = true;

  BitWriter(uint8_t *bytes, size_t len, size_t bit_offset) noexcept
      : bytes_(bytes), end_(bytes + len), at_(bytes + bit_offset / 8), fill_(bit_offset % 8) {
    if (fill_ == 0) return;
    above_ = *at_;
    above_at_ = at_;
    word_ = above_ & low_bits(fill_);
  }

  // The `n` (1 to 64) lowest bits of `value`, which has no others.
  CFSSZ_INLINE void put(uint64_t value, unsigned n) noexcept {
    const uint64_t word = word_ | value << fill_;
    store(word);
    const uint64_t rest = (value >> 1) >> (63 - fill_);
    const unsigned filled = fill_ + n;
    word_ = filled >= 64 ? rest : word;
    at_ += filled / 64 * 8;
    fill_ = filled % 64;
  }

  // One bit 0. Those above it in a byte that was begun before stay what they were, which only put_bytes ever sees;
  // those of a byte that it begins are zero, whatever the buffer held.
  CFSSZ_INLINE void put_zero() noexcept { put(0, 1); }

  // The bytes of a word, the lowest first. Off a byte boundary they are placed by a rule of their own, which no
  // reader undoes and which is kept on purpose: with o = position % 8, each byte b turns the current byte into its
  // own bits o to 7 and, below them, the top o bits of b; the next byte becomes b << o. As a big-endian number that
  // is the word shifted left by o, into bytes that begin before the position (tests: CfsszRaw.*).
  template <typename Word>
  CFSSZ_INLINE void put_bytes(Word bytes) noexcept {
    if (fill_ % 8 == 0) {
      put(bytes, 8 * sizeof(Word));
    } else {
      put_bytes_off_boundary(bytes);
    }
  }

  // Writes what is left; the position in bits.
  CFSSZ_INLINE size_t finish() noexcept {
    if (fill_ % 8 != 0) word_ |= kept_above() << (fill_ & ~7u);
    store(word_);
    return static_cast<size_t>(at_ - bytes_) * 8 + fill_;
  }

 private:
  CFSSZ_INLINE void store(uint64_t word) noexcept {
    if constexpr (kBounds == Bounds::ample) {
      store_word(at_, word);
    } else {
      memcpy(at_, &word, std::min<size_t>(sizeof(word), static_cast<size_t>(end_ - at_)));
    }
  }

  // What the current byte, partly written, keeps above the position: its old bits if nothing but single bits was
  // written to it since they were known. (Any longer number ends in another byte.)
  uint64_t kept_above() const noexcept {
    return at_ + fill_ / 8 == above_at_ ? above_ & ~low_bits(fill_ % 8) : 0;
  }

  template <typename Word>
  __attribute__((noinline)) void put_bytes_off_boundary(Word bytes) noexcept {
    constexpr unsigned kBits = 8 * sizeof(Word);
    const unsigned o = fill_ % 8;
    const Word number = swap_bytes(bytes);
    const uint64_t first = kept_above() | (number >> (kBits - o));
    const Word shifted = swap_bytes(static_cast<Word>(number << o));
    fill_ -= o;
    word_ &= fill_ == 0 ? 0 : low_bits(fill_);
    put(first, 8);
    put(shifted & low_bits(kBits - 8), kBits - 8);
    above_ = shifted >> (kBits - 8);
    put(0, o);
    above_at_ = at_ + fill_ / 8;
  }

  uint8_t *bytes_;
  uint8_t *end_;
  uint8_t *at_;
  uint64_t word_ = 0;
  unsigned fill_;
  uint64_t above_ = 0;                 // the whole byte at `above_at_`, as it was when that was set
  const uint8_t *above_at_ = nullptr;  // the last byte that may hold something above the position
};

// Counts the bits that a writer would write.
class BitCounter {
 public:
  static constexpr bool kWrites = false;

  explicit BitCounter(size_t bit_offset) noexcept : bits_(bit_offset) {}
  CFSSZ_INLINE void put(uint64_t, unsigned n) noexcept { bits_ += n; }
  CFSSZ_INLINE void put_zero() noexcept { ++bits_; }
  template <typename Word>
  CFSSZ_INLINE void put_bytes(Word) noexcept {
    bits_ += 8 * sizeof(Word);
  }
  size_t bits() const noexcept { return bits_; }

 private:
  size_t bits_;
};

// Reads on from a bit of a stream.
template <Bounds kBounds>
class BitReader {
 public:
  BitReader(const uint8_t *bytes, size_t len, size_t bit_offset) noexcept
      : bytes_(bytes), len_(std::min(len, std::numeric_limits<size_t>::max() / 8)), offset_(bit_offset) {}

  size_t offset() const noexcept { return offset_; }

  // The next 57 bits or more; zeros where the buffer has ended.
  CFSSZ_INLINE uint64_t peek() const noexcept {
    const size_t byte = offset_ / 8;
    if constexpr (kBounds == Bounds::ample) {
      return load_word<uint64_t>(bytes_ + byte) >> (offset_ % 8);
    } else {
      uint64_t word = 0;
      if (byte < len_) memcpy(&word, bytes_ + byte, std::min<size_t>(sizeof(word), len_ - byte));
      return word >> (offset_ % 8);
    }
  }

  // Goes on by `n` bits; false if they are not all within the buffer.
  CFSSZ_INLINE bool skip(unsigned n) noexcept {
    offset_ += n;
    return kBounds == Bounds::ample || offset_ <= len_ * 8;
  }

  // The next `n` (1 to 64) bits; false, with the position anywhere, if they are not all within the buffer.
  CFSSZ_INLINE bool take(unsigned n, uint64_t *value) noexcept {
    const size_t byte = offset_ / 8;
    const unsigned o = offset_ % 8;
    const uint64_t low = peek();
    if (!skip(n)) return false;
    // The ninth byte is looked at only where it is needed, so that none beyond the end is.
    const uint64_t ninth = kBounds == Bounds::ample || o + n > 64 ? bytes_[byte + 8] : 0;
    *value = (low | (ninth << 1) << (63 - o)) & low_bits(n);
    return true;
  }

 private:
  const uint8_t *bytes_;
  size_t len_;
  size_t offset_;
};

}  // namespace liborlith

#endif
