#include "ruxo/lz4f.h"

#include <gtest/gtest.h>
#include <lz4frame.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

// The library's buffers come through here: what they asked for is kept, and a test can refuse them.
namespace {
thread_local std::vector<size_t> asked_for;
thread_local size_t refused_from = SIZE_MAX;
}  // namespace
extern "C" void *__real_realloc(void *block, size_t size);
extern "C" void *__wrap_realloc(void *block, size_t size) {
  if (refused_from != SIZE_MAX) asked_for.push_back(size);
  return size >= refused_from ? nullptr : __real_realloc(block, size);
}

namespace {

constexpr size_t kPlenty = size_t{64} << 20;

struct Free {
  void operator()(void *block) const { free(block); }
};

struct Result {
  ruxo_lz4f_status_t status;
  std::string bytes;
};

bool operator==(const Result &a, const Result &b) {
  return a.status == b.status && a.bytes == b.bytes;
}
std::ostream &operator<<(std::ostream &out, const Result &result) {
  return out << ruxo_lz4f_status_text(result.status) << ", " << result.bytes.size() << " bytes";
}

Result taken(ruxo_lz4f_status_t status, void *out, size_t len) {
  const std::unique_ptr<void, Free> owner(out);
  EXPECT_EQ(out == nullptr, status != RUXO_LZ4F_OK);
  EXPECT_TRUE(status == RUXO_LZ4F_OK || len == 0);
  return {status, std::string(static_cast<const char *>(out), len)};
}

Result decompress(const std::string &frame, size_t max_bytes = kPlenty) {
  void *out = &out;
  size_t len = 77;
  const auto status = ruxo_lz4f_decompress(frame.data(), frame.size(), max_bytes, &out, &len);
  return taken(status, out, len);
}

Result decompress_in_pieces(const std::string &frame, size_t piece, size_t max_bytes = kPlenty) {
  const std::unique_ptr<ruxo_lz4f_stream_t, decltype(&ruxo_lz4f_stream_free)> stream(
      ruxo_lz4f_stream_alloc(max_bytes), ruxo_lz4f_stream_free);
  for (size_t at = 0; at < frame.size(); at += piece) {
    ruxo_lz4f_stream_write(stream.get(), frame.data() + at, std::min(piece, frame.size() - at));
  }
  void *out = &out;
  size_t len = 77;
  const auto status = ruxo_lz4f_stream_finish(stream.get(), &out, &len);
  return taken(status, out, len);
}

std::string compress(const std::string &bytes) {
  std::string frame(ruxo_lz4f_compress_bound(bytes.size()), '\0');
  frame.resize(ruxo_lz4f_compress(bytes.data(), bytes.size(), frame.data(), frame.size()));
  return frame;
}

// XXH32 of fewer than 16 bytes with seed 0, which the format takes for its checksums.
uint32_t xxh32(const std::string &bytes) {
  const auto rotate = [](uint32_t v, int bits) { return v << bits | v >> (32 - bits); };
  const auto at = [&](size_t i) { return uint32_t{static_cast<unsigned char>(bytes[i])}; };
  uint32_t h = 374761393u + static_cast<uint32_t>(bytes.size());
  size_t i = 0;
  for (; i + 4 <= bytes.size(); i += 4) {
    h += (at(i) | at(i + 1) << 8 | at(i + 2) << 16 | at(i + 3) << 24) * 3266489917u;
    h = rotate(h, 17) * 668265263u;
  }
  for (; i < bytes.size(); ++i) h = rotate(h + at(i) * 374761393u, 11) * 2654435761u;
  h = (h ^ h >> 15) * 2246822519u;
  h = (h ^ h >> 13) * 3266489917u;
  return h ^ h >> 16;
}

std::string le32(uint32_t v) {
  return {static_cast<char>(v), static_cast<char>(v >> 8), static_cast<char>(v >> 16),
          static_cast<char>(v >> 24)};
}

const std::string kMagic = "\x04\x22\x4d\x18";
const std::string kEnd(4, '\0');

// Flags, sizes of blocks (64 KiB), and what the flags say follows; then the head's checksum.
std::string head(unsigned char flags, const std::string &more = "") {
  const std::string descriptor = static_cast<char>(flags) + std::string("\x40") + more;
  return kMagic + descriptor + static_cast<char>(xxh32(descriptor) >> 8);
}

std::string stored_block(const std::string &bytes) {
  return le32(static_cast<uint32_t>(bytes.size()) | 0x80000000u) + bytes;
}

constexpr unsigned char kPlain = 0x60;  // version 1, blocks on their own
constexpr unsigned char kContentSize = 0x08, kContentChecksum = 0x04, kBlockChecksum = 0x10;

std::string size_field(uint64_t size) {
  return le32(static_cast<uint32_t>(size)) + le32(static_cast<uint32_t>(size >> 32));
}

std::string random_text(size_t len, unsigned seed) {
  std::mt19937 random(seed);
  std::string text;
  while (text.size() < len) text.append(1 + random() % 50, static_cast<char>(random() % 256));
  text.resize(len);
  return text;
}

}  // namespace

