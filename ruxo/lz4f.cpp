#include "ruxo/lz4f.h"

#include <lz4frame.h>
#include <stdlib.h>
#include <string.h>
#define XXH_STATIC_LINKING_ONLY  // for a state without an allocation
#include <xxhash.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <new>
#include <string_view>

#include "ruxo/guard_private.h"

namespace {

// A frame's head: magic, flags, sizes of blocks, the length of the content and the number of a dictionary where the
// flags say so, a checksum of it all.
constexpr size_t kFlagsOffset = 4;
constexpr size_t kContentSizeOffset = 6;
constexpr size_t kShortestHead = 7;
constexpr size_t kLongestHead = 19;
constexpr std::array<unsigned char, kFlagsOffset> kMagic = {0x04, 0x22, 0x4d, 0x18};
constexpr unsigned char kHasBlockChecksums = 0x10;
constexpr unsigned char kHasContentSize = 0x08;
constexpr unsigned char kHasContentChecksum = 0x04;
constexpr unsigned char kHasDictionary = 0x01;
// The checksums, XXH32 with seed 0: of the content, at the frame's end; of the flags and what follows them, its second
// byte, at the head's end. The library computes them itself, too, but takes twice as long as the one it has them from,
// and for content that compresses well longer than for all the rest.
constexpr size_t kContentChecksumBytes = 4;

// What is written beside the library's defaults: a flipped bit in the content must not pass for data.
LZ4F_preferences_t preferences() {
  LZ4F_preferences_t result;
  memset(&result, 0, sizeof result);
  result.frameInfo.contentChecksumFlag = LZ4F_contentChecksumEnabled;
  return result;
}

void put_u32(unsigned char *to, uint32_t value) {
  for (size_t i = 0; i < 4; ++i) to[i] = static_cast<unsigned char>(value >> 8 * i);
}

uint32_t get_u32(const unsigned char *from) {
  uint32_t value = 0;
  for (size_t i = 4; i-- > 0;) value = value << 8 | from[i];
  return value;
}

// Gives the frame of `len` bytes, which has no checksum of its content, the one of `content`, for which there is room
// behind it. Returns its new length.
size_t add_content_checksum(unsigned char *frame, size_t len, const void *content, size_t content_len) {
  frame[kFlagsOffset] |= kHasContentChecksum;
  const size_t described = kShortestHead - 1 - kFlagsOffset;
  frame[kShortestHead - 1] = static_cast<unsigned char>(XXH32(frame + kFlagsOffset, described, 0) >> 8);
  put_u32(frame + len, XXH32(content, content_len, 0));
  return len + kContentChecksumBytes;
}

// The library documents the names of its errors, but numbers them differently from version to version.
ruxo_lz4f_status_t status_of(LZ4F_errorCode_t fault) {
  static constexpr struct {
    std::string_view name;
    ruxo_lz4f_status_t status;
  } kStatuses[] = {
      {"ERROR_allocation_failed", RUXO_LZ4F_MEMORY},
      {"ERROR_frameType_unknown", RUXO_LZ4F_MAGIC},
      {"ERROR_headerVersion_wrong", RUXO_LZ4F_HEADER},
      {"ERROR_reservedFlag_set", RUXO_LZ4F_HEADER},
      {"ERROR_headerChecksum_invalid", RUXO_LZ4F_HEADER},
      {"ERROR_blockChecksum_invalid", RUXO_LZ4F_CHECKSUM},
      {"ERROR_contentChecksum_invalid", RUXO_LZ4F_CHECKSUM},
      {"ERROR_frameSize_wrong", RUXO_LZ4F_SIZE},
  };
  const std::string_view name = LZ4F_getErrorName(fault);
  const auto *const found =
      std::find_if(std::begin(kStatuses), std::end(kStatuses), [&](const auto &s) { return s.name == name; });
  return found == std::end(kStatuses) ? RUXO_LZ4F_DAMAGED : found->status;
}

// What is known of the head so far. The library checks it, too, but takes frames that are to be skipped for empty
// ones, and content that is not there according to the head.
class Head {
 public:
  // Looks at the next bytes of the frame. False when they are none of an LZ4 frame.
  bool take(const unsigned char *bytes, size_t len) {
    for (size_t i = 0; i < len && count_ < size_; ++i) {
      if (count_ < kMagic.size() && bytes[i] != kMagic[count_]) return false;
      if (count_ == kFlagsOffset)
        size_ += (bytes[i] & kHasContentSize ? 8 : 0) + (bytes[i] & kHasDictionary ? 4 : 0);
      bytes_[count_++] = bytes[i];
    }
    return true;
  }

