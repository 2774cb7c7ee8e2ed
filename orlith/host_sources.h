// What a Linux host tells about itself, read from the kernel's own files. One small function a file; all paths
// start at a given root, so that tests read from a folder of their own.
#ifndef ORLITH_HOST_SOURCES_H
#define ORLITH_HOST_SOURCES_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "orlith/sample.h"

// What sources remember from one round to the next.
struct HostState {
  std::optional<uint64_t> available_bytes;  // of memory, in the round before
};

struct HostContext {
  std::string root;  // "" for the machine itself
  HostState state;
};

// Appends what was read. Returns what is wrong, naming the file ("/proc/stat: ..."), or an empty text; then and
// only then are the appended samples complete.
struct HostSource {
  const char *name;
  std::string (*read)(HostContext &context, std::vector<Sample> &samples);
};

std::span<const HostSource> host_sources();

// One round over all sources. A source with a problem contributes nothing, and its problem is appended.
std::vector<Sample> read_host(HostContext &context, std::vector<std::string> &problems);

#endif
