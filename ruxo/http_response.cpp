// Responses: what the host puts into one, and how it gets out. The pieces of a body that are memory lie one behind the
// other in one text; so a response of memory alone leaves with one call, head included.
#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "ruxo/guard_private.h"
#include "ruxo/http_private.h"

namespace ruxo::http {

namespace {

constexpr size_t kMostKept = 65536;  // a text that has grown beyond is not kept for the next response
constexpr int kMostPieces = 16;      // in one call

struct Reason {
  int status;
  const char *phrase;
};
// RFC 9110 section 15.
constexpr Reason kReasons[] = {
    {200, "OK"},
    {201, "Created"},
    {202, "Accepted"},
    {204, "No Content"},
    {206, "Partial Content"},
    {301, "Moved Permanently"},
    {302, "Found"},
    {303, "See Other"},
    {304, "Not Modified"},
    {307, "Temporary Redirect"},
    {308, "Permanent Redirect"},
    {400, "Bad Request"},
    {401, "Unauthorized"},
    {403, "Forbidden"},
    {404, "Not Found"},
    {405, "Method Not Allowed"},
    {406, "Not Acceptable"},
    {408, "Request Timeout"},
    {409, "Conflict"},
    {410, "Gone"},
    {411, "Length Required"},
    {412, "Precondition Failed"},
    {413, "Content Too Large"},
    {414, "URI Too Long"},
    {415, "Unsupported Media Type"},
    {416, "Range Not Satisfiable"},
    {417, "Expectation Failed"},
    {422, "Unprocessable Content"},
    {429, "Too Many Requests"},
    {431, "Request Header Fields Too Large"},
    {500, "Internal Server Error"},
    {501, "Not Implemented"},
    {502, "Bad Gateway"},
    {503, "Service Unavailable"},
    {504, "Gateway Timeout"},
    {505, "HTTP Version Not Supported"},
    {507, "Insufficient Storage"},
};

bool is_token_byte(char byte) {
  return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
         (byte != '\0' && strchr("!#$%&'*+-.^_`|~", byte) != nullptr);
}

bool is_value_byte(char byte) {
  return byte == '\t' || (static_cast<unsigned char>(byte) >= 0x20 && byte != 0x7f);
}

bool is_value(std::string_view text) {
  if (!std::all_of(text.begin(), text.end(), is_value_byte)) return false;
  const auto is_blank = [](char byte) { return byte == ' ' || byte == '\t'; };
  return text.empty() || (!is_blank(text.front()) && !is_blank(text.back()));
}

// How long the response is and how it ends, only the server knows.
bool is_servers_own(std::string_view name) {
  constexpr std::string_view kOwn[] = {"Content-Length", "Transfer-Encoding", "Connection", "Keep-Alive",
                                       "Upgrade",        "Trailer",           "Date"};
  return std::any_of(std::begin(kOwn), std::end(kOwn), [&](std::string_view own) {
    return own.size() == name.size() && strncasecmp(own.data(), name.data(), name.size()) == 0;
  });
}

bool has_no_body(int status) {
  return status == 204 || status == 304;
}

void empty(std::string &text) {
  if (text.capacity() > kMostKept) text = {};
  text.clear();
}

void append_number(std::string &text, uint64_t number) {
  char digits[20];
  text.append(digits, std::to_chars(digits, digits + sizeof digits, number).ptr);
}

}  // namespace

const char *reason_phrase(int status) {
  const auto at = std::lower_bound(std::begin(kReasons), std::end(kReasons), status,
                                   [](const Reason &one, int wanted) { return one.status < wanted; });
  return at != std::end(kReasons) && at->status == status ? at->phrase : "";
}

void Response::set_status(int status) {
  status_ = status >= 200 && status <= 599 ? status : 500;
}

bool Response::header(std::string_view name, std::string_view value) {
  if (name.empty() || !std::all_of(name.begin(), name.end(), is_token_byte)) return false;
  if (!is_value(value) || is_servers_own(name)) return false;
  headers_.reserve(headers_.size() + name.size() + value.size() + 4);  // all or nothing
  headers_.append(name).append(": ").append(value).append("\r\n");
  return true;
}

bool Response::append(const void *bytes, size_t len) {
  if (len == 0) return true;
  const bool extends = !pieces_.empty() && pieces_.back().fd < 0;
  if (!extends) pieces_.reserve(pieces_.size() + 1);
  const size_t offset = body_.size();
  body_.append(static_cast<const char *>(bytes), len);
  if (extends) {
    pieces_.back().len += len;
  } else {
    pieces_.push_back({-1, offset, len});
  }
  length_ += len;
  return true;
}

bool Response::append_file(int fd, uint64_t len, off_t offset) {
  struct stat status;
  if (len == 0 || offset < 0 || fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return false;
  if (offset > status.st_size || len > static_cast<uint64_t>(status.st_size - offset)) return false;
  pieces_.reserve(pieces_.size() + 1);
  const int own = fcntl(fd, F_DUPFD_CLOEXEC, 0);
  if (own < 0) return false;
  pieces_.push_back({own, static_cast<uint64_t>(offset), len});
  length_ += len;
  return true;
}

void Response::clear() {
  for (const Piece &piece : pieces_) {
    if (piece.fd >= 0) close(piece.fd);
  }
  pieces_.clear();
  empty(headers_);
  empty(body_);
  empty(head_);
  status_ = 200;
  length_ = 0;
  head_sent_ = next_piece_ = 0;
  piece_sent_ = 0;
  ended.store(false, std::memory_order_relaxed);
}

void Response::prepare(std::string_view before, const Ending &ending) {
  head_.assign(before);
  head_.append("HTTP/1.1 ");
  append_number(head_, static_cast<uint64_t>(status_));
  head_.append(" ").append(reason_phrase(status_)).append("\r\nDate: ").append(ending.date).append("\r\n");
  head_.append(headers_);
  if (!has_no_body(status_)) {
    head_.append("Content-Length: ");
    append_number(head_, length_);
    head_.append("\r\n");
  }
  if (!ending.keep_alive) {
    head_.append("Connection: close\r\n");
  } else if (!ending.http11) {
    head_.append("Connection: keep-alive\r\n");
  }
  head_.append("\r\n");
  if (ending.head_only || has_no_body(status_)) next_piece_ = pieces_.size();
}

// What can leave with one call: the rest of the head and the pieces of memory behind it.
int Response::gather(struct iovec *pieces, int room, bool *file_follows) const {
  int count = 0;
  if (head_sent_ < head_.size())
    pieces[count++] = {const_cast<char *>(head_.data()) + head_sent_, head_.size() - head_sent_};
  uint64_t skipped = piece_sent_;
  size_t next = next_piece_;
  for (; next < pieces_.size() && pieces_[next].fd < 0 && count < room; ++next) {
    const Piece &piece = pieces_[next];
    pieces[count++] = {const_cast<char *>(body_.data()) + piece.offset + skipped, piece.len - skipped};
    skipped = 0;
  }
  *file_follows = next < pieces_.size();
  return count;
}

void Response::advance(uint64_t sent) {
  const size_t of_head = std::min<uint64_t>(sent, head_.size() - head_sent_);
  head_sent_ += of_head;
  sent -= of_head;
  while (sent > 0) {
    const uint64_t of_piece = std::min(sent, pieces_[next_piece_].len - piece_sent_);
    piece_sent_ += of_piece;
    sent -= of_piece;
    if (piece_sent_ == pieces_[next_piece_].len) {
      ++next_piece_;
      piece_sent_ = 0;
    }
  }
}

Response::Progress Response::send(Transport &transport, uint64_t budget, bool *sent) {
  *sent = false;
  for (uint64_t total = 0; total < budget;) {
    struct iovec pieces[kMostPieces];
    bool file_follows;
    const int count = gather(pieces, kMostPieces, &file_follows);
    ssize_t n;
    if (count > 0) {
      n = transport.send(pieces, count, file_follows);
    } else if (next_piece_ < pieces_.size()) {
      const Piece &file = pieces_[next_piece_];
      n = transport.send_file(file.fd, file.offset + piece_sent_,
                              std::min(file.len - piece_sent_, budget - total));
    } else {
      return Progress::done;
    }
    if (n == kBlocked) return Progress::blocked;
    if (n <= 0) return Progress::failed;
    *sent = true;
    advance(static_cast<uint64_t>(n));
    total += static_cast<uint64_t>(n);
  }
  return head_sent_ == head_.size() && next_piece_ == pieces_.size() ? Progress::done : Progress::more;
}

}  // namespace ruxo::http

void ruxo_http_response_status(ruxo_http_session_ctx *ctx, int status) {
  ctx->response.set_status(status);
}

ruxo_boolean ruxo_http_response_header(ruxo_http_session_ctx *ctx, const char *name, const char *value) {
  return ruxo::guarded(false, [&] { return ctx->response.header(name, value); });
}

ruxo_boolean ruxo_http_response_append(ruxo_http_session_ctx *ctx, const void *bytes, size_t len) {
  return ruxo::guarded(false, [&] { return ctx->response.append(bytes, len); });
}

// The flags say nothing here: files are sent by the kernel, or read a piece at a time. A mapping would turn a file that
// became shorter into a signal.
ruxo_boolean ruxo_http_response_append_mmap_from_fd(ruxo_http_session_ctx *ctx, int fd, size_t len, int,
                                                    off_t offset) {
  return ruxo::guarded(false, [&] { return ctx->response.append_file(fd, len, offset); });
}

void ruxo_http_response_end(ruxo_http_session_ctx *ctx) {
  ctx->connection->end_response();
}

void ruxo_http_respond(ruxo_http_session_ctx *ctx, int status, const char *content_type, const char *text) {
  ruxo_http_response_status(ctx, status);
  if (!ruxo_http_response_header(ctx, "Content-Type", content_type) ||
      !ruxo_http_response_append(ctx, text, strlen(text)))
    ruxo_http_response_status(ctx, 500);
  ruxo_http_response_end(ctx);
}
