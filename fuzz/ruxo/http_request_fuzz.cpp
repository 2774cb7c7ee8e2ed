// Bytes from a client to a server that limits everything tightly. Whatever they are, what comes back is a row of whole
// responses, nothing follows one that says it is the last, and it means the same when the bytes come in two parts: only
// the refusal of a request that is not complete may then be missing, or be another one. The first byte says where they
// are cut.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "ruxo/http.h"
#include "ruxo/log.h"

namespace {

struct Response {
  int status;
  std::string body;
};

// Says which one, because what depends on time may not come again.
void check_at(bool holds, int line) {
  if (holds) return;
  fprintf(stderr, "http_request_fuzz.cpp:%d does not hold, errno %d\n", line, errno);
  abort();
}
#define check(condition) check_at((condition), __LINE__)

// Answers with all that it was told.
int answer(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *bytes, size_t len, void *) {
  const char *const parts[] = {ruxo_http_request_method(ctx), ruxo_http_request_path(ctx),
                               ruxo_http_request_query(ctx), ruxo_http_request_header(ctx, "X"),
                               ruxo_http_request_header(ctx, "Host")};
  if (phase == RUXO_HTTP_HEAD) {
    for (const char *part : parts) {
      if (part != nullptr) check(ruxo_http_response_append(ctx, part, strlen(part)));
      ruxo_http_response_append(ctx, "|", 1);
    }
    char path[64];
    const ssize_t path_len = ruxo_http_safe_path(parts[1] + 1, path, sizeof path);
    if (path_len >= 0) check(strstr(path, "..") != path || path[2] != '/');
    ruxo_http_response_header(ctx, "X", parts[3] == nullptr ? "" : parts[3]);
  }
  if (phase == RUXO_HTTP_BODY) check(len > 0 && ruxo_http_response_append(ctx, bytes, len));
  if (phase == RUXO_HTTP_COMPLETE) ruxo_http_response_end(ctx);
  return 0;
}

int start() {
  ruxo_error = nullptr;
  ruxo_http_limits_t limits;
  ruxo_http_limits_default(&limits);
  limits.max_url = 64;
  limits.max_header_bytes = 512;
  limits.max_headers = 8;
  limits.max_body = 256;
  limits.max_requests = 20;
  check(eventer_start(1) == 0);
  ruxo_http_server_t *const server = ruxo_http_server_new(&limits);
  for (const char *method : {"GET", "POST"}) ruxo_http_server_route(server, method, "/", 0, answer, nullptr);
  const int port = ruxo_http_server_listen(server, "127.0.0.1", 0, nullptr);
  check(port > 0);
  return port;
}

sockaddr_in loopback(uint32_t host, int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + host);
  return address;
}

// A connection of its own for each input. The system keeps the ports of those that ended for a minute, so many
// addresses share them.
int connected(int port) {
  static uint32_t count = 0;
  const sockaddr_in own = loopback(256 + count++ % 65536, 0);
  const sockaddr_in server = loopback(0, port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  setsockopt(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, &on, sizeof on);
  check(bind(fd, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0);
  check(connect(fd, reinterpret_cast<const sockaddr *>(&server), sizeof server) == 0);
  return fd;
}

std::string exchange(int port, std::string_view first, std::string_view second) {
  const int fd = connected(port);
  std::string received;
  char piece[4096];
  if (!first.empty()) send(fd, first.data(), first.size(), MSG_NOSIGNAL);
  if (!second.empty()) {
    usleep(50);
    send(fd, second.data(), second.size(), MSG_NOSIGNAL);
  }
  shutdown(fd, SHUT_WR);
  for (ssize_t n; (n = recv(fd, piece, sizeof piece, 0)) != 0;) {
    if (n > 0) received.append(piece, static_cast<size_t>(n));
    check(n > 0 || errno == EINTR);  // a reset is no end either
  }
  close(fd);
  return received;
}

// Where the field of that name begins, within a head; npos when it has none.
size_t find_value(std::string_view head, const std::string &name) {
  const size_t at = head.find("\r\n" + name + ": ");
  return at == std::string_view::npos ? at : at + name.size() + 4;
}

// The final responses in what was received.
std::vector<Response> responses(std::string_view received) {
  std::vector<Response> result;
  bool last = false;
  while (!received.empty()) {
    check(!last && received.starts_with("HTTP/1.1 "));
    const size_t head_end = received.find("\r\n\r\n");
    check(head_end != std::string_view::npos);
    const std::string_view head = received.substr(0, head_end + 2);
    received.remove_prefix(head_end + 4);
    const int status = atoi(std::string(head.substr(9, 3)).c_str());
    if (status == 100) continue;
    const size_t length_at = find_value(head, "Content-Length");
    check(length_at != std::string_view::npos);
    const size_t len = strtoull(std::string(head.substr(length_at, 20)).c_str(), nullptr, 10);
    check(len <= received.size());
    result.push_back({status, std::string(received.substr(0, len))});
    received.remove_prefix(len);
    const size_t connection_at = find_value(head, "Connection");
    last = connection_at != std::string_view::npos && head.substr(connection_at).starts_with("close");
  }
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const int port = start();
  if (size == 0) return 0;
  const std::string_view input(reinterpret_cast<const char *>(data) + 1, size - 1);
  // The reader of responses cannot tell which of them answers a HEAD.
  if (input.find("HEAD") != std::string_view::npos) return 0;
  const size_t cut = input.empty() ? 0 : data[0] % input.size();
  const std::vector<Response> whole = responses(exchange(port, input, {}));
  const std::vector<Response> parts = responses(exchange(port, input.substr(0, cut), input.substr(cut)));
  check(parts.size() == whole.size() || (parts.size() + 1 == whole.size() && whole.back().status >= 400));
  for (size_t i = 0; i < parts.size(); ++i) {
    if (parts[i].status >= 400 && whole[i].status >= 400 && i + 1 == whole.size()) break;
    check(parts[i].status == whole[i].status && parts[i].body == whole[i].body);
  }
  return 0;
}
