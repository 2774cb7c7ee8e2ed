// What the tests of proxy buffers share: the module, started once in a process, and buffers that end by themselves.
#ifndef TEST_UTIL_VASK_PROXY_BUFFER_SUPPORT_H
#define TEST_UTIL_VASK_PROXY_BUFFER_SUPPORT_H

#include <memory>
#include <string>

#include "liborlith/util/vask_proxy_buffer.h"
#include "test/support/temp_dir.h"

namespace proxy_buffer_test {

struct Destroy {
  void operator()(vask_proxy_buffer_t *pb) const { vask_proxy_buffer_destroy(pb); }
};
using Buffer = std::unique_ptr<vask_proxy_buffer_t, Destroy>;

inline constexpr int kTimeoutMs = 20000;

// The folder that the module was started with.
inline const std::string &spool_root() {
  static const TempDir folder;
  static const std::string root = [] {
    vask_proxy_buffer_init(folder.file("deep/er").c_str(), kTimeoutMs);
    return folder.file("deep/er");
  }();
  return root;
}

}  // namespace proxy_buffer_test

#endif
