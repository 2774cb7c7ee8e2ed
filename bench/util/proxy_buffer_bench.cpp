// A peer's answer relayed into a proxy buffer, next to curl(1) fetching the same bytes into a file of the same file
// system. Compare the wall-clock times; the counter rss_growth_mb is what the relay has added to this process's
// resident memory, which must not follow the size. The peer is a process of its own that sends from a file.
//
// The size is 64 MiB, or ORLITH_BENCH_MIB of the environment (1024 for the figure that is aimed at).
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "liborlith/util/vask_proxy_buffer.h"

namespace {

namespace fs = std::filesystem;

size_t body_bytes() {
  const char *const mib = getenv("ORLITH_BENCH_MIB");
  const long asked = mib == nullptr ? 64 : strtol(mib, nullptr, 10);
  return static_cast<size_t>(asked < 1 ? 1 : asked > 4096 ? 4096 : asked) << 20;
}

// Answers every request on the listener with the file, for ever.
[[noreturn]] void serve(int listener, int body, size_t len) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  signal(SIGPIPE, SIG_IGN);
  for (;;) {
    const int fd = accept(listener, nullptr, nullptr);
    if (fd < 0) continue;
    char request[4096];
    if (recv(fd, request, sizeof request, 0) > 0) {
      const std::string head =
          "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(len) + "\r\nConnection: close\r\n\r\n";
      send(fd, head.data(), head.size(), MSG_MORE);
      off_t at = 0;
      while (static_cast<size_t>(at) < len && sendfile(fd, body, &at, len - static_cast<size_t>(at)) > 0) {
      }
    }
    close(fd);
  }
}

// The peer and the folder of both sides, gone at the end.
class Peer {
 public:
  Peer() {
    std::string path = fs::temp_directory_path() / "proxy_buffer_bench_XXXXXX";
    if (mkdtemp(path.data()) == nullptr) abort();
    path_ = path;
    const int body = memfd_create("body", MFD_CLOEXEC);
    const std::vector<char> piece(1 << 20, 'x');
    for (size_t written = 0; written < body_bytes(); written += piece.size()) {
      if (write(body, piece.data(), piece.size()) != static_cast<ssize_t>(piece.size())) abort();
    }
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof address;
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    if (bind(listener, generic, len) != 0 || listen(listener, 8) != 0 ||
        getsockname(listener, generic, &len) != 0)
      abort();
    url_ = "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/";
    child_ = fork();
    if (child_ < 0) abort();
    if (child_ == 0) serve(listener, body, body_bytes());
    close(listener);
    close(body);
    vask_proxy_buffer_init(path_.c_str(), 10000);
  }
  ~Peer() {
    kill(child_, SIGKILL);
    waitpid(child_, nullptr, 0);
    fs::remove_all(path_);
  }
  std::string url_, path_;

 private:
  pid_t child_ = -1;
};

const Peer &peer() {
  static const Peer instance;
  return instance;
}

double resident_mb() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1e6;
}

void relay_into_proxy_buffer(benchmark::State &state) {
  const std::string url = peer().url_;
  const double before_mb = resident_mb();
  double most_mb = before_mb;
  for (auto _ : state) {
    vask_proxy_buffer_t *const pb = vask_proxy_buffer_new();
    if (vask_proxy_buffer_perform_curl(pb, nullptr, url.c_str(), 0, nullptr, nullptr, nullptr) != 0 ||
        vask_proxy_buffer_get_len(pb) != body_bytes())
      abort();
    state.PauseTiming();
    if (resident_mb() > most_mb) most_mb = resident_mb();
    vask_proxy_buffer_destroy(pb);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(body_bytes()));
  state.counters["rss_growth_mb"] = most_mb - before_mb;
}

void curl_into_file(benchmark::State &state) {
  const std::string out = peer().path_ + "/out", url = peer().url_;
  for (auto _ : state) {
    std::string words[] = {"curl", "-s", "-o", out, url};
    char *arguments[] = {words[0].data(), words[1].data(), words[2].data(),
                         words[3].data(), words[4].data(), nullptr};
    pid_t child = 0;
    int status = 0;
    if (posix_spawnp(&child, "curl", nullptr, nullptr, arguments, environ) != 0 ||
        waitpid(child, &status, 0) != child || status != 0)
      abort();
    state.PauseTiming();
    if (fs::file_size(out) != body_bytes()) abort();
    fs::remove(out);
    state.ResumeTiming();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(body_bytes()));
}

BENCHMARK(relay_into_proxy_buffer)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(curl_into_file)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
