// The part of a file that --from and --to choose; the same for every command that reads slots.
#ifndef ORLITH_NNT_RANGE_H
#define ORLITH_NNT_RANGE_H

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>

#include "orlith/nnt_reader.h"
#include "orlith/session.h"

struct NntRangeOptions {
  std::string from, to;  // as typed; empty for the file's own ends
};

void add_range_options(CLI::App &app, NntRangeOptions &options);

struct SlotRange {
  uint64_t first, end;  // slots [first, end)
  uint64_t size() const { return end - first; }
};

// Opens the file and finds the slots: the one that covers `from`, up to but without the first that begins at or after
// `to`. Says what is wrong and gives the exit code in *code when the result is null. A torn end is warned about, and
// *code is then exit_damaged although the file is open; otherwise exit_fine.
std::unique_ptr<NntReader> open_range(const std::string &path, const NntRangeOptions &options,
                                      Session &session, SlotRange *range, int *code);

#endif
