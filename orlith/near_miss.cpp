#include "orlith/near_miss.h"

#include <algorithm>

size_t edit_distance(std::string_view a, std::string_view b) {
  // Three rows of the usual table: the swap looks two rows back.
  std::vector<size_t> before(b.size() + 1), previous(b.size() + 1), current(b.size() + 1);
  for (size_t j = 0; j <= b.size(); ++j) current[j] = j;
  for (size_t i = 1; i <= a.size(); ++i) {
    before.swap(previous);
    previous.swap(current);
    current[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t replaced = previous[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      current[j] = std::min({replaced, previous[j] + 1, current[j - 1] + 1});
      if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1])
        current[j] = std::min(current[j], before[j - 2] + 1);
    }
  }
  return current[b.size()];
}

std::string nearest(std::string_view word, const std::vector<std::string> &candidates) {
  const std::string *best = nullptr;
  size_t best_distance = std::max<size_t>(1, word.size() / 3) + 1;
  for (const std::string &candidate : candidates) {
    const size_t distance = edit_distance(word, candidate);
    if (distance < best_distance) {
      best = &candidate;
      best_distance = distance;
    }
  }
  if (best != nullptr) return *best;
  // "comp" is far from "completion" by count, but clearly its beginning.
  const auto begins = [&](const std::string &candidate) {
    return word.size() >= 3 && candidate.starts_with(word);
  };
  const auto found = std::find_if(candidates.begin(), candidates.end(), begins);
  return found == candidates.end() ? std::string() : *found;
}