TEST(Lz4f, WritesAFrameThatIsWrittenOutHere) {
  // Three bytes do not get smaller: magic, head, one stored block, end mark, checksum of the content.
  EXPECT_EQ(compress("abc"),
            head(kPlain | kContentChecksum) + stored_block("abc") + kEnd + le32(xxh32("abc")));
  EXPECT_EQ(compress(""), head(kPlain | kContentChecksum) + kEnd + le32(xxh32("")));
  EXPECT_EQ(compress("").size(), 15u);
}

TEST(Lz4f, ReadsFramesThatAreWrittenOutHere) {
  EXPECT_EQ(decompress(head(kPlain) + kEnd), (Result{RUXO_LZ4F_OK, ""}));
  EXPECT_EQ(decompress(head(kPlain) + stored_block("abc") + stored_block("def") + kEnd),
            (Result{RUXO_LZ4F_OK, "abcdef"}));
  // Literal "a"; a match of 4 + 1 at distance 1; then the last five literals.
  const std::string packed = std::string("\x11") + "a" + std::string("\x01\x00", 2) + "\x50" + "bcdef";
  EXPECT_EQ(decompress(head(kPlain) + le32(static_cast<uint32_t>(packed.size())) + packed + kEnd),
            (Result{RUXO_LZ4F_OK, "aaaaaabcdef"}));
  EXPECT_EQ(decompress(head(kPlain | kBlockChecksum) + stored_block("abc") + le32(xxh32("abc")) + kEnd),
            (Result{RUXO_LZ4F_OK, "abc"}));
}

TEST(Lz4f, ComesBackAtEveryLength) {
  for (const size_t len : std::initializer_list<size_t>{0, 1, 12, 13, 4095, 65535, 65536, 65537, 131071,
                                                        131072, 131073, 126976, 126977, 1000000}) {
    const std::string text = random_text(len, static_cast<unsigned>(len));
    EXPECT_EQ(decompress(compress(text)), (Result{RUXO_LZ4F_OK, text})) << len;
    EXPECT_EQ(decompress(compress(text), len), (Result{RUXO_LZ4F_OK, text})) << "room for exactly " << len;
  }
}

TEST(Lz4f, IsReadByTheLibraryAlone) {
  const std::string text = random_text(200000, 1);
  const std::string frame = compress(text);
  std::string out(text.size(), '\0');
  size_t made = out.size(), used = frame.size();
  LZ4F_dctx *context = nullptr;
  ASSERT_FALSE(LZ4F_isError(LZ4F_createDecompressionContext(&context, LZ4F_VERSION)));
  EXPECT_EQ(LZ4F_decompress(context, out.data(), &made, frame.data(), &used, nullptr), 0u);
  LZ4F_freeDecompressionContext(context);
  EXPECT_EQ(used, frame.size());
  EXPECT_EQ(made, text.size());
  EXPECT_EQ(out, text);
}

