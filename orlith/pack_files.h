// What `orlith pack` and `orlith unpack` share: their arguments, writing the result, telling the sizes.
#ifndef ORLITH_PACK_FILES_H
#define ORLITH_PACK_FILES_H

#include <span>
#include <string>
#include <vector>

#include "orlith/cli.h"
#include "orlith/packed_rollup.h"

struct PackFiles {
  std::string from, to;
};

void add_file_options(CLI::App &app, PackFiles &files, const char *from_what);

// exit_usage, with a message, when both names are the same file: nothing is changed in place.
int check_names(const PackFiles &files, Session &session);

// Writes the pieces one after the other to a file that appears whole. exit_fine, or exit_failed with a message.
struct Piece {
  const void *bytes;
  size_t len;
};
int write_whole(const std::string &path, const std::vector<Piece> &pieces, Session &session);

// Both sizes and their ratio, for people or as JSON.
void report_sizes(const PackFiles &files, const Rollup &rollup, uint64_t packed_bytes, Session &session);

#endif
