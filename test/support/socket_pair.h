// Two connected stream sockets, both non-blocking, closed at the end.
#ifndef TEST_SUPPORT_SOCKET_PAIR_H
#define TEST_SUPPORT_SOCKET_PAIR_H

#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>

class SocketPair {
 public:
  SocketPair() {
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends_) != 0) {
      throw std::runtime_error("socketpair failed");
    }
  }
  SocketPair(SocketPair &&other) noexcept
      : ends_{std::exchange(other.ends_[0], -1), std::exchange(other.ends_[1], -1)} {}
  SocketPair &operator=(SocketPair &&) = delete;
  ~SocketPair() {
    close_near();
    close_far();
  }

  int near() const { return ends_[0]; }
  int far() const { return ends_[1]; }
  void close_near() { close_one(ends_[0]); }
  void close_far() { close_one(ends_[1]); }

  // Whether all of it fitted.
  bool send_far(std::string_view bytes) const {
    return ::write(far(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  }
  // Fills what the near end can send before the far end reads.
  void fill_near() const {
    const std::string bytes(65536, 'x');
    while (::write(near(), bytes.data(), bytes.size()) > 0) {
    }
  }
  static std::string receive(int fd) {
    std::string all;
    char piece[65536];
    for (ssize_t n; (n = ::read(fd, piece, sizeof piece)) > 0;) all.append(piece, static_cast<size_t>(n));
    return all;
  }

 private:
  static void close_one(int &fd) {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }

  int ends_[2];
};

#endif
