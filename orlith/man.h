// The man page, made from the same model as the help.
#ifndef ORLITH_MAN_H
#define ORLITH_MAN_H

#include <string>

#include "orlith/help.h"

// The whole program as one page of section 1, in the man macros.
std::string man_page(const CommandModel &program, const std::string &version);

#endif
