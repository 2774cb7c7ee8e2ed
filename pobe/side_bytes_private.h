// The bytes that a plain side of a tag cannot hold. Internal to the library.
#ifndef POBE_SIDE_BYTES_PRIVATE_H
#define POBE_SIDE_BYTES_PRIVATE_H

#include <array>
#include <cstdint>

namespace pobe {

// For each byte, the kinds of side that it stops.
constexpr uint8_t kStopsCategory = 1;
constexpr uint8_t kStopsValue = 2;

constexpr std::array<uint8_t, 256> make_side_stops() {
  std::array<uint8_t, 256> stops{};
  for (const char byte : {',', '|', '[', ']', '{', '}', '"'})
    stops[static_cast<uint8_t>(byte)] = kStopsCategory | kStopsValue;
  stops[static_cast<uint8_t>(':')] = kStopsCategory;
  return stops;
}

inline constexpr std::array<uint8_t, 256> kSideStops = make_side_stops();

}  // namespace pobe

#endif