TEST(Lz4f, ReadsFramesOfEveryMake) {
  const std::string text = random_text(300000, 2);
  for (int make = 0; make < 64; ++make) {
    LZ4F_preferences_t chosen;
    memset(&chosen, 0, sizeof chosen);
    chosen.frameInfo.blockSizeID = static_cast<LZ4F_blockSizeID_t>(4 + make % 4);
    chosen.frameInfo.blockMode = make & 4 ? LZ4F_blockIndependent : LZ4F_blockLinked;
    chosen.frameInfo.contentChecksumFlag = make & 8 ? LZ4F_contentChecksumEnabled : LZ4F_noContentChecksum;
    chosen.frameInfo.blockChecksumFlag = make & 16 ? LZ4F_blockChecksumEnabled : LZ4F_noBlockChecksum;
    chosen.frameInfo.contentSize = make & 32 ? text.size() : 0;
    std::string frame(LZ4F_compressFrameBound(text.size(), &chosen), '\0');
    frame.resize(LZ4F_compressFrame(frame.data(), frame.size(), text.data(), text.size(), &chosen));
    EXPECT_EQ(decompress(frame), (Result{RUXO_LZ4F_OK, text})) << make;
    EXPECT_EQ(decompress_in_pieces(frame, 777), (Result{RUXO_LZ4F_OK, text})) << make;
    EXPECT_EQ(decompress(frame, text.size() - 1).status, RUXO_LZ4F_TOO_LARGE) << make;
    frame.pop_back();
    EXPECT_EQ(decompress(frame).status, RUXO_LZ4F_TRUNCATED) << make;
  }
}

TEST(Lz4f, TheBoundHoldsForWhatDoesNotCompress) {
  std::mt19937 random(3);
  for (const size_t len : {size_t{0}, size_t{1}, size_t{65536}, size_t{65537}, size_t{300000}}) {
    std::string noise(len, '\0');
    for (char &c : noise) c = static_cast<char>(random());
    const size_t bound = ruxo_lz4f_compress_bound(len);
    EXPECT_GE(bound, compress(noise).size());
    EXPECT_LE(bound, len + len / 1000 + 65536 + 64) << "and is no wild guess";
  }
}

// Above it the library's own answer would wrap around and be too small.
TEST(Lz4f, TheBoundOfWhatNoMemoryHoldsIsNoSize) {
  constexpr size_t kMost = RUXO_LZ4F_MAX_SOURCE_BYTES;
  EXPECT_GT(ruxo_lz4f_compress_bound(kMost), kMost);
  EXPECT_LT(ruxo_lz4f_compress_bound(kMost), kMost + kMost / 1000);
  EXPECT_EQ(ruxo_lz4f_compress_bound(kMost + 1), SIZE_MAX);
  EXPECT_EQ(ruxo_lz4f_compress_bound(SIZE_MAX), SIZE_MAX);
}

TEST(Lz4f, RefusesABufferBelowTheBoundAndLeavesItAlone) {
  const std::string text = "text";
  const size_t bound = ruxo_lz4f_compress_bound(text.size());
  std::string room(bound, '~');
  EXPECT_EQ(ruxo_lz4f_compress(text.data(), text.size(), room.data(), bound - 1), 0u);
  EXPECT_EQ(ruxo_lz4f_compress(text.data(), text.size(), room.data(), 0), 0u);
  EXPECT_EQ(room, std::string(bound, '~'));
  EXPECT_GT(ruxo_lz4f_compress(text.data(), text.size(), room.data(), bound), 0u);
  EXPECT_EQ(ruxo_lz4f_compress(text.data(), SIZE_MAX, room.data(), bound), 0u);
}

TEST(Lz4f, NothingMayBeNull) {
  char room[64 + (64 << 10)];
  const size_t len = ruxo_lz4f_compress(nullptr, 0, room, sizeof room);
  EXPECT_EQ(std::string(room, len), compress(""));
  void *out = nullptr;
  size_t out_len = 1;
  EXPECT_EQ(ruxo_lz4f_decompress(nullptr, 0, 10, &out, &out_len), RUXO_LZ4F_TRUNCATED);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(out_len, 0u);
  ruxo_lz4f_stream_free(nullptr);
}

TEST(Lz4f, RefusesEveryTruncation) {
  const std::string frame = compress(random_text(70000, 4));
  for (size_t len = 0; len < frame.size(); ++len) {
    ASSERT_EQ(decompress(frame.substr(0, len)).status, RUXO_LZ4F_TRUNCATED) << len;
  }
}

