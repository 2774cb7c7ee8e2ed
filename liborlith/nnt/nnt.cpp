// The container: opening files, choosing the operations of their version, and forwarding to them.
#include "liborlith/nnt/nnt.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "liborlith/nnt/nnt_io_private.h"
#include "liborlith/nnt/nnt_v1.h"

namespace {

// A failed duplication only loses the text: the result and errno still tell of the failure.
void set_error(char **error, const char *text) noexcept {
  if (error != nullptr) *error = strdup(text);
}

const nnt_opset *opset_of(const nnt_hdr &hdr) noexcept {
  return memcmp(hdr.version, NNT_V1_MAGIC, sizeof(hdr.version)) == 0 ? &nnt_v1_opset : nullptr;
}

// Reads and checks the header and starts the version's operations. Null when all is well, else what is wrong.
const char *set_up(nnt_handle *h) noexcept {
  const int64_t got = nnt_io::read_at(h->fd, &h->hdr, sizeof(h->hdr), 0);
  if (got != static_cast<int64_t>(sizeof(h->hdr))) return "could not read header";
  h->opset = opset_of(h->hdr);
  if (h->opset == nullptr) return "unknown version";
  if (h->hdr.period == 0) return "invalid period";
  if (h->hdr.epoch % h->hdr.period != 0) return "epoch misaligned";
  if (h->hdr.epoch > NNT_MAX_EPOCH) return "bad epoch";
  if (h->opset->init(h) != 0) return "initialization failed";
  return nullptr;
}

// The number of slots of a file; 0 when it has none, or more than one call can move.
int slots_of(nnt_handle *h) noexcept {
  uint64_t apocalypse = 0;
  if (nnt_get_apocalypse(h, &apocalypse) != 0 || apocalypse <= h->hdr.epoch) return 0;
  const uint64_t slots = (apocalypse - h->hdr.epoch) / h->hdr.period;
  return slots <= INT_MAX ? static_cast<int>(slots) : 0;
}

}  // namespace

nnt_handle *nnt_open_fd_sync(int fd, bool sync_on_close, char **error) noexcept {
  if (error != nullptr) *error = nullptr;
  nnt_io::heap_ptr<nnt_handle> h(static_cast<nnt_handle *>(calloc(1, sizeof(nnt_handle))));
  if (!h) {
    close(fd);
    errno = ENOMEM;
    return nullptr;
  }
  h->fd = fd;
  h->sync_on_close = sync_on_close;
  const char *fault = set_up(h.get());
  if (fault == nullptr) return h.release();
  close(fd);
  set_error(error, fault);
  errno = EIO;
  return nullptr;
}

nnt_handle *nnt_open_sync(const char *file, bool sync_on_close, char **error) noexcept {
  if (error != nullptr) *error = nullptr;
  const int fd = nnt_io::retried([&] { return open(file, O_RDWR | O_CLOEXEC); });
  if (fd >= 0) return nnt_open_fd_sync(fd, sync_on_close, error);
  const int saved_errno = errno;
  set_error(error, strerror(saved_errno));
  errno = saved_errno;
  return nullptr;
}

nnt_handle *nnt_open(const char *file, char **error) noexcept {
  return nnt_open_sync(file, true, error);
}

nnt_handle *nnt_open_fd(int fd, char **error) noexcept {
  return nnt_open_fd_sync(fd, true, error);
}

int nnt_sync(nnt_handle *h) noexcept {
  const bool owed = h->dirty != 0;
  h->dirty = 0;
  if (!owed) return 0;
  return nnt_io::retried([&] { return fsync(h->fd); });
}

int nnt_close(nnt_handle *h) noexcept {
  if (h == nullptr) return 0;
  const int result = h->sync_on_close ? nnt_sync(h) : 0;
  const int saved_errno = errno;
  if (h->opset->close != nullptr) h->opset->close(h);
  close(h->fd);
  free(h);
  errno = saved_errno;
  return result;
}

void nnt_get_metadata(nnt_handle *h, uint64_t *e, uint64_t *t) noexcept {
  if (e != nullptr) *e = h->hdr.epoch;
  if (t != nullptr) *t = h->hdr.period;
}

int nnt_get(nnt_handle *h, uint64_t whence, nnt_multitype *v) noexcept {
  return h->opset->get(h, whence, v);
}

int nnt_get_range(nnt_handle *h, uint64_t whence, int cnt, nnt_multitype *v) noexcept {
  return h->opset->get_range(h, whence, cnt, v);
}

int nnt_put(nnt_handle *h, uint64_t whence, const nnt_multitype *v) noexcept {
  h->dirty = 1;
  return h->opset->put(h, whence, v);
}

int nnt_put_range(nnt_handle *h, uint64_t whence, int cnt, const nnt_multitype *v) noexcept {
  h->dirty = 1;
  return h->opset->put_range(h, whence, cnt, v);
}

int nnt_get_apocalypse(nnt_handle *h, uint64_t *whence) noexcept {
  return h != nullptr ? h->opset->get_apocalypse(h, whence) : -1;
}

int nnt_get_create_time(nnt_handle *h, uint64_t *whence) noexcept {
  if (h == nullptr) return -1;
  if (h->opset->get_create_time != nullptr) return h->opset->get_create_time(h, whence);
  if (whence != nullptr) *whence = 0;
  return 0;
}

int nnt_merge(nnt_handle *dst, nnt_handle *src, const char **error) noexcept {
  return dst->opset->merge(dst, src, error);
}

int nnt_rewind_epoch(nnt_handle *h, uint64_t whence, int fd) noexcept {
  return h->opset->rewind_epoch(h, whence, fd);
}

int nnt_delete(nnt_handle *h, nnt_handle *h2, uint64_t end) noexcept {
  h->dirty = 1;
  h2->dirty = 1;
  return h->opset->del(h, h2, end);
}

int nnt_image_from(nnt_handle *dest, nnt_handle *src) noexcept {
  if (dest == nullptr || src == nullptr) return -1;
  const int slots = slots_of(src);
  if (slots == 0) return -1;
  const nnt_io::heap_ptr<nnt_multitype> values(
      static_cast<nnt_multitype *>(calloc(static_cast<size_t>(slots), sizeof(nnt_multitype))));
  if (!values) return -1;
  const int read = nnt_get_range(src, src->hdr.epoch, slots, values.get());
  if (read <= 0) return -1;
  const int written = nnt_put_range(dest, dest->hdr.epoch, slots, values.get());
  return written != 0 && written == read ? 0 : -1;
}
