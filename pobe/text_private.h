// What every text of a name must be: UTF-8 without control characters. Internal to the library.
#ifndef POBE_TEXT_PRIVATE_H
#define POBE_TEXT_PRIVATE_H

#include <string_view>

namespace pobe {

// 0 when `text` is well-formed UTF-8 (RFC 3629: no overlong forms, no surrogates, nothing above U+10FFFF)
// without U+0000 to U+001F, U+007F and U+0080 to U+009F; otherwise POBE_E_UTF8 or POBE_E_CONTROL for the
// first offence.
[[nodiscard]] int check_text(std::string_view text) noexcept;

}  // namespace pobe

#endif
