// A running orlithd, or one that has ended, with what it wrote to standard error.
#ifndef TEST_ORLITHD_NODE_PROCESS_H
#define TEST_ORLITHD_NODE_PROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "test/support/http_client.h"
#include "test/support/temp_dir.h"

inline constexpr char kNodeA[] = "76650c73-426c-48f6-ab8e-b575c1d3d5d1";
inline constexpr char kNodeB[] = "39b8406b-ab01-4224-86ac-5d63faa46ac1";
inline constexpr char kTwoNodes[] =
    "<nodes write_copies=\"2\">\n"
    "  <node id=\"76650c73-426c-48f6-ab8e-b575c1d3d5d1\" address=\"127.0.0.1\" port=\"8112\" "
    "apiport=\"8113\" "
    "weight=\"32\"/>\n"
    "  <node id=\"39b8406b-ab01-4224-86ac-5d63faa46ac1\" address=\"127.0.0.1\" port=\"8122\" "
    "apiport=\"8123\" "
    "weight=\"64\"/>\n"
    "</nodes>\n";

class NodeProcess {
 public:
  // Starts it with these arguments, in that folder, after `prepare` has run in the child.
  NodeProcess(
      const std::vector<std::string> &arguments, const std::string &folder,
      const std::function<void()> &prepare = [] {}) {
    std::vector<char *> argv = {const_cast<char *>(ORLITHD_BINARY)};
    for (const std::string &argument : arguments) argv.push_back(const_cast<char *>(argument.c_str()));
    argv.push_back(nullptr);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
    child_ = fork();
    if (child_ == 0) {
      if (chdir(folder.c_str()) != 0) _exit(126);
      dup2(ends[1], STDERR_FILENO);
      dup2(open((folder + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDOUT_FILENO);
      prepare();
      execv(ORLITHD_BINARY, argv.data());
      _exit(127);
    }
    close(ends[1]);
    err_fd_ = ends[0];
    if (child_ < 0) throw std::runtime_error("fork failed");
  }
  ~NodeProcess() {
    if (child_ > 0) end(SIGKILL);
    close(err_fd_);
  }
  NodeProcess(const NodeProcess &) = delete;
  NodeProcess &operator=(const NodeProcess &) = delete;

  // Waits for a text on standard error; false when the process ends, or half a minute passes, without it.
  bool wait_for(const std::string &text) {
    while (err_.find(text) == std::string::npos) {
      if (!read_more(30'000)) return false;
    }
    return true;
  }
  // The port that it says to listen on; 0 when it ends instead.
  int port() {
    const std::string before = "listening on ";
    if (!wait_for(before)) return 0;
    size_t end;
    const size_t start = err_.find(before);
    while ((end = err_.find('\n', start)) == std::string::npos) {
      if (!read_more(30'000)) return 0;
    }
    return std::stoi(err_.substr(err_.rfind(':', end) + 1));
  }
  HttpClient client() { return HttpClient(port()); }

  void send(int signal) const { kill(child_, signal); }
  // Sends the signal (0: none) and returns the exit code, or minus the signal that ended it.
  int end(int signal = 0) {
    if (signal != 0) kill(child_, signal);
    while (read_more(60'000)) continue;
    int status = 0;
    waitpid(std::exchange(child_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }
  const std::string &err() const { return err_; }

 private:
  bool read_more(int timeout_ms) {
    pollfd readable{err_fd_, POLLIN, 0};
    if (poll(&readable, 1, timeout_ms) <= 0) return false;
    char piece[4096];
    const ssize_t len = read(err_fd_, piece, sizeof piece);
    if (len > 0) err_.append(piece, static_cast<size_t>(len));
    return len > 0;
  }

  pid_t child_ = -1;
  int err_fd_ = -1;
  std::string err_;
};

// A folder with a topology, and nodes that serve it.
struct NodeFolder {
  TempDir dir;
  NodeFolder() { dir.write("cluster.xml", kTwoNodes); }

  std::vector<std::string> arguments(const std::string &me = kNodeA, const std::string &data = "data") const {
    return {"--topology", "cluster.xml", "--me", me, "--data", data, "--listen", "127.0.0.1:0"};
  }
};

inline std::string get(const std::string &path) {
  return "GET " + path + " HTTP/1.1\r\nHost: a\r\n\r\n";
}

inline std::string put(const std::string &path, const std::string &body) {
  return "PUT " + path + " HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(body.size()) +
         "\r\n\r\n" + body;
}

#endif
