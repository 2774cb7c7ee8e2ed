// Powers of ten with 128 bits of mantissa, computed by the compiler, and their multiples as doubles. Internal to the
// library.
#ifndef VASKLLHIST_POWERS_PRIVATE_H
#define VASKLLHIST_POWERS_PRIVATE_H

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace vaskllhist {

__extension__ typedef unsigned __int128 uint128;

// mantissa * 2^exponent, the mantissa's top bit set. At most 2^-119 of itself too small: 128 bits less the errors of
// up to 129 steps, each of which rounds down in the last place.
struct WidePower {
  uint128 mantissa;
  int exponent;
};

constexpr uint128 kTopBit = uint128{1} << 127;

constexpr WidePower times_ten(WidePower power) {
  const uint128 m = power.mantissa;
  const uint128 sixteenth = (m >> 4) * 10 + ((m & 15) * 10 >> 4);
  if (sixteenth >= kTopBit) return {sixteenth, power.exponent + 4};
  return {(m >> 3) * 10 + ((m & 7) * 10 >> 3), power.exponent + 3};
}

constexpr WidePower by_ten(WidePower power) {
  const uint128 quotient = power.mantissa / 10;
  const uint128 rest = power.mantissa % 10;
  const int shift = quotient >> 124 != 0 ? 3 : 4;
  return {(quotient << shift) + (rest << shift) / 10, power.exponent - shift};
}

constexpr int kMinPower = -130;
constexpr int kMaxPower = 130;

constexpr std::array<WidePower, kMaxPower - kMinPower + 1> make_powers() {
  std::array<WidePower, kMaxPower - kMinPower + 1> powers{};
  powers[-kMinPower] = {kTopBit, -127};
  for (size_t i = -kMinPower; i + 1 < powers.size(); ++i) powers[i + 1] = times_ten(powers[i]);
  for (size_t i = -kMinPower; i > 0; --i) powers[i - 1] = by_ten(powers[i]);
  return powers;
}

inline constexpr std::array<WidePower, kMaxPower - kMinPower + 1> kPowers = make_powers();

// The double nearest to `factor` * 10^`power`, the factor from 1 to 255. Only multiples of powers up to 10^23 lie in
// the very middle between two doubles, and these powers are exact; all others are far enough from it for 111 bits to
// decide. (The tests compare every bin border with the C library's reading of its decimal text.)
constexpr double multiple_of_power(unsigned factor, int power) {
  const WidePower &wide = kPowers[static_cast<size_t>(power - kMinPower)];
  const uint128 narrow = (wide.mantissa >> 8) * factor;
  const int shift = std::countl_zero(static_cast<uint64_t>(narrow >> 64));
  const uint128 product = narrow << shift;
  const int exponent = wide.exponent + 8 - shift;
  constexpr int dropped = 128 - 53;
  constexpr uint128 half = uint128{1} << (dropped - 1);
  const uint128 rest = product & ((uint128{1} << dropped) - 1);
  uint64_t digits = static_cast<uint64_t>(product >> dropped);
  if (rest > half || (rest == half && (digits & 1) != 0)) ++digits;
  // The top one of the 53 digits adds one to the exponent field, a carry out of them another one: both belong there.
  const auto field = static_cast<uint64_t>(exponent + dropped + 52 + 1023 - 1);
  return std::bit_cast<double>((field << 52) + digits);
}

// The powers of ten that doubles hold exactly.
inline constexpr std::array<double, 23> kExactPowers = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,
                                                        1e8,  1e9,  1e10, 1e11, 1e12, 1e13, 1e14, 1e15,
                                                        1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};

// The same double, sooner for the usual powers: one operation on two exact numbers rounds to the nearest.
inline double quick_multiple_of_power(unsigned factor, int power) {
  constexpr int largest = kExactPowers.size() - 1;
  if (0 <= power && power <= largest) return factor * kExactPowers[static_cast<size_t>(power)];
  if (-largest <= power && power < 0) return factor / kExactPowers[static_cast<size_t>(-power)];
  return multiple_of_power(factor, power);
}

}  // namespace vaskllhist

#endif
