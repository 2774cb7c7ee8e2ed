// Bytes over a socket.
#include <errno.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "ruxo/http_private.h"

namespace ruxo::http {

ssize_t read_file_at(int file, char *buff, size_t size, uint64_t offset) {
  ssize_t n;
  do {
    n = pread(file, buff, size, static_cast<off_t>(offset));
  } while (n < 0 && errno == EINTR);
  return n;
}

namespace {

class PlainTransport final : public Transport {
 public:
  explicit PlainTransport(int fd) : fd_(fd) {}

  ssize_t handshake() override { return 1; }

  ssize_t read(char *buff, size_t size) override {
    return result(EVENTER_READ, [&] { return recv(fd_, buff, size, 0); });
  }

  ssize_t send(const struct iovec *pieces, int count, bool more_follows) override {
    struct msghdr message = {};
    message.msg_iov = const_cast<struct iovec *>(pieces);
    message.msg_iovlen = static_cast<size_t>(count);
    const int flags = MSG_NOSIGNAL | (more_follows ? MSG_MORE : 0);
    return result(EVENTER_WRITE, [&] { return sendmsg(fd_, &message, flags); });
  }

  ssize_t send_file(int file, uint64_t offset, uint64_t len) override {
    const ssize_t n = result(EVENTER_WRITE, [&] {
      off_t at = static_cast<off_t>(offset);
      return sendfile(fd_, file, &at, std::min<uint64_t>(len, kMostAtOnce));
    });
    if (n == kFailed && (errno == EINVAL || errno == ENOSYS)) return copy_file(file, offset, len);
    return n;
  }

  void finish() override { shutdown(fd_, SHUT_WR); }
  bool short_read_is_last() const override { return true; }

 private:
  static constexpr uint64_t kMostAtOnce = uint64_t{2}
                                          << 20;  // so that a fast reader does not hold up the others

  template <class Call>
  ssize_t result(int mask, Call call) {
    ssize_t n;
    do {
      n = call();
    } while (n < 0 && errno == EINTR);
    if (n >= 0) return n;
    if (errno != EAGAIN && errno != EWOULDBLOCK) return kFailed;
    wanted_ = mask;
    return kBlocked;
  }

  // For file systems that the kernel cannot send from.
  ssize_t copy_file(int file, uint64_t offset, uint64_t len) {
    char copy[16384];
    const ssize_t n = read_file_at(file, copy, std::min<uint64_t>(len, sizeof copy), offset);
    if (n < 0) return kFailed;
    if (n == 0) return kEnd;
    const struct iovec piece = {copy, static_cast<size_t>(n)};
    return send(&piece, 1, len > static_cast<uint64_t>(n));
  }

  const int fd_;
};

}  // namespace

std::unique_ptr<Transport> plain_transport(int fd) {
  return std::make_unique<PlainTransport>(fd);
}

}  // namespace ruxo::http