  bool says_size() const { return is_complete() && has(kHasContentSize); }
  // Whether the only checksum behind the head is that of the content.
  bool has_content_checksum_alone() const {
    return is_complete() && has(kHasContentChecksum) && !has(kHasBlockChecksums);
  }
  uint64_t content_size() const {
    uint64_t size = 0;
    for (size_t i = 8; i-- > 0;) size = size << 8 | bytes_[kContentSizeOffset + i];
    return size;
  }

 private:
  bool is_complete() const { return count_ == size_; }
  bool has(unsigned char flag) const { return (bytes_[kFlagsOffset] & flag) != 0; }

  std::array<unsigned char, kLongestHead> bytes_{};
  size_t count_ = 0;
  size_t size_ = kShortestHead;
};

// The checksum of a content as it comes, and the last bytes of the frame, where it has to stand.
class ContentChecksum {
 public:
  ContentChecksum() { XXH32_reset(&state_, 0); }
  void add_content(const unsigned char *bytes, size_t len) { XXH32_update(&state_, bytes, len); }
  void add_frame(const unsigned char *bytes, size_t len) {
    const size_t taken = std::min(len, last_.size());
    std::copy(last_.begin() + static_cast<ptrdiff_t>(taken), last_.end(), last_.begin());
    std::copy_n(bytes + len - taken, taken, last_.end() - static_cast<ptrdiff_t>(taken));
  }
  bool matches() const { return XXH32_digest(&state_) == get_u32(last_.data()); }

 private:
  XXH32_state_t state_;
  std::array<unsigned char, kContentChecksumBytes> last_{};
};

struct FreeContext {
  void operator()(LZ4F_dctx *context) const { LZ4F_freeDecompressionContext(context); }
};
struct FreeBlock {
  void operator()(void *block) const { free(block); }
};

}  // namespace

// Invariants: length <= capacity <= limit. Content of `limit` bytes is too much, but only seen to be when it is there.
struct ruxo_lz4f_stream {
  explicit ruxo_lz4f_stream(size_t max_bytes) : limit(max_bytes == SIZE_MAX ? SIZE_MAX : max_bytes + 1) {
    LZ4F_dctx *made = nullptr;
    if (LZ4F_isError(LZ4F_createDecompressionContext(&made, LZ4F_VERSION))) throw std::bad_alloc();
    context.reset(made);
  }

  ruxo_lz4f_status_t write(const unsigned char *bytes, size_t len);
  ruxo_lz4f_status_t finish(void **out, size_t *out_len);

  std::unique_ptr<LZ4F_dctx, FreeContext> context;
  std::unique_ptr<unsigned char, FreeBlock> buffer;
  const size_t limit;
  size_t capacity = 0;
  size_t length = 0;
  Head head;
  ContentChecksum checksum;
  bool complete = false;
  ruxo_lz4f_status_t status = RUXO_LZ4F_OK;

 private:
  bool reallocate(size_t bytes);
  bool make_room();
  ruxo_lz4f_status_t decompress(const unsigned char *bytes, size_t len);
  size_t decompress_next(const unsigned char *bytes, size_t *used, size_t *made);
};

bool ruxo_lz4f_stream::reallocate(size_t bytes) {
  void *const moved = realloc(buffer.get(), std::max<size_t>(bytes, 1));
  if (moved == nullptr) return false;
  (void)buffer.release();
  buffer.reset(static_cast<unsigned char *>(moved));
  capacity = bytes;
  return true;
}

bool ruxo_lz4f_stream::make_room() {
  if (capacity == limit || (capacity > 0 && capacity - length >= RUXO_LZ4F_MIN_FREE_BYTES)) return true;
  if (capacity == 0) return reallocate(std::min(RUXO_LZ4F_FIRST_BYTES, limit));
  return reallocate(capacity > limit / 2 ? limit : capacity * 2);
}

// One call of the library, whose hint or error it returns; keeps up with the checksum.
size_t ruxo_lz4f_stream::decompress_next(const unsigned char *bytes, size_t *used, size_t *made) {
  LZ4F_decompressOptions_t options;
  memset(&options, 0, sizeof options);
  options.skipChecksums = head.has_content_checksum_alone() ? 1 : 0;
  const size_t hint = LZ4F_decompress(context.get(), buffer.get() + length, made, bytes, used, &options);
  if (options.skipChecksums == 0 || LZ4F_isError(hint)) return hint;
  checksum.add_content(buffer.get() + length, *made);
  checksum.add_frame(bytes, *used);
  return hint;
}

