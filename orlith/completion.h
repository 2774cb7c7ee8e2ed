// Completion scripts for shells, made from the same model as the help.
#ifndef ORLITH_COMPLETION_H
#define ORLITH_COMPLETION_H

#include <string>

#include "orlith/help.h"

std::string bash_completion(const CommandModel &program);
std::string zsh_completion(const CommandModel &program);
std::string fish_completion(const CommandModel &program);

#endif
