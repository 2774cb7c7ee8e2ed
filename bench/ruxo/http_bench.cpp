// The HTTP server with one loop thread, beside nginx with one worker that serves the same bytes; both in the same run,
// over loopback. Goals: small GETs on keep-alive connections at least 0.6 of it (from the load tool wrk, a second
// each), a mapped 64 MiB file at least 0.9 of it with sendfile. `ratio` is our rate by its. On a machine that does
// other things too, `cpu_ratio` says more: the processor time that its worker took, by what our loop thread took, for
// the same work.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "ruxo/http.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr size_t kFileSize = size_t{64} << 20;
constexpr const char *kSmall = "/small";
constexpr const char *kBig = "/big";
const std::string kSmallBody(100, 'x');

double seconds_of(clockid_t clock) {
  struct timespec time = {};
  clock_gettime(clock, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

sockaddr_in loopback(int port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return address;
}

int connected(int port) {
  const sockaddr_in address = loopback(port);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
  close(fd);
  return -1;
}

// A port that nobody listens on: nginx must be told one.
int free_port() {
  sockaddr_in address = loopback(0);
  socklen_t size = sizeof address;
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(fd, reinterpret_cast<sockaddr *>(&address), size) != 0) throw std::runtime_error("bind failed");
  getsockname(fd, reinterpret_cast<sockaddr *>(&address), &size);
  close(fd);
  return ntohs(address.sin_port);
}

// ---- Ours ----

int answer_small(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *, size_t, void *) {
  if (phase == RUXO_HTTP_COMPLETE) ruxo_http_respond(ctx, 200, "text/plain", kSmallBody.c_str());
  return 0;
}

int answer_big(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, const void *, size_t, void *closure) {
  if (phase != RUXO_HTTP_COMPLETE) return 0;
  if (!ruxo_http_response_append_mmap_from_fd(ctx, *static_cast<int *>(closure), kFileSize, 0, 0)) return -1;
  ruxo_http_response_end(ctx);
  return 0;
}

// ---- nginx ----

constexpr const char *kConfiguration = R"(
daemon off;
master_process off;
pid @FOLDER@/pid;
error_log @FOLDER@/errors;
events { worker_connections 1024; }
http {
  access_log off;
  sendfile on;
  keepalive_requests 1000000000;
  default_type text/plain;
  client_body_temp_path @FOLDER@/a; proxy_temp_path @FOLDER@/b; fastcgi_temp_path @FOLDER@/c; uwsgi_temp_path @FOLDER@/d;
  scgi_temp_path @FOLDER@/e;
  server {
    listen 127.0.0.1:@PORT@;
    location = /small { return 200 "@BODY@"; }
    location = /big { root @FOLDER@; }
  }
}
)";

std::string filled_in(std::string text, std::string_view mark, const std::string &value) {
  for (size_t at; (at = text.find(mark)) != std::string::npos;) text.replace(at, mark.size(), value);
  return text;
}

