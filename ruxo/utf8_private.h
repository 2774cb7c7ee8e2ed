// UTF-8 as RFC 3629 has it: no overlong forms, no surrogates, nothing above U+10FFFF.
#ifndef RUXO_UTF8_PRIVATE_H
#define RUXO_UTF8_PRIVATE_H

#include <cstddef>
#include <string>
#include <string_view>

namespace ruxo {

// The length in bytes (1 to 4) of the well-formed character that `text` begins with; 0 when it begins with
// none.
size_t utf8_character_len(std::string_view text);

bool utf8_is_valid(std::string_view text);

// The text with every byte that is not part of a well-formed character replaced by U+FFFD.
std::string utf8_repaired(std::string_view text);

}  // namespace ruxo

#endif
