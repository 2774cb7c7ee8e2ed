// A file of arbitrary bytes: opened, read and changed in every way. The last bytes choose timestamps and counts.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "liborlith/nnt/nnt.h"

namespace {

void require(bool condition) {
  if (!condition) abort();
}

struct Closer {
  void operator()(nnt_handle *h) const { nnt_close(h); }
  void operator()(nnt_handle_readfast *rf) const { nnt_release_readfast(rf); }
};
using Handle = std::unique_ptr<nnt_handle, Closer>;
using View = std::unique_ptr<nnt_handle_readfast, Closer>;

// Anonymous files never reach a disk, so syncing them would only cost time.
Handle open_bytes(const void *bytes, size_t size) {
  const int fd = memfd_create("nnt_fuzz", MFD_CLOEXEC);
  require(fd >= 0 && write(fd, bytes, size) == static_cast<ssize_t>(size));
  char *error = nullptr;
  Handle h(nnt_open_fd_sync(fd, false, &error));
  require((h == nullptr) == (error != nullptr));
  free(error);
  return h;
}

Handle open_empty(uint32_t period, uint64_t epoch) {
  const nnt_hdr hdr{{'N', 'N', 'T', '1'}, period, epoch};
  return open_bytes(&hdr, sizeof(hdr));
}

uint64_t size_of(nnt_handle *h) {
  return static_cast<uint64_t>(lseek(h->fd, 0, SEEK_END));
}

void require_whole_records(nnt_handle *h) {
  require(size_of(h) % 32 == 16);
}

void read_all(nnt_handle *h, uint64_t whence, int cnt) {
  nnt_multitype v{};
  const int one = nnt_get(h, whence, &v);
  require(one == 1 || one == -1);
  std::vector<nnt_multitype> values(cnt > 0 ? static_cast<size_t>(cnt) : 1);
  require(nnt_get_range(h, whence, cnt, values.data()) == cnt);
  for (int i = 0; i < cnt; ++i) require(values[static_cast<size_t>(i)].type <= NNT_TYPE_DOUBLE);
  uint64_t number = 0;
  require(nnt_get_apocalypse(h, &number) == 0 && nnt_get_create_time(h, &number) == 0);

  // A view of the same file answers the same.
  const View rf(nnt_acquire_readfast(h));
  require(rf != nullptr);
  nnt_multitype fast{};
  require(nnt_get_fast(rf.get(), whence, &fast) == one);
  if (one == 1) require(fast.type == v.type);
}

void change_all(nnt_handle *h, uint64_t whence, int cnt, const nnt_multitype &value) {
  // Near the file, so that it does not become too long to copy.
  const uint64_t near = h->hdr.epoch + whence % (uint64_t{4096} * h->hdr.period);
  const int written = nnt_put(h, near, &value);
  require(written == 1 || written == -1);
  const std::vector<nnt_multitype> values(cnt > 0 ? static_cast<size_t>(cnt) : 1, value);
  require(nnt_put_range(h, near, cnt, values.data()) <= cnt || cnt < 1);
  require_whole_records(h);

  const Handle copy = open_empty(h->hdr.period, h->hdr.epoch);
  nnt_image_from(copy.get(), h);
  const char *error = nullptr;
  require(nnt_merge(copy.get(), h, &error) == 0);
  require(size_of(copy.get()) == size_of(h));

  const uint64_t later = near / h->hdr.period * h->hdr.period;
  if (later <= NNT_MAX_EPOCH) {
    const Handle rest = open_empty(h->hdr.period, later);
    require(nnt_delete(h, rest.get(), whence) >= 0);
    require_whole_records(rest.get());
  }
  const int fd = memfd_create("nnt_fuzz", MFD_CLOEXEC);
  if (nnt_rewind_epoch(h, whence, fd) == 0) {
    const Handle earlier(nnt_open_fd_sync(fd, false, nullptr));
    require(earlier != nullptr);
  } else {
    close(fd);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  struct Choice {
    uint64_t whence;
    int16_t cnt;
    nnt_multitype value;
  } choice{};
  const size_t chosen = size < sizeof(choice) ? size : sizeof(choice);
  if (chosen > 0)
    memcpy(&choice, data + size - chosen, chosen);  // an empty input may come without an address

  const Handle h = open_bytes(data, size);
  if (h == nullptr) return 0;
  read_all(h.get(), choice.whence, choice.cnt);
  read_all(h.get(), h->hdr.epoch, choice.cnt);
  change_all(h.get(), choice.whence, choice.cnt, choice.value);
  read_all(h.get(), choice.whence, choice.cnt);
  nnt_put(h.get(), choice.whence, &choice.value);  // anywhere at all
  nnt_multitype v{};
  nnt_get(h.get(), choice.whence, &v);
  require(nnt_sync(h.get()) == 0);
  return 0;
}
