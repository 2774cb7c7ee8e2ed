// Files of tree images: made, written block by block, opened and mapped.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <limits>

#include "liborlith/util/vask_art_private.h"

static_assert(sizeof(vask_art_ser_hdr) == VASK_ART_SER_HDR_LEN &&
              offsetof(vask_art_ser_hdr, flags) == VASK_ART_SER_FLAGS_OFFSET);
static_assert(sizeof(file_serializer_t) == 32 && offsetof(file_serializer_t, base) == 16);

namespace liborlith {

uint64_t write_to_pic(file_serializer_t *ser, const void *bytes, size_t len) {
  static constexpr unsigned char kZeros[WRITEALIGN] = {};
  const size_t pad = padding(len);
  const iovec parts[2] = {{const_cast<void *>(bytes), len}, {const_cast<unsigned char *>(kZeros), pad}};
  const ssize_t written = uninterrupted(
      [&] { return pwritev(ser->fd, parts, pad != 0 ? 2 : 1, static_cast<off_t>(ser->offset)); });
  if (written < 0 || static_cast<size_t>(written) != len + pad) return 0;
  const size_t offset = ser->offset;
  ser->offset += len + pad;
  return offset;
}

namespace {

file_serializer_t *new_serializer(file_serializer_t content) noexcept {
  auto *ser = static_cast<file_serializer_t *>(calloc(1, sizeof(file_serializer_t)));
  if (ser != nullptr) *ser = content;
  return ser;
}

file_serializer_t *create_image(const char *filename, uint16_t version) noexcept {
  const int fd = uninterrupted([&] { return open(filename, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0640); });
  if (fd < 0) return nullptr;
  vask_art_ser_hdr header = VASK_ART_SER_HDR;
  header.version = version;
  const ssize_t written = uninterrupted([&] { return write(fd, &header, sizeof header); });
  if (written == ssize_t{sizeof header}) {
    if (file_serializer_t *ser = new_serializer({fd, ART_DEFAULT_OFFSET, 0, false})) return ser;
  } else if (written >= 0) {
    errno = EIO;  // a short write has no reason of its own
  }
  const int reason = errno;
  close(fd);
  errno = reason;
  return nullptr;
}

bool header_is_good(int fd, uint16_t version) noexcept {
  static constexpr vask_art_ser_hdr kTemplate = VASK_ART_SER_HDR;
  vask_art_ser_hdr header;
  const ssize_t len = uninterrupted([&] { return read(fd, &header, sizeof header); });
  if (len < 0) return false;
  if (len == ssize_t{sizeof header} &&
      memcmp(header.hdr_ver, kTemplate.hdr_ver, sizeof header.hdr_ver) == 0 && header.version == version &&
      (header.flags & VASK_ART_SER_COMPLETE) != 0)
    return true;
  errno = EINVAL;
  return false;
}

file_serializer_t *map_image(int fd, uint16_t version) noexcept {
  if (!header_is_good(fd, version)) return nullptr;
  struct stat status;
  if (uninterrupted([&] { return fstat(fd, &status); }) != 0) return nullptr;
  const auto size = static_cast<size_t>(status.st_size);
  void *mapping = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
  if (mapping == MAP_FAILED) return nullptr;
  file_serializer_t *ser = new_serializer({fd, size, reinterpret_cast<uintptr_t>(mapping), true});
  if (ser == nullptr) munmap(mapping, size);
  return ser;
}

file_serializer_t *open_image(const char *filename, uint16_t version) noexcept {
  const int fd = uninterrupted([&] { return open(filename, O_RDONLY | O_CLOEXEC); });
  if (fd < 0) return nullptr;
  file_serializer_t *ser = map_image(fd, version);
  if (ser != nullptr) return ser;
  const int reason = errno;
  close(fd);
  errno = reason;
  return nullptr;
}

}  // namespace
}  // namespace liborlith

using namespace liborlith;

file_serializer_t *vask_art_serializer_new(const char *filename, uint16_t version, bool create) {
  errno = 0;
  return create ? create_image(filename, version) : open_image(filename, version);
}

void vask_art_serializer_destroy(file_serializer_t *ser) {
  if (ser == nullptr) return;
  if (ser->mapped) munmap(address_of(ser->base), ser->offset);
  if (ser->fd >= 0) close(ser->fd);
  free(ser);
}

uintptr_t vask_art_serializer_write_custom(file_serializer_t *ser, const void *bytes, size_t len) {
  return write_to_pic(ser, bytes, len);
}

bool vask_art_serializer_finalize(file_serializer_t *ser, uint16_t flags) {
  // The flag must not reach the disk before what it vouches for.
  if (uninterrupted([&] { return fdatasync(ser->fd); }) != 0) return false;
  const ssize_t written =
      uninterrupted([&] { return pwrite(ser->fd, &flags, sizeof flags, VASK_ART_SER_FLAGS_OFFSET); });
  if (written != ssize_t{sizeof flags}) {
    if (written >= 0) errno = EIO;
    return false;
  }
  return uninterrupted([&] { return fdatasync(ser->fd); }) == 0;
}

bool vask_art_serializer_tree_at_offset(file_serializer_t *ser, vask_art_tree *dt, uintptr_t offset,
                                        vask_art_tree_interposition_t *ops, void *closure) {
  vask_art_tree_init(dt);
  vask_art_tree_interpose(dt, ser, ops, closure);
  // Without a mapping, pins would be taken for addresses. A host may have mapped the file by itself: `mapped` only
  // says whose the mapping is.
  if (ser->base == 0 || offset >= ser->offset) return false;
  dt->root = offset;
  return true;
}

const void *vask_art_serializer_offset_to_address(file_serializer_t *ser, uintptr_t offset) {
  if (!ser->mapped || offset > std::numeric_limits<uintptr_t>::max() - ser->base) return nullptr;
  return address_of(ser->base + offset);
}