ruxo_lz4f_status_t ruxo_lz4f_stream::decompress(const unsigned char *bytes, size_t len) {
  for (;;) {
    if (!make_room()) return RUXO_LZ4F_MEMORY;
    size_t used = len;
    size_t made = capacity - length;
    const size_t hint = decompress_next(bytes, &used, &made);
    if (LZ4F_isError(hint)) return status_of(hint);
    length += made;
    bytes += used;
    len -= used;
    // What the head says is looked at once the library has found its checksum right, and before more memory is
    // spent on it.
    if (length == limit || (head.says_size() && head.content_size() >= limit)) return RUXO_LZ4F_TOO_LARGE;
    if (head.says_size() && length > head.content_size()) return RUXO_LZ4F_SIZE;
    complete = hint == 0;
    if (complete && head.has_content_checksum_alone() && !checksum.matches()) return RUXO_LZ4F_CHECKSUM;
    if (complete) return len == 0 ? RUXO_LZ4F_OK : RUXO_LZ4F_TRAILING;
    // Room that is left over means that nothing is held back for want of it.
    if (len == 0 && length < capacity) return RUXO_LZ4F_OK;
  }
}

ruxo_lz4f_status_t ruxo_lz4f_stream::write(const unsigned char *bytes, size_t len) {
  if (status != RUXO_LZ4F_OK || len == 0) return status;
  if (complete) {
    status = RUXO_LZ4F_TRAILING;
  } else {
    status = head.take(bytes, len) ? decompress(bytes, len) : RUXO_LZ4F_MAGIC;
  }
  return status;
}

ruxo_lz4f_status_t ruxo_lz4f_stream::finish(void **out, size_t *out_len) {
  *out = nullptr;
  *out_len = 0;
  if (status == RUXO_LZ4F_OK && !complete) status = RUXO_LZ4F_TRUNCATED;
  if (status != RUXO_LZ4F_OK) return status;
  (void)reallocate(length);  // to what is needed; where that fails, the larger block is as good
  *out_len = length;
  *out = buffer.release();
  status = RUXO_LZ4F_TRAILING;  // for whatever is still written
  return RUXO_LZ4F_OK;
}

const char *ruxo_lz4f_status_text(ruxo_lz4f_status_t status) {
  switch (status) {
#define RUXO_LZ4F_TEXT(name, text) \
  case RUXO_LZ4F_##name:           \
    return text;
    RUXO_LZ4F_STATUSES(RUXO_LZ4F_TEXT)
#undef RUXO_LZ4F_TEXT
  }
  return "unknown LZ4 status";
}

size_t ruxo_lz4f_compress_bound(size_t len) {
  // The library counts blocks in 32 bits: beyond 2^48 bytes it would answer too little.
  if (len > RUXO_LZ4F_MAX_SOURCE_BYTES) return SIZE_MAX;
  const LZ4F_preferences_t chosen = preferences();
  return LZ4F_compressFrameBound(len, &chosen);
}

size_t ruxo_lz4f_compress(const void *src, size_t len, void *dest, size_t dest_len) {
  if (dest_len < ruxo_lz4f_compress_bound(len)) return 0;
  const void *const content = src == nullptr ? "" : src;
  LZ4F_preferences_t without_checksum = preferences();
  without_checksum.frameInfo.contentChecksumFlag = LZ4F_noContentChecksum;
  const size_t written =
      LZ4F_compressFrame(dest, dest_len - kContentChecksumBytes, content, len, &without_checksum);
  if (LZ4F_isError(written)) return 0;
  return add_content_checksum(static_cast<unsigned char *>(dest), written, content, len);
}

ruxo_lz4f_status_t ruxo_lz4f_decompress(const void *src, size_t len, size_t max_bytes, void **out,
                                        size_t *out_len) {
  *out = nullptr;
  *out_len = 0;
  return ruxo::guarded(RUXO_LZ4F_MEMORY, [&] {
    ruxo_lz4f_stream stream(max_bytes);
    stream.write(static_cast<const unsigned char *>(src), len);
    return stream.finish(out, out_len);
  });
}

ruxo_lz4f_stream_t *ruxo_lz4f_stream_alloc(size_t max_bytes) {
  return ruxo::guarded<ruxo_lz4f_stream_t *>(nullptr, [&] { return new ruxo_lz4f_stream(max_bytes); });
}

ruxo_lz4f_status_t ruxo_lz4f_stream_write(ruxo_lz4f_stream_t *stream, const void *bytes, size_t len) {
  return stream->write(static_cast<const unsigned char *>(bytes), len);
}

ruxo_boolean ruxo_lz4f_stream_complete(const ruxo_lz4f_stream_t *stream) {
  return stream->complete && stream->status == RUXO_LZ4F_OK;
}

ruxo_lz4f_status_t ruxo_lz4f_stream_finish(ruxo_lz4f_stream_t *stream, void **out, size_t *out_len) {
  return stream->finish(out, out_len);
}

void ruxo_lz4f_stream_free(ruxo_lz4f_stream_t *stream) {
  delete stream;
}
