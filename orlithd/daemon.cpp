#include "orlithd/daemon.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "liborlith/liborlith_init.h"
#include "liborlith/util/vask_proxy_buffer.h"
#include "orlith/exit_code.h"
#include "orlith/text.h"
#include "orlithd/exchange.h"
#include "orlithd/handlers.h"
#include "orlithd/metrics.h"
#include "orlithd/node.h"

namespace {

constexpr unsigned kDiskThreads = 4;
constexpr unsigned kPeerThreads = 16;

void say(std::string_view message) {
  fmt::print(stderr, "orlithd: {}\n", message);
}

sigset_t daemon_signals() {
  sigset_t set;
  sigemptyset(&set);
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set, number);
  return set;
}

// Sends every stream to the file, or to standard error. False, and errno, when the file cannot be opened.
bool open_log(const Options &options, ruxo_log_outlet_t *outlet) {
  *outlet = options.log_file.empty() ? ruxo_log_outlet_stderr(options.log_json)
                                     : ruxo_log_outlet_file(options.log_file.c_str(), options.log_json);
  if (*outlet == nullptr) return false;
  request_log = ruxo_log_stream_new("request");
  for (ruxo_log_stream_t stream : {ruxo_error, ruxo_notice, request_log}) {
    if (stream == nullptr) continue;
    ruxo_log_stream_remove_outlets(stream);
    ruxo_log_stream_add_outlet(stream, *outlet);
  }
  return true;
}

ListenAddress address_of(const host_config *self) {
  char text[INET_ADDRSTRLEN] = {};
  inet_ntop(AF_INET, &self->net_address, text, sizeof text);
  return {text, ntohs(self->net_apiport)};
}

// Returns the port; 0 after a message.
int listen(ruxo_http_server_t *server, const Options &options, const Node &node) {
  char *err = nullptr;
  if (!options.tls_certificate.empty() &&
      ruxo_http_server_tls(server, options.tls_certificate.c_str(), options.tls_key.c_str(), &err) != 0) {
    say(escaped(err == nullptr ? "out of memory" : err));
    free(err);
    return 0;
  }
  const ListenAddress where =
      options.listen.empty() ? address_of(node.topology.self) : *parse_listen_address(options.listen);
  const int port = ruxo_http_server_listen(server, where.address.c_str(), where.port, &err);
  if (port <= 0) {
    say(escaped(err == nullptr ? "out of memory" : err));
    free(err);
    return 0;
  }
  const bool is_v6 = where.address.find(':') != std::string::npos;
  say(fmt::format("listening on {}://{}{}{}:{}", options.tls_certificate.empty() ? "http" : "https",
                  is_v6 ? "[" : "", where.address, is_v6 ? "]" : "", port));
  return port;
}

// The signal that ends the process.
int wait_for_the_end(ruxo_log_outlet_t outlet) {
  const sigset_t set = daemon_signals();
  for (;;) {
    int number = 0;
    if (sigwait(&set, &number) != 0) continue;
    if (number != SIGHUP) return number;
    if (!ruxo_log_outlet_reopen(outlet))
      say(fmt::format("the log file cannot be opened again: {}", strerror(errno)));
  }
}

// From now on another signal ends the process at once: who sends it does not want to wait.
void let_signals_kill() {
  sigset_t set = daemon_signals();
  sigdelset(&set, SIGHUP);
  for (const int number : {SIGTERM, SIGINT}) signal(number, SIG_DFL);
  pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

// Once in a process, before other threads use libcurl.
void prepare_for_peers(const Options &options) {
  curl_global_init(CURL_GLOBAL_DEFAULT);
  vask_proxy_buffer_init(options.data.c_str(), options.peer_connect_timeout_ms);
  if (!options.tls_authorities.empty()) topo_set_ca_chain(nullptr, options.tls_authorities.c_str());
}

int serve(ruxo_http_server_t *server, const Options &options, Node *node, ruxo_log_outlet_t outlet) {
  if (add_routes(server, node) != 0 || listen(server, options, *node) == 0) {
    ruxo_http_server_stop(server, 0);
    return exit_failed;
  }
  const int number = wait_for_the_end(outlet);
  node->stopping = true;
  let_signals_kill();
  say(fmt::format("stopping; requests have {} s", options.grace_s));
  const size_t cut = ruxo_http_server_stop(server, uint64_t{options.grace_s} * 1000);
  if (cut > 0) say(fmt::format("{} requests were cut", cut));
  return number == SIGINT ? exit_interrupted : exit_fine;
}

}  // namespace

void block_daemon_signals() {
  const sigset_t set = daemon_signals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  signal(SIGXFSZ, SIG_IGN);  // a file over its size limit is a failed write
}

int run_daemon(const Options &options) {
  ruxo_log_outlet_t outlet = nullptr;
  if (!open_log(options, &outlet)) {
    say(fmt::format("{}: {}", escaped(options.log_file), strerror(errno)));
    return exit_failed;
  }
  liborlith_init();
  // Handlers and jobs use it until the loops have stopped.
  Node node;
  std::string fault;
  if (const int code = node.topology.load(options.topology, options.me, &fault)) {
    say(fault);
    return code;
  }
  if (fault = node.data.open(options.data); !fault.empty()) {
    say(fault);
    return exit_failed;
  }
  prepare_for_peers(options);
  node.peer_timeout_ms = static_cast<int>(options.peer_timeout_ms);
  node.max_upload_bytes = options.max_upload_bytes;
  node.min_free_bytes = options.min_free_bytes;
  if (eventer_start(options.threads) != 0) {
    say("the loop threads cannot be started");
    return exit_failed;
  }
  node.jobs = eventer_jobq_create("disk", kDiskThreads);
  node.peers = eventer_jobq_create("peers", kPeerThreads);
  register_metrics(&node);
  ruxo_http_server_t *const server = ruxo_http_server_new(nullptr);
  int code = exit_failed;
  if (node.jobs == nullptr || node.peers == nullptr || server == nullptr) {
    say("out of memory");
  } else {
    code = serve(server, options, &node, outlet);
  }
  eventer_stop();
  eventer_jobq_destroy(node.jobs);
  eventer_jobq_destroy(node.peers);
  ruxo_log_flush();
  return code;
}
