// Finds what was probably meant by a mistyped word.
#ifndef ORLITH_NEAR_MISS_H
#define ORLITH_NEAR_MISS_H

#include <string>
#include <string_view>
#include <vector>

// How many insertions, deletions, replacements and swaps of neighbours turn one word into the other.
size_t edit_distance(std::string_view a, std::string_view b);

// The candidate nearest to `word` (the first of equals), or an empty text when none is near enough to
// suggest: more than a third of the letters would have to change, and the word is not the start of a
// candidate.
std::string nearest(std::string_view word, const std::vector<std::string> &candidates);

#endif
