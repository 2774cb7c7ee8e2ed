// The grammar of RFC 8259, and what a 64-bit program can hold of it.
#ifndef RUXO_JSON_GRAMMAR_PRIVATE_H
#define RUXO_JSON_GRAMMAR_PRIVATE_H

#include <string_view>

namespace ruxo {

// Whether the text is one JSON value with nothing but white space around it, and can be read without loss:
// valid UTF-8, every escaped surrogate one of a pair, no NUL in a member's name, integers within int64_t or
// uint64_t, containers nested at most RUXO_JSON_MAX_DEPTH deep. The size of fractional numbers is not looked
// at.
bool json_is_well_formed(std::string_view text);

}  // namespace ruxo

#endif
