// Servers: routes, listening, accepting, stopping.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "ruxo/guard_private.h"
#include "ruxo/http_private.h"

using ruxo::http::Lane;
using ruxo::http::Route;

namespace {

constexpr int kBacklog = 1024;
constexpr unsigned kAcceptsInARow = 64;
// Clients over the limit that are told so at one time; the rest are closed without a word.
constexpr unsigned kMostToldOff = 64;

// "address:port", an IPv6 address in brackets.
std::string text_of(const sockaddr_storage &address) {
  char text[INET6_ADDRSTRLEN] = "";
  if (address.ss_family == AF_INET6) {
    const auto &six = reinterpret_cast<const sockaddr_in6 &>(address);
    inet_ntop(AF_INET6, &six.sin6_addr, text, sizeof text);
    return "[" + std::string(text) + "]:" + std::to_string(ntohs(six.sin6_port));
  }
  const auto &four = reinterpret_cast<const sockaddr_in &>(address);
  inet_ntop(AF_INET, &four.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(four.sin_port));
}

socklen_t parse_address(const char *text, uint16_t port, sockaddr_storage *address) {
  auto &four = reinterpret_cast<sockaddr_in &>(*address);
  auto &six = reinterpret_cast<sockaddr_in6 &>(*address);
  *address = {};
  if (inet_pton(AF_INET, text, &four.sin_addr) == 1) {
    four.sin_family = AF_INET;
    four.sin_port = htons(port);
    return sizeof four;
  }
  if (inet_pton(AF_INET6, text, &six.sin6_addr) == 1) {
    six.sin6_family = AF_INET6;
    six.sin6_port = htons(port);
    return sizeof six;
  }
  return 0;
}

int port_of(int fd) {
  sockaddr_storage address;
  socklen_t size = sizeof address;
  if (getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size) != 0) return -1;
  return ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6 &>(address).sin6_port
                                             : reinterpret_cast<sockaddr_in &>(address).sin_port);
}

// A listening socket, or -1 with errno.
int open_listener(const sockaddr_storage &address, socklen_t size) {
  const int fd = socket(address.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) return -1;
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
  if (address.ss_family == AF_INET6) setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &on, sizeof on);
  if (bind(fd, reinterpret_cast<const sockaddr *>(&address), size) == 0 && listen(fd, kBacklog) == 0)
    return fd;
  const int reason = errno;
  close(fd);
  errno = reason;
  return -1;
}

int open_spare() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

}  // namespace

ruxo_log_stream_t ruxo::http::error_log() {
  const ruxo_log_stream_t own = ruxo_log_stream_find("error/http");
  return own != nullptr && ruxo_log_has_material_output(own) ? own : ruxo_error;
}

// ---- Routes ----

int ruxo_http_server::add_route(Route route) {
  if (!listeners_.empty()) return -1;
  const bool known = std::any_of(routes.begin(), routes.end(), [&](const Route &other) {
    return other.method == route.method && other.path == route.path;
  });
  if (known) return -1;
  const auto place = std::find_if(routes.begin(), routes.end(),
                                  [&](const Route &other) { return other.path.size() < route.path.size(); });
  routes.insert(place, std::move(route));
  return 0;
}

const Route *ruxo_http_server::find_route(std::string_view method, std::string_view path) const {
  const auto found = std::find_if(routes.begin(), routes.end(), [&](const Route &route) {
    return route.covers(path) && route.answers(method);
  });
  return found == routes.end() ? nullptr : &*found;
}

std::string ruxo_http_server::allowed_methods(std::string_view path) const {
  std::string methods;
  size_t len = 0;  // of the longest path that covers this one
  for (const Route &route : routes) {
    if (!route.covers(path)) continue;
    if (len == 0) len = route.path.size();
    if (route.path.size() != len) break;
    if (!methods.empty()) methods += ", ";
    methods += route.method == "GET" ? "GET, HEAD" : route.method;
  }
  return methods;
}

// ---- Listening and accepting ----

int ruxo_http_server::listen(const char *address, uint16_t port, std::string *err) {
  sockaddr_storage where;
  const socklen_t size = parse_address(address, port, &where);
  if (size == 0) {
    *err = std::string("not an IP address: \"") + address + "\"";
    return -1;
  }
  listeners_.reserve(listeners_.size() + 1);
  auto listener = std::make_unique<Listener>(Listener{this, -1, -1});
  const int fd = open_listener(where, size);
  if (fd < 0) {
    *err = "cannot listen on " + text_of(where) + ": " + strerror(errno);
    return -1;
  }
  listener->fd = fd;
  listener->spare_fd = open_spare();
  const int own_port = port_of(fd);
  const eventer_t e = eventer_alloc_fd(on_accept, listener.get(), fd, EVENTER_READ);
  if (e == nullptr || eventer_add(e) != 0) {
    *err = "cannot wait for connections to " + text_of(where) + ": " + strerror(errno);
    eventer_free(e);
    close(fd);
    close(listener->spare_fd);
    return -1;
  }
  listeners_.push_back(std::move(listener));
  return own_port;
}

int ruxo_http_server::on_accept(eventer_t, int, void *closure, struct timeval *) {
  Listener &listener = *static_cast<Listener *>(closure);
  for (unsigned i = 0; i < kAcceptsInARow && listener.server->accept_one(listener); ++i) continue;
  return EVENTER_READ;
}

bool ruxo_http_server::accept_one(Listener &listener) {
  sockaddr_storage address;
  socklen_t size = sizeof address;
  const int fd =
      accept4(listener.fd, reinterpret_cast<sockaddr *>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd >= 0) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    ruxo::guarded(0, [&] { return take_in(fd, text_of(address)), 0; });
    return true;
  }
  if (errno == EMFILE || errno == ENFILE) turn_away(listener);
  return errno == EINTR || errno == ECONNABORTED;
}