TEST(Lz4f, RefusesTrailingBytes) {
  const std::string frame = compress("text");
  EXPECT_EQ(decompress(frame + std::string(1, '\0')).status, RUXO_LZ4F_TRAILING);
  EXPECT_EQ(decompress(frame + frame).status, RUXO_LZ4F_TRAILING) << "one frame, not a series";
  EXPECT_EQ(decompress_in_pieces(frame + "x", frame.size()).status, RUXO_LZ4F_TRAILING);
  EXPECT_EQ(decompress_in_pieces(frame + "x", 1).status, RUXO_LZ4F_TRAILING);
}

TEST(Lz4f, RefusesWhatIsNoFrame) {
  const std::string frame = compress("text");
  for (size_t i = 0; i < 4; ++i) {
    std::string other = frame;
    other[i] = static_cast<char>(other[i] ^ 1);
    EXPECT_EQ(decompress(other).status, RUXO_LZ4F_MAGIC) << i;
    EXPECT_EQ(decompress_in_pieces(other, 1).status, RUXO_LZ4F_MAGIC) << i;
  }
  EXPECT_EQ(decompress("some text that is none").status, RUXO_LZ4F_MAGIC);
  EXPECT_EQ(decompress("\x02\x21\x4c\x18").status, RUXO_LZ4F_MAGIC) << "the format from before frames";
  EXPECT_EQ(decompress("\x50\x2a\x4d\x18" + le32(3) + "abc").status, RUXO_LZ4F_MAGIC) << "a skippable frame";
}

TEST(Lz4f, RefusesABadHead) {
  std::string frame = compress("text");
  frame[6] = static_cast<char>(frame[6] ^ 1);
  EXPECT_EQ(decompress(frame).status, RUXO_LZ4F_HEADER) << "its checksum";
  EXPECT_EQ(decompress(head(0x20) + kEnd).status, RUXO_LZ4F_HEADER) << "version 0";
  EXPECT_EQ(decompress(head(kPlain | 0x02) + kEnd).status, RUXO_LZ4F_HEADER) << "a reserved flag";
}

TEST(Lz4f, RefusesDamagedBlocks) {
  const std::string far_match = std::string("\x11") + "a" + std::string("\x09\x00", 2) + "\x50" + "bcdef";
  EXPECT_EQ(
      decompress(head(kPlain) + le32(static_cast<uint32_t>(far_match.size())) + far_match + kEnd).status,
      RUXO_LZ4F_DAMAGED)
      << "a match from before the start";
  EXPECT_EQ(decompress(head(kPlain) + le32(65537) + std::string(65537, 'a') + kEnd).status, RUXO_LZ4F_DAMAGED)
      << "a block longer than blocks are";
}

TEST(Lz4f, RefusesChecksumsThatDoNotMatch) {
  EXPECT_EQ(
      decompress(head(kPlain | kContentChecksum) + stored_block("abc") + kEnd + le32(xxh32("abd"))).status,
      RUXO_LZ4F_CHECKSUM);
  EXPECT_EQ(
      decompress(head(kPlain | kBlockChecksum) + stored_block("abc") + le32(xxh32("abd")) + kEnd).status,
      RUXO_LZ4F_CHECKSUM);
}

TEST(Lz4f, NoFlippedBitPassesForContent) {
  const std::string text = "content with content with content";
  const std::string frame = compress(text);
  size_t refused = 0;
  for (size_t bit = 0; bit < frame.size() * 8; ++bit) {
    std::string flipped = frame;
    flipped[bit / 8] = static_cast<char>(flipped[bit / 8] ^ 1 << bit % 8);
    const Result result = decompress(flipped);
    // One place has bits that mean nothing: the match length of the last sequence, which has no match.
    EXPECT_TRUE(result.status != RUXO_LZ4F_OK || result.bytes == text) << bit;
    refused += result.status != RUXO_LZ4F_OK;
  }
  EXPECT_EQ(refused, frame.size() * 8 - 4);
}

