// A peer for tests of HTTP clients: a thread on loopback that reads requests and plays back answers, byte for byte as a
// test writes them down, right or wrong.
#ifndef TEST_SUPPORT_HTTP_PEER_H
#define TEST_SUPPORT_HTTP_PEER_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace http_peer {

struct Request {
  std::string head;  // request line and headers, without the empty line
  std::string body;

  // "GET /path"
  std::string line() const {
    const size_t end = head.find(" HTTP/");
    return head.substr(0, end);
  }
  // The value of a header, whose name is given as it is sent; empty when there is none.
  std::string header(const std::string &name) const {
    const size_t at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos) return "";
    const size_t from = at + name.size() + 4;
    return head.substr(from, head.find("\r\n", from) - from);
  }
  size_t count_of(const std::string &text) const {
    size_t count = 0;
    for (size_t at = head.find(text); at != std::string::npos; at = head.find(text, at + 1)) ++count;
    return count;
  }
};

// What follows the last byte: an orderly end, a reset, or nothing until the peer is gone.
enum class End { close, reset, stall };

struct Reply {
  std::string bytes;
  End end = End::close;
};

// A whole answer with its true length.
inline Reply answer(int status, const std::string &body, const std::string &headers = "") {
  return {"HTTP/1.1 " + std::to_string(status) + " Text\r\nContent-Length: " + std::to_string(body.size()) +
              "\r\nConnection: close\r\n" + headers + "\r\n" + body,
          End::close};
}

using Handler = std::function<Reply(const Request &)>;

class HttpPeer {
 public:
  explicit HttpPeer(Handler handler, int family = AF_INET) : handler_(std::move(handler)), family_(family) {
    listener_ = socket(family, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener_ < 0 || !bind_loopback() || listen(listener_, 64) != 0 || pipe(wake_) != 0) {
      throw std::runtime_error("cannot listen on loopback");
    }
    thread_ = std::thread([this] { serve(); });
  }
  explicit HttpPeer(Reply reply, int family = AF_INET)
      : HttpPeer([reply](const Request &) { return reply; }, family) {}
  ~HttpPeer() {
    close(wake_[1]);
    thread_.join();
    for (const int fd : stalled_) close(fd);
    close(wake_[0]);
    close(listener_);
  }
  HttpPeer(const HttpPeer &) = delete;
  HttpPeer &operator=(const HttpPeer &) = delete;

  int port() const { return port_; }
  std::string url() const {
    return (family_ == AF_INET6 ? "http://[::1]:" : "http://127.0.0.1:") + std::to_string(port_);
  }
  std::vector<Request> requests() const {
    const std::lock_guard guard(lock_);
    return requests_;
  }

  static bool has_ipv6() {
    const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_addr = in6addr_loopback;
    const bool works = fd >= 0 && bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0;
    if (fd >= 0) close(fd);
    return works;
  }

 private:
  bool bind_loopback() {
    sockaddr_storage storage{};
    auto *v4 = reinterpret_cast<sockaddr_in *>(&storage);
    auto *v6 = reinterpret_cast<sockaddr_in6 *>(&storage);
    socklen_t len = family_ == AF_INET6 ? sizeof *v6 : sizeof *v4;
    if (family_ == AF_INET6) {
      v6->sin6_family = AF_INET6;
      v6->sin6_addr = in6addr_loopback;
    } else {
      v4->sin_family = AF_INET;
      v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    }
    auto *address = reinterpret_cast<sockaddr *>(&storage);
    if (bind(listener_, address, len) != 0 || getsockname(listener_, address, &len) != 0) return false;
    port_ = ntohs(family_ == AF_INET6 ? v6->sin6_port : v4->sin_port);
    return true;
  }

  // Waits for bytes or the end of the peer.
  bool wait_for(int fd) const {
    pollfd both[] = {{fd, POLLIN, 0}, {wake_[0], POLLIN, 0}};
    while (poll(both, 2, -1) < 0) {
    }
    return both[1].revents == 0;
  }

  bool receive(int fd, std::string *text) const {
    char piece[16384];
    if (!wait_for(fd)) return false;
    const ssize_t got = recv(fd, piece, sizeof piece, 0);
    if (got <= 0) return false;
    text->append(piece, static_cast<size_t>(got));
    return true;
  }

  static void transmit(int fd, const std::string &bytes) {
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t sent = send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
      if (sent <= 0) return;
      at += static_cast<size_t>(sent);
    }
  }

  bool read_request(int fd, Request *request) const {
    std::string text;
    size_t end = 0;
    while ((end = text.find("\r\n\r\n")) == std::string::npos) {
      if (!receive(fd, &text)) return false;
      // No request line begins so: another protocol, which is answered in ours.
      if (text[0] < 'A' || text[0] > 'Z') return true;
    }
    request->head = text.substr(0, end);
    request->body = text.substr(end + 4);
    const size_t length = strtoul(request->header("Content-Length").c_str(), nullptr, 10);
    if (request->body.size() < length && !request->header("Expect").empty()) {
      transmit(fd, "HTTP/1.1 100 Continue\r\n\r\n");
    }
    while (request->body.size() < length) {
      if (!receive(fd, &request->body)) break;  // an upload that breaks off is kept as far as it came
    }
    return true;
  }

  void play(int fd) {
    Request request;
    if (!read_request(fd, &request)) {
      close(fd);
      return;
    }
    {
      const std::lock_guard guard(lock_);
      requests_.push_back(request);
    }
    const Reply reply = handler_(request);
    transmit(fd, reply.bytes);
    if (reply.end == End::stall) {
      stalled_.push_back(fd);
      return;
    }
    if (reply.end == End::reset) {
      const linger at_once = {1, 0};
      setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    }
    close(fd);
  }

  void serve() {
    while (wait_for(listener_)) {
      const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (fd >= 0) play(fd);
    }
  }

  const Handler handler_;
  const int family_;
  int listener_ = -1;
  int wake_[2] = {-1, -1};
  int port_ = 0;
  std::vector<int> stalled_;
  mutable std::mutex lock_;  // guards requests_
  std::vector<Request> requests_;
  std::thread thread_;
};

// A port on which nothing listens: bound, so that nobody else takes it.
class ClosedPort {
 public:
  ClosedPort() : fd_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof address;
    if (bind(fd_, reinterpret_cast<sockaddr *>(&address), len) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr *>(&address), &len) != 0) {
      throw std::runtime_error("cannot bind on loopback");
    }
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
  }
  ~ClosedPort() { close(fd_); }
  ClosedPort(const ClosedPort &) = delete;
  ClosedPort &operator=(const ClosedPort &) = delete;

  const std::string &url() const { return url_; }

 private:
  int fd_;
  std::string url_;
};

}  // namespace http_peer

#endif
