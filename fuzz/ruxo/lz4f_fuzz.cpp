// LZ4 frames. The first byte is the length of the pieces that the rest arrives in, the second the limit in units of
// 64 bytes. In pieces and as a whole the same comes out, within the limit; the library by itself agrees; and any
// bytes come back through a frame of ours.
#include <lz4frame.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "ruxo/lz4f.h"

namespace {

void check(bool holds) {
  if (!holds) abort();
}

std::optional<std::string> taken(ruxo_lz4f_status_t status, void *out, size_t len) {
  check((out != nullptr) == (status == RUXO_LZ4F_OK));
  check(out != nullptr || len == 0);
  if (out == nullptr) return std::nullopt;
  std::string bytes(static_cast<const char *>(out), len);
  free(out);
  return bytes;
}

std::optional<std::string> decompress(const std::string &frame, size_t max_bytes) {
  void *out;
  size_t len;
  const auto status = ruxo_lz4f_decompress(frame.data(), frame.size(), max_bytes, &out, &len);
  return taken(status, out, len);
}

std::optional<std::string> decompress_in_pieces(const std::string &frame, size_t piece, size_t max_bytes) {
  ruxo_lz4f_stream_t *const stream = ruxo_lz4f_stream_alloc(max_bytes);
  for (size_t at = 0; at < frame.size(); at += piece) {
    const auto status = ruxo_lz4f_stream_write(stream, frame.data() + at, std::min(piece, frame.size() - at));
    check(status == RUXO_LZ4F_OK || !ruxo_lz4f_stream_complete(stream));
  }
  const bool complete = ruxo_lz4f_stream_complete(stream);
  void *out;
  size_t len;
  const auto status = ruxo_lz4f_stream_finish(stream, &out, &len);
  check(complete == (status == RUXO_LZ4F_OK));
  ruxo_lz4f_stream_free(stream);
  return taken(status, out, len);
}

void check_against_library(const std::string &frame, const std::string &content) {
  std::string out(content.size() + 1, '\0');
  size_t made = out.size(), used = frame.size();
  LZ4F_dctx *context = nullptr;
  check(!LZ4F_isError(LZ4F_createDecompressionContext(&context, LZ4F_VERSION)));
  check(LZ4F_decompress(context, out.data(), &made, frame.data(), &used, nullptr) == 0);
  check(used == frame.size() && out.substr(0, made) == content);
  LZ4F_freeDecompressionContext(context);
}

void check_round_trip(const std::string &content) {
  std::string frame(ruxo_lz4f_compress_bound(content.size()), '\0');
  frame.resize(ruxo_lz4f_compress(content.data(), content.size(), frame.data(), frame.size()));
  check(decompress(frame, content.size()) == content);
  check(content.empty() || !decompress(frame, content.size() - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 2) return 0;
  const size_t piece = data[0] + size_t{1}, max_bytes = data[1] * size_t{64};
  const std::string frame(reinterpret_cast<const char *>(data) + 2, size - 2);
  const auto content = decompress(frame, max_bytes);
  check(decompress_in_pieces(frame, piece, max_bytes) == content);
  if (content) {
    check(content->size() <= max_bytes);
    check_against_library(frame, *content);
  }
  check_round_trip(frame);
  return 0;
}