TEST(Lz4f, RefusesContentSizesThatAreNotTrue) {
  const std::string body = stored_block("abc") + kEnd;
  const auto sized = [&](uint64_t size) { return head(kPlain | kContentSize, size_field(size)) + body; };
  EXPECT_EQ(decompress(sized(3)), (Result{RUXO_LZ4F_OK, "abc"}));
  for (const uint64_t size : {uint64_t{0}, uint64_t{2}, uint64_t{4}, uint64_t{1000}, uint64_t{kPlenty}}) {
    EXPECT_EQ(decompress(sized(size)).status, RUXO_LZ4F_SIZE) << size;
    EXPECT_EQ(decompress_in_pieces(sized(size), 1).status, RUXO_LZ4F_SIZE) << size;
  }
  EXPECT_EQ(decompress_in_pieces(sized(kPlenty + 1), 1).status, RUXO_LZ4F_TOO_LARGE);
  EXPECT_EQ(decompress_in_pieces(sized(UINT64_MAX), 1).status, RUXO_LZ4F_TOO_LARGE);
}

TEST(Lz4f, RefusesASizeBeyondTheLimitBeforeSpendingMemoryOnIt) {
  const std::string text(10 << 20, 'a');
  LZ4F_preferences_t chosen;
  memset(&chosen, 0, sizeof chosen);
  chosen.frameInfo.contentSize = text.size();
  std::string frame(LZ4F_compressFrameBound(text.size(), &chosen), '\0');
  frame.resize(LZ4F_compressFrame(frame.data(), frame.size(), text.data(), text.size(), &chosen));
  refused_from = SIZE_MAX - 1;
  asked_for.clear();
  EXPECT_EQ(decompress(frame, text.size() - 1).status, RUXO_LZ4F_TOO_LARGE);
  EXPECT_EQ(asked_for, std::vector<size_t>{RUXO_LZ4F_FIRST_BYTES});
  refused_from = SIZE_MAX;
}

TEST(Lz4f, ALargeContentInASmallFrameStopsAtTheLimit) {
  const std::string frame = compress(std::string(32 << 20, '\0'));
  EXPECT_LT(frame.size(), size_t{32 << 20} / 200);
  refused_from = SIZE_MAX - 1;
  asked_for.clear();
  EXPECT_EQ(decompress(frame, 1000000).status, RUXO_LZ4F_TOO_LARGE);
  EXPECT_EQ(*std::max_element(asked_for.begin(), asked_for.end()), 1000001u);
  asked_for.clear();
  EXPECT_EQ(decompress(frame, 10).status, RUXO_LZ4F_TOO_LARGE);
  EXPECT_EQ(asked_for, std::vector<size_t>{11});
  refused_from = SIZE_MAX;
  EXPECT_EQ(decompress(frame, size_t{32 << 20} - 1).status, RUXO_LZ4F_TOO_LARGE);
  EXPECT_EQ(decompress(frame, 32 << 20).bytes.size(), size_t{32 << 20});
  EXPECT_EQ(decompress(frame, SIZE_MAX).bytes.size(), size_t{32 << 20});
  EXPECT_EQ(decompress(frame, 0).status, RUXO_LZ4F_TOO_LARGE);
  EXPECT_EQ(decompress(compress(""), 0), (Result{RUXO_LZ4F_OK, ""}));
}

TEST(Lz4f, TheBufferStartsAt128KiBAndDoubles) {
  refused_from = SIZE_MAX - 1;
  asked_for.clear();
  const std::string text(600000, 'a');
  EXPECT_EQ(decompress(compress(text)).status, RUXO_LZ4F_OK);
  EXPECT_EQ(asked_for, (std::vector<size_t>{131072, 262144, 524288, 1048576, 600000}));
  asked_for.clear();
  EXPECT_EQ(decompress(compress("abc")).status, RUXO_LZ4F_OK);
  EXPECT_EQ(asked_for, (std::vector<size_t>{131072, 3})) << "what is not needed is given back";
  refused_from = SIZE_MAX;
}

TEST(Lz4f, SaysWhenMemoryRunsOut) {
  const std::string frame = compress(std::string(600000, 'a'));
  refused_from = 262144;
  EXPECT_EQ(decompress(frame).status, RUXO_LZ4F_MEMORY);
  refused_from = 0;
  EXPECT_EQ(decompress(frame).status, RUXO_LZ4F_MEMORY);
  refused_from = SIZE_MAX;
}

TEST(Lz4f, PiecesOfAnySizeMakeTheSame) {
  for (const std::string &text : {random_text(300000, 5), std::string(300000, 'a'), std::string()}) {
    const std::string frame = compress(text);
    for (const size_t piece : {size_t{1}, size_t{2}, size_t{7}, size_t{4096}, size_t{100000}}) {
      EXPECT_EQ(decompress_in_pieces(frame, piece), (Result{RUXO_LZ4F_OK, text})) << piece;
    }
  }
}

