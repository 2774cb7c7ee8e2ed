#include "orlith/json.h"

#include <cstdlib>

Json Json::of_float(float value) {
  // The double with the float's shortest digits prints as those digits.
  return {strtod(shortest(value).c_str(), nullptr)};
}