// Without a descriptor to accept it with, a client would wait, and the loop be told of him for ever.
void ruxo_http_server::turn_away(Listener &listener) {
  ruxo_log(ruxo::http::error_log(), "http: no descriptors left, a client is turned away\n");
  if (listener.spare_fd >= 0) close(listener.spare_fd);
  const int fd = accept4(listener.fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) close(fd);
  listener.spare_fd = open_spare();
  errno = EMFILE;
}

Lane &ruxo_http_server::next_lane() {
  const std::lock_guard guard(lock_);
  const unsigned loops = std::max(1U, eventer_loop_count());
  while (lanes_.size() < loops) {
    lanes_.push_back(
        std::make_unique<Lane>(*this, eventer_choose_owner(static_cast<unsigned>(lanes_.size()))));
  }
  return *lanes_[next_loop_++ % loops];
}

void ruxo_http_server::take_in(int fd, std::string peer) {
  const bool over = connections_.fetch_add(1) >= limits.max_connections;
  if (over) {
    --connections_;
    // One that would need a handshake first is not worth it.
    if (tls != nullptr || over_limit_.load() >= kMostToldOff) {
      close(fd);
      return;
    }
    ++over_limit_;
  }
  ++references_;
  const bool started = ruxo::guarded(false, [&] {
    Lane &lane = next_lane();
    auto *const connection = new ruxo_http_connection(*this, lane, fd, std::move(peer), over);
    return connection->start();
  });
  if (started) return;
  close(fd);
  forget(over);
}

// ---- Stopping ----

void ruxo_http_server::forget(bool over_limit) {
  {
    const std::lock_guard guard(lock_);
    --(over_limit ? over_limit_ : connections_);
    changed_.notify_all();
  }
  release();
}

void ruxo_http_server::release() {
  if (--references_ == 0) delete this;
}

void ruxo_http_server::task_done() {
  const std::lock_guard guard(lock_);
  --tasks_;
  changed_.notify_all();
}

void ruxo_http_server::for_all_lanes(void (*work)(Lane &lane)) {
  std::unique_lock guard(lock_);
  for (const auto &lane : lanes_) {
    ++tasks_;
    lane->post(work);
  }
  changed_.wait(guard, [&] { return tasks_ == 0; });
}

size_t ruxo_http_server::stop(uint64_t grace_ms) noexcept {
  stopping = true;
  for (const auto &listener : listeners_) {
    eventer_free(eventer_remove_fd(listener->fd));
    close(listener->fd);
    if (listener->spare_fd >= 0) close(listener->spare_fd);
  }
  if (eventer_loop_count() == 0) {
    for (const auto &lane : lanes_) lane->abandon_all();
  } else {
    for_all_lanes([](Lane &lane) { lane.stop_idle(); });
    std::unique_lock guard(lock_);
    changed_.wait_for(guard, std::chrono::milliseconds(std::min<uint64_t>(grace_ms, uint64_t{1} << 40)),
                      [&] { return connections_ == 0; });
    guard.unlock();
    for_all_lanes([](Lane &lane) { lane.cut_all(); });
  }
  size_t cut = 0;
  for (const auto &lane : lanes_) cut += lane->cut_count;
  release();
  return cut;
}

// ---- The C face ----

namespace {

char *copy_of(const std::string &text) {
  return strdup(text.c_str());
}

}  // namespace

void ruxo_http_limits_default(ruxo_http_limits_t *limits) {
  *limits = {.max_url = 8192,
             .max_header_bytes = 65536,
             .max_headers = 100,
             .max_body = uint64_t{1} << 20,
             .max_connections = 4096,
             .max_requests = 0,
             .header_timeout_ms = 10000,
             .body_timeout_ms = 30000,
             .idle_timeout_ms = 60000,
             .write_timeout_ms = 30000};
}

ruxo_http_server_t *ruxo_http_server_new(const ruxo_http_limits_t *limits) {
  return ruxo::guarded<ruxo_http_server_t *>(nullptr, [&] {
    auto *const server = new ruxo_http_server;
    if (limits != nullptr) {
      server->limits = *limits;
    } else {
      ruxo_http_limits_default(&server->limits);
    }
    return server;
  });
}

int ruxo_http_server_route(ruxo_http_server_t *server, const char *method, const char *path,
                           uint64_t max_body, ruxo_http_handler_f handler, void *closure) {
  return ruxo::guarded(-1, [&] { return server->add_route({method, path, max_body, handler, closure}); });
}

int ruxo_http_server_tls(ruxo_http_server_t *server, const char *certificate_file, const char *key_file,
                         char **err) {
  std::string fault;
  const int result = ruxo::guarded(-1, [&] {
    server->tls = ruxo::http::tls_context(certificate_file, key_file, &fault);
    return server->tls != nullptr ? 0 : -1;
  });
  if (err != nullptr) *err = result == 0 ? nullptr : copy_of(fault);
  return result;
}

int ruxo_http_server_listen(ruxo_http_server_t *server, const char *address, uint16_t port, char **err) {
  std::string fault;
  const int result = ruxo::guarded(-1, [&] { return server->listen(address, port, &fault); });
  if (err != nullptr) *err = result >= 0 ? nullptr : copy_of(fault.empty() ? "out of memory" : fault);
  return result;
}

size_t ruxo_http_server_stop(ruxo_http_server_t *server, uint64_t grace_ms) {
  return server->stop(grace_ms);
}
