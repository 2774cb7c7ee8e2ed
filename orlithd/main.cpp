#include <fmt/format.h>

#include <cstdio>
#include <exception>
#include <optional>

#include "orlith/exit_code.h"
#include "orlithd/daemon.h"

int main(int argc, char **argv) {
  try {
    block_daemon_signals();
    Options options;
    if (const std::optional<int> code = parse_options(argc, argv, &options)) return *code;
    return run_daemon(options);
  } catch (const std::exception &error) {
    fmt::print(stderr, "orlithd: {}\n", error.what());
    return exit_failed;
  }
}
