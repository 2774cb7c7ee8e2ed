// Version 1: its table, and what concerns the file as a whole.
#include "liborlith/nnt/nnt_v1.h"

#include <time.h>

#include <new>

#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1_private.h"

static_assert(offsetof(v1_meta, create_time) == 0 && offsetof(v1_meta, start) == 8);

const nnt_opset nnt_v1_opset = {
    nnt_v1_init,
    nnt_v1_close,
    nnt_v1_get,
    nnt_v1_get_range,
    nnt_v1_get_raw_range,
    nnt_v1_put,
    nnt_v1_put_range,
    nnt_v1_rewind_epoch,
    nnt_v1_merge,
    nnt_v1_init_readfast,
    nnt_v1_uninit_readfast,
    nnt_v1_get_readfast,
    nnt_v1_get_readfast_apocalypse,
    nnt_v1_delete_range,
    nnt_v1_get_apocalypse,
    nnt_v1_get_create_time,
};

namespace {

v1_meta *new_meta() noexcept {
  auto *meta = static_cast<v1_meta *>(calloc(1, sizeof(v1_meta)));
  if (meta != nullptr) meta->start = nnt_v1::kStart;
  return meta;
}

}  // namespace

int v1_encode(const nnt_multitype *v, nnt_datum_v1 *d) noexcept {
  return nnt_v1::encode(*v, d);
}

int v1_decode(const nnt_datum_v1 *d, nnt_multitype *v) noexcept {
  return nnt_v1::decode(nnt_v1::load(d), v);
}

int nnt_v1_init(nnt_handle *h) noexcept {
  nnt_io::heap_ptr<v1_meta> meta(new_meta());
  if (!meta) return -1;
  struct stat st {};
  if (nnt_io::retried([&] { return fstat(h->fd, &st); }) == 0) {
    // The access time, because nothing that a file keeps tells when it was made.
    meta->create_time = static_cast<uint64_t>(st.st_atim.tv_sec);
    const int64_t records_bytes = st.st_size - static_cast<int64_t>(nnt_v1::kStart);
    if (records_bytes % static_cast<int64_t>(nnt_v1::kRecordSize) != 0) return -1;
  } else {
    meta->create_time = static_cast<uint64_t>(time(nullptr));
  }
  h->op_ctx = meta.release();
  return 0;
}

void nnt_v1_close(nnt_handle *h) noexcept {
  free(h->op_ctx);
  h->op_ctx = nullptr;
}

int nnt_v1_get_create_time(nnt_handle *h, uint64_t *whence) noexcept {
  if (whence != nullptr) *whence = static_cast<const v1_meta *>(h->op_ctx)->create_time;
  return 0;
}

int nnt_v1_get_apocalypse(nnt_handle *h, uint64_t *whence) noexcept {
  const int64_t size_bytes = nnt_io::file_size(h->fd);
  if (size_bytes < 0) return -1;
  *whence = h->hdr.epoch + nnt_v1::records_in(static_cast<uint64_t>(size_bytes)) * h->hdr.period;
  return 0;
}

void nnt_v1_init_readfast(nnt_handle_readfast *rf, nnt_handle *) noexcept {
  rf->op_ctx = new_meta();
}

void nnt_v1_uninit_readfast(nnt_handle_readfast *rf) noexcept {
  free(rf->op_ctx);
  rf->op_ctx = nullptr;
}
