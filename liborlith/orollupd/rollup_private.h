// What the files of this folder share: the ignore set, the not-a-number check.
#ifndef LIBORLITH_OROLLUPD_ROLLUP_PRIVATE_H
#define LIBORLITH_OROLLUPD_ROLLUP_PRIVATE_H

#include <string_view>

#include "liborlith/orollupd/rollup.h"

namespace rollup {

// Whether the name's part after its last ":" is in the ignore set.
bool has_ignored_extension(std::string_view name) noexcept;

// Makes these two the process's NaNs, or ends the process when either equals itself.
void adopt_nan(float single_nan, double double_nan) noexcept;

}  // namespace rollup

#endif
