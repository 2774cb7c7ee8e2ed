#include "liborlith/fs_helpers/fs_helpers.h"

#include <dlfcn.h>
#include <sys/statfs.h>
#include <sys/vfs.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "ruxo/log.h"

namespace {

constexpr long kZfsMagic = 0x2fc12fc1;  // f_type of a path on ZFS

// What this file needs of libzfs, whose headers are no requirement: functions, opaque handles, the numbers that
// its releases 2 give to properties (zfs_prop_t) and types of data sets (zfs_type_t).
enum ZfsProperty : int { kUsed = 2, kAvailable = 3, kCompressRatio = 5 };
constexpr int kTypeFilesystem = 1;
constexpr size_t kSourceBytes = 256;
struct LibHandle;
struct DatasetHandle;

struct LibZfs {
  LibHandle *(*init)(void);
  void (*fini)(LibHandle *);
  DatasetHandle *(*open)(LibHandle *, const char *path, int type);
  void (*close)(DatasetHandle *);
  int (*get_numeric)(DatasetHandle *, int property, uint64_t *value, int *source, char *source_text,
                     size_t source_text_len);
};

// In the order of the members above.
constexpr const char *kSymbols[] = {"libzfs_init", "libzfs_fini", "zfs_path_to_zhandle", "zfs_close",
                                    "zfs_prop_get_numeric"};
constexpr size_t kSymbolCount = sizeof kSymbols / sizeof kSymbols[0];
static_assert(sizeof(LibZfs) == kSymbolCount * sizeof(void *));

LibZfs zfs;               // written before finished_dlopen, only read after it
bool zfs_loaded = false;  // likewise
std::atomic<bool> tried_dlopen{false};
std::atomic<bool> finished_dlopen{false};

bool resolve(void *library) noexcept {
  void *found[kSymbolCount];
  for (size_t i = 0; i < kSymbolCount; ++i) {
    found[i] = dlsym(library, kSymbols[i]);
    if (found[i] != nullptr) continue;
    const char *const reason = dlerror();
    ruxo_log(ruxo_notice, "Cannot locate %s function: %s\n", kSymbols[i],
             reason != nullptr ? reason : "it is null");
    return false;
  }
  memcpy(&zfs, found, sizeof zfs);
  return true;
}

void load() noexcept {
  void *library = dlopen("libzfs.so.2", RTLD_LAZY | RTLD_GLOBAL);
  if (library == nullptr) library = dlopen("libzfs.so", RTLD_LAZY | RTLD_GLOBAL);
  if (library == nullptr) return;
  zfs_loaded = resolve(library);
  if (!zfs_loaded) dlclose(library);
}

// Whether libzfs is there. The first caller of all looks for it.
bool loaded() noexcept {
  if (!tried_dlopen.exchange(true)) {
    load();
    finished_dlopen.store(true, std::memory_order_release);
  }
  while (!finished_dlopen.load(std::memory_order_acquire)) std::this_thread::yield();
  return zfs_loaded;
}

bool read_property(DatasetHandle *dataset, ZfsProperty property, uint64_t *value) noexcept {
  int source = 0;
  char source_text[kSourceBytes] = "";
  return zfs.get_numeric(dataset, property, value, &source, source_text, sizeof source_text) == 0;
}

void read_properties(DatasetHandle *dataset, uint64_t *space_total, uint64_t *space_avail,
                     double *compressratio) noexcept {
  uint64_t available = 0, used = 0, hundredths = 0;
  if (read_property(dataset, kAvailable, &available)) {
    *space_avail = available;
    if (read_property(dataset, kUsed, &used)) *space_total = available + used;
  }
  if (read_property(dataset, kCompressRatio, &hundredths)) {
    *compressratio = static_cast<double>(hundredths) / 100.0;
  }
}

}  // namespace

double fs_get_avail(const char *path, uint64_t *fsid, uint64_t *space_total, uint64_t *space_avail,
                    double *compressratio) {
  *compressratio = 1.0;
  struct statfs info {};
  if (statfs(path, &info) != 0) return -1.0;
  static_assert(sizeof info.f_fsid == sizeof *fsid);
  memcpy(fsid, &info.f_fsid, sizeof *fsid);
  const auto block_bytes = static_cast<uint64_t>(info.f_bsize);
  *space_total = info.f_blocks * block_bytes;
  *space_avail = info.f_bavail * block_bytes;
  if (static_cast<long>(info.f_type) == kZfsMagic)
    zfsinfo_dlopen(path, space_total, space_avail, compressratio);
  return 0.0;
}

void zfsinfo_dlopen(const char *path, uint64_t *space_total, uint64_t *space_avail, double *compressratio) {
  if (!loaded()) return;
  LibHandle *const library = zfs.init();
  if (library == nullptr) return;
  DatasetHandle *const dataset = zfs.open(library, path, kTypeFilesystem);
  if (dataset != nullptr) {
    read_properties(dataset, space_total, space_avail, compressratio);
    zfs.close(dataset);
  }
  zfs.fini(library);
}
