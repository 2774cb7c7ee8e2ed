// A client of the HTTP server that is nothing but a socket, and a few lines that read responses: the independent side
// of its tests. Nothing waits for ever: a read that gets nothing for ten seconds fails the test.
#ifndef TEST_SUPPORT_HTTP_CLIENT_H
#define TEST_SUPPORT_HTTP_CLIENT_H

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct HttpResponse {
  int status = 0;
  std::string status_line;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string body;

  // The value of a field; "(none)" when there is none.
  std::string header(const char *name) const {
    for (const auto &[key, value] : headers) {
      if (strcasecmp(key.c_str(), name) == 0) return value;
    }
    return "(none)";
  }
};

class HttpClient {
 public:
  explicit HttpClient(int port, int receive_buffer = 0)
      : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    const int on = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (receive_buffer != 0) setsockopt(fd_, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof receive_buffer);
    const struct timeval patience = {10, 0};
    setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
      throw std::runtime_error("connect failed");
  }
  HttpClient(HttpClient &&other) noexcept
      : fd_(std::exchange(other.fd_, -1)), unread_(std::move(other.unread_)) {}
  HttpClient &operator=(HttpClient &&) = delete;
  ~HttpClient() { hang_up(); }

  int fd() const { return fd_; }

  // False when the server does not listen any more.
  bool send(std::string_view bytes) const {
    while (!bytes.empty()) {
      const ssize_t n = ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (n <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
  }
  bool send_byte_by_byte(std::string_view bytes) const {
    for (const char byte : bytes) {
      if (!send({&byte, 1})) return false;
    }
    return true;
  }
  void finish_sending() const { shutdown(fd_, SHUT_WR); }
  void hang_up() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }
  // Ends the connection with a reset.
  void reset() {
    const struct linger at_once = {1, 0};
    setsockopt(fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    hang_up();
  }

  // The next response; with status 0 when the connection ended, or ten seconds passed, before it was complete: then the
  // body is what came.
  HttpResponse response(bool to_head = false) {
    HttpResponse result;
    size_t end;
    while ((end = unread_.find("\r\n\r\n")) == std::string::npos) {
      if (!read_more()) return result;
    }
    result = parse_head(unread_.substr(0, end + 2));
    unread_.erase(0, end + 4);
    const bool bodiless = to_head || result.status < 200 || result.status == 204 || result.status == 304;
    const std::string length = result.header("Content-Length");
    const size_t wanted = bodiless || length == "(none)" ? 0 : std::stoull(length);
    while (unread_.size() < wanted && read_more()) continue;
    if (unread_.size() < wanted) result.status = 0;
    result.body = unread_.substr(0, wanted);
    unread_.erase(0, result.body.size());
    return result;
  }
  HttpResponse request(std::string_view bytes) {
    send(bytes);
    return response();
  }

  // Everything until the server closes. The status of an end that was not in order is appended as "<errno>".
  std::string rest() {
    while (read_more()) continue;
    if (fault_ != 0) unread_ += "<" + std::to_string(fault_) + ">";
    return std::exchange(unread_, "");
  }
  // Whether the server closes, in order, without sending anything more.
  bool is_closed() { return rest().empty(); }

 private:
  static HttpResponse parse_head(const std::string &head) {
    HttpResponse result;
    size_t line_end = head.find("\r\n");
    result.status_line = head.substr(0, line_end);
    result.status = std::stoi(result.status_line.substr(9, 3));
    for (size_t at = line_end + 2; at < head.size(); at = line_end + 2) {
      line_end = head.find("\r\n", at);
      const std::string line = head.substr(at, line_end - at);
      const size_t colon = line.find(": ");
      if (colon == std::string::npos) throw std::runtime_error("a header line without a colon: " + line);
      result.headers.emplace_back(line.substr(0, colon), line.substr(colon + 2));
    }
    return result;
  }

  bool read_more() {
    char piece[65536];
    ssize_t n;
    do {
      n = recv(fd_, piece, sizeof piece, 0);
    } while (n < 0 && errno == EINTR);
    fault_ = n < 0 ? errno : 0;
    if (n > 0) unread_.append(piece, static_cast<size_t>(n));
    return n > 0;
  }

  int fd_;
  int fault_ = 0;
  std::string unread_;
};

#endif
