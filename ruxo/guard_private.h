// What keeps C++ exceptions inside the library.
#ifndef RUXO_GUARD_PRIVATE_H
#define RUXO_GUARD_PRIVATE_H

#include <utility>

namespace ruxo {

// The result of `work`, or `fallback` when it throws (which is: when memory ran out).
template <class Result, class Work>
Result guarded(Result fallback, Work &&work) noexcept {
  try {
    return std::forward<Work>(work)();
  } catch (...) {
    return fallback;
  }
}

}  // namespace ruxo

#endif
