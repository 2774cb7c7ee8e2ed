// Read-only views of whole file images.
#include <sys/mman.h>

#include <cstring>

#include "liborlith/nnt/nnt.h"
#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1.h"

namespace {

using dealloc_f = void (*)(nnt_handle_readfast *);

nnt_handle_readfast *new_view(void *addr, size_t len, const nnt_opset *opset, dealloc_f dealloc) noexcept {
  auto *rf = static_cast<nnt_handle_readfast *>(calloc(1, sizeof(nnt_handle_readfast)));
  if (rf == nullptr) return nullptr;
  rf->addr = addr;
  rf->len = len;
  rf->opset = opset;
  rf->dealloc = dealloc;
  return rf;
}

nnt_handle_readfast *acquire_image(void *addr, size_t len, dealloc_f dealloc) noexcept {
  if (addr == nullptr || len < sizeof(nnt_hdr) || memcmp(addr, NNT_V1_MAGIC, 4) != 0) return nullptr;
  nnt_handle_readfast *rf = new_view(addr, len, &nnt_v1_opset, dealloc);
  if (rf == nullptr) return nullptr;
  memcpy(&rf->hdr, addr, sizeof(rf->hdr));
  rf->opset->init_readfast(rf, nullptr);
  return rf;
}

}  // namespace

nnt_handle_readfast *nnt_acquire_readfast(nnt_handle *h) noexcept {
  const int64_t size_bytes = nnt_io::file_size(h->fd);
  if (size_bytes < 0) return nullptr;
  const size_t len = static_cast<size_t>(size_bytes);
  void *addr = mmap(nullptr, len, PROT_READ, MAP_SHARED, h->fd, 0);
  if (addr == MAP_FAILED) return nullptr;
  nnt_handle_readfast *rf = new_view(addr, len, h->opset, nnt_handle_readfast_munmap);
  if (rf == nullptr) {
    munmap(addr, len);
    return nullptr;
  }
  rf->hdr = h->hdr;
  rf->opset->init_readfast(rf, h);
  return rf;
}

nnt_handle_readfast *nnt_acquire_transient(void *addr, size_t len) noexcept {
  return acquire_image(addr, len, nnt_handle_readfast_free);
}

nnt_handle_readfast *nnt_acquire_transient_mmap(void *addr, size_t len) noexcept {
  return acquire_image(addr, len, nnt_handle_readfast_munmap);
}

void nnt_release_readfast(nnt_handle_readfast *rf) noexcept {
  if (rf == nullptr) return;
  rf->opset->uninit_readfast(rf);
  rf->dealloc(rf);
  free(rf);
}

void nnt_handle_readfast_free(nnt_handle_readfast *rf) noexcept {
  free(rf->addr);
  rf->addr = nullptr;
}

void nnt_handle_readfast_munmap(nnt_handle_readfast *rf) noexcept {
  if (rf->addr != nullptr) munmap(rf->addr, rf->len);
  rf->addr = nullptr;
}

int nnt_get_fast(nnt_handle_readfast *rf, uint64_t whence, nnt_multitype *v) noexcept {
  return rf != nullptr ? rf->opset->getfast(rf, whence, v) : -1;
}

int nnt_get_fast_range(nnt_handle_readfast *rf, uint64_t whence, int cnt, nnt_multitype *v) noexcept {
  if (rf == nullptr) return -1;
  if (rf->opset == &nnt_v1_opset) return nnt_v1_get_readfast_range(rf, whence, cnt, v);
  // Another table has no range read: slot by slot, until the timestamps end.
  uint64_t t = whence;
  bool ended = false;
  for (int i = 0; i < cnt; ++i) {
    memset(&v[i], 0, sizeof(v[i]));
    if (!ended) rf->opset->getfast(rf, t, &v[i]);
    ended = ended || __builtin_add_overflow(t, rf->hdr.period, &t);
  }
  return cnt;
}

int nnt_get_fast_epoch(nnt_handle_readfast *rf, uint64_t *whence) noexcept {
  if (rf == nullptr) return -1;
  *whence = rf->hdr.epoch;
  return 0;
}

int nnt_get_fast_apocalypse(nnt_handle_readfast *rf, uint64_t *whence) noexcept {
  return rf != nullptr ? rf->opset->getfast_apocalypse(rf, whence) : -1;
}

int nnt_get_raw_range(nnt_handle_readfast *rf, uint64_t whence, int cnt, nnt_range_raw_data *data) noexcept {
  return rf != nullptr ? rf->opset->get_raw_range(rf, whence, cnt, data) : -1;
}