// Both servers, with a folder of theirs, for the whole run.
class Servers {
 public:
  Servers() {
    std::string name = (fs::temp_directory_path() / "liborlith_bench_XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    folder_ = name;
    fs::permissions(folder_,
                    fs::perms::all & ~fs::perms::group_write & ~fs::perms::others_write);  // for the worker
    std::ofstream(folder_ + kBig, std::ios::binary) << std::string(kFileSize, 'b');
    file_ = open((folder_ + kBig).c_str(), O_RDONLY | O_CLOEXEC);
    start_ours();
    start_nginx();
  }
  ~Servers() {
    ruxo_http_server_stop(server_, 1000);
    eventer_stop();
    if (nginx_ > 0) {
      kill(nginx_, SIGTERM);
      waitpid(nginx_, nullptr, 0);
    }
    close(file_);
    fs::remove_all(folder_);
  }
  Servers(const Servers &) = delete;
  Servers &operator=(const Servers &) = delete;

  int our_port() const { return our_port_; }
  double our_cpu_s() const {
    clockid_t clock;
    pthread_getcpuclockid(eventer_choose_owner(0), &clock);
    return seconds_of(clock);
  }
  double nginx_cpu_s() const {
    clockid_t clock;
    clock_getcpuclockid(nginx_, &clock);
    return seconds_of(clock);
  }
  int nginx_port() const { return nginx_port_; }

 private:
  void start_ours() {
    eventer_start(1);
    server_ = ruxo_http_server_new(nullptr);
    ruxo_http_server_route(server_, "GET", kSmall, 0, answer_small, nullptr);
    ruxo_http_server_route(server_, "GET", kBig, 0, answer_big, &file_);
    our_port_ = ruxo_http_server_listen(server_, "127.0.0.1", 0, nullptr);
  }

  void start_nginx() {
    nginx_port_ = free_port();
    const std::string path = folder_ + "/nginx.conf";
    std::ofstream(path) << filled_in(
        filled_in(filled_in(kConfiguration, "@FOLDER@", folder_), "@PORT@", std::to_string(nginx_port_)),
        "@BODY@", kSmallBody);
    nginx_ = fork();
    if (nginx_ == 0) {
      const int null = open("/dev/null", O_RDWR);
      dup2(null, STDERR_FILENO);
      execlp("nginx", "nginx", "-p", folder_.c_str(), "-c", path.c_str(), nullptr);
      execl("/usr/sbin/nginx", "nginx", "-p", folder_.c_str(), "-c", path.c_str(), nullptr);
      _exit(1);
    }
    for (int i = 0; i < 500; ++i) {
      const int fd = connected(nginx_port_);
      if (fd >= 0) {
        close(fd);
        return;
      }
      if (waitpid(nginx_, nullptr, WNOHANG) != 0) break;
      usleep(10000);
    }
    throw std::runtime_error("nginx does not run: script/bootstrap --bench installs it");
  }

  std::string folder_;
  int file_ = -1;
  ruxo_http_server_t *server_ = nullptr;
  int our_port_ = 0;
  int nginx_port_ = 0;
  pid_t nginx_ = -1;
};

const Servers &servers() {
  static const Servers both;
  return both;
}

struct Rate {
  double count;  // requests or bytes
  double per_second;
};

// As the load tool says.
Rate small_requests(int port) {
  const std::string command = "wrk -t1 -c16 -d1s http://127.0.0.1:" + std::to_string(port) + kSmall;
  FILE *const output = popen(command.c_str(), "re");
  char line[256];
  Rate rate = {};
  bool failed = false;
  while (fgets(line, sizeof line, output) != nullptr) {
    sscanf(line, "Requests/sec: %lf", &rate.per_second);
    sscanf(line, " %lf requests in", &rate.count);
    failed = failed || strstr(line, "Non-2xx") != nullptr || strstr(line, "Socket errors") != nullptr;
  }
  if (pclose(output) != 0 || failed || rate.count == 0)
    throw std::runtime_error("wrk failed, or was answered otherwise");
  return rate;
}

// Downloads on one connection, thrown away by the kernel.
Rate big_downloads(int port) {
  constexpr int kTimes = 8;
  const int fd = connected(port);
  const std::string request = std::string("GET ") + kBig + " HTTP/1.1\r\nHost: a\r\n\r\n";
  const auto start = Clock::now();
  for (int i = 0; i < kTimes; ++i) {
    if (write(fd, request.data(), request.size()) != static_cast<ssize_t>(request.size()))
      throw std::runtime_error("the request was not sent");
    char head[65536];
    const ssize_t n = recv(fd, head, sizeof head, 0);
    const char *const end =
        n <= 0 ? nullptr : static_cast<const char *>(memmem(head, static_cast<size_t>(n), "\r\n\r\n", 4));
    if (end == nullptr) throw std::runtime_error("no head of a response");
    size_t received = static_cast<size_t>(n) - static_cast<size_t>(end + 4 - head);
    while (received < kFileSize) {
      const ssize_t more = recv(fd, nullptr, kFileSize - received, MSG_TRUNC);
      if (more <= 0) throw std::runtime_error("the response is cut short");
      received += static_cast<size_t>(more);
    }
  }
  const double seconds = seconds_since(start);
  close(fd);
  constexpr double kBytes = static_cast<double>(kFileSize) * kTimes;
  return {kBytes, kBytes / seconds};
}

template <class Measure>
void compare(benchmark::State &state, Measure measure) {
  for (auto _ : state) {
    try {
      const Servers &both = servers();
      const double start_cpu[] = {both.our_cpu_s(), both.nginx_cpu_s()};
      const Rate nginx = measure(both.nginx_port());
      const Rate ours = measure(both.our_port());
      const double our_cpu_s = (both.our_cpu_s() - start_cpu[0]) / ours.count;
      const double nginx_cpu_s = (both.nginx_cpu_s() - start_cpu[1]) / nginx.count;
      state.counters["per_s"] = ours.per_second;
      state.counters["nginx_per_s"] = nginx.per_second;
      state.counters["ratio"] = ours.per_second / nginx.per_second;
      state.counters["cpu_ratio"] = nginx_cpu_s / our_cpu_s;
    } catch (const std::exception &error) {
      state.SkipWithError(error.what());
    }
  }
}

void small_gets(benchmark::State &state) {
  compare(state, small_requests);
}
BENCHMARK(small_gets)->Iterations(1)->Unit(benchmark::kMillisecond);

void mapped_64_MiB(benchmark::State &state) {
  compare(state, big_downloads);
}
BENCHMARK(mapped_64_MiB)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