TEST(Lz4f, AStreamKnowsWhenItsFrameIsComplete) {
  const std::string frame = compress("text");
  ruxo_lz4f_stream_t *const stream = ruxo_lz4f_stream_alloc(100);
  for (const char &c : frame) {
    EXPECT_FALSE(ruxo_lz4f_stream_complete(stream));
    EXPECT_EQ(ruxo_lz4f_stream_write(stream, &c, 1), RUXO_LZ4F_OK);
  }
  EXPECT_TRUE(ruxo_lz4f_stream_complete(stream));
  EXPECT_EQ(ruxo_lz4f_stream_write(stream, nullptr, 0), RUXO_LZ4F_OK) << "no byte is not one too many";
  EXPECT_TRUE(ruxo_lz4f_stream_complete(stream));
  EXPECT_EQ(ruxo_lz4f_stream_write(stream, "x", 1), RUXO_LZ4F_TRAILING);
  EXPECT_FALSE(ruxo_lz4f_stream_complete(stream));
  ruxo_lz4f_stream_free(stream);
}

TEST(Lz4f, TheFirstFaultOfAStreamStays) {
  ruxo_lz4f_stream_t *const stream = ruxo_lz4f_stream_alloc(100);
  EXPECT_EQ(ruxo_lz4f_stream_write(stream, "x", 1), RUXO_LZ4F_MAGIC);
  const std::string frame = compress("text");
  EXPECT_EQ(ruxo_lz4f_stream_write(stream, frame.data(), frame.size()), RUXO_LZ4F_MAGIC);
  void *out = &out;
  size_t len = 1;
  EXPECT_EQ(ruxo_lz4f_stream_finish(stream, &out, &len), RUXO_LZ4F_MAGIC);
  EXPECT_EQ(out, nullptr);
  ruxo_lz4f_stream_free(stream);
}

TEST(Lz4f, AFinishedStreamGivesNothingTwice) {
  const std::string frame = compress("text");
  ruxo_lz4f_stream_t *const stream = ruxo_lz4f_stream_alloc(100);
  ruxo_lz4f_stream_write(stream, frame.data(), frame.size());
  void *out = nullptr, *again = nullptr;
  size_t len = 0;
  EXPECT_EQ(ruxo_lz4f_stream_finish(stream, &out, &len), RUXO_LZ4F_OK);
  EXPECT_EQ(ruxo_lz4f_stream_finish(stream, &again, &len), RUXO_LZ4F_TRAILING);
  EXPECT_EQ(again, nullptr);
  EXPECT_EQ(ruxo_lz4f_stream_write(stream, "x", 1), RUXO_LZ4F_TRAILING);
  ruxo_lz4f_stream_free(stream);
  free(out);
}

TEST(Lz4f, EveryStatusHasItsText) {
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_OK), "no error");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_TRUNCATED), "the LZ4 frame ends early");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_TRAILING), "there are bytes behind the LZ4 frame");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_MAGIC), "not an LZ4 frame");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_HEADER), "the header of the LZ4 frame is not valid");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_DAMAGED), "a block of the LZ4 frame is damaged");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_CHECKSUM), "a checksum of the LZ4 frame does not match");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_SIZE), "the LZ4 frame does not hold as many bytes as it says");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_TOO_LARGE), "the LZ4 frame holds more bytes than the limit");
  EXPECT_STREQ(ruxo_lz4f_status_text(RUXO_LZ4F_MEMORY), "no memory to decompress the LZ4 frame");
  EXPECT_STREQ(ruxo_lz4f_status_text(static_cast<ruxo_lz4f_status_t>(RUXO_LZ4F_MEMORY + 1)),
               "unknown LZ4 status");
}

TEST(Lz4f, ThreadsDoNotDisturbEachOther) {
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 4; ++t) {
    threads.emplace_back([t] {
      for (unsigned i = 0; i < 20; ++i) {
        const std::string text = random_text(100000, t * 100 + i);
        EXPECT_EQ(decompress(compress(text)), (Result{RUXO_LZ4F_OK, text}));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}
