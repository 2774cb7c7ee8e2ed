// The server and a client that everybody has.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include "ruxo/http.h"
#include "test/support/http_host.h"
#include "test/support/temp_dir.h"
#include "test/support/tls_identity.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

// With which TLS or without it.
class HttpCurl : public testing::TestWithParam<const char *> {
 protected:
  ~HttpCurl() override { host_.stop(5000); }

  void SetUp() override {
    if (is_tls()) {
      ASSERT_EQ(ruxo_http_server_tls(host_.server(), identity_.certificate_file().c_str(),
                                     identity_.key_file().c_str(), nullptr),
                0);
    }
    host_.answer("GET", "/hello",
                 [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "hello"); });
    host_.answer("GET", "/file", [this](ruxo_http_session_ctx *ctx) {
      const int fd = open(file_.c_str(), O_RDONLY | O_CLOEXEC);
      EXPECT_TRUE(ruxo_http_response_append_mmap_from_fd(ctx, fd, bytes_.size(), 0, 0));
      close(fd);
      ruxo_http_response_end(ctx);
    });
    host_.route(
        "PUT", "/echo",
        [](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes) {
          if (phase == RUXO_HTTP_BODY) ruxo_http_response_append(ctx, bytes.data(), bytes.size());
          if (phase == RUXO_HTTP_COMPLETE) ruxo_http_response_end(ctx);
          return 0;
        },
        uint64_t{1} << 30);
    host_.listen();
  }

  bool is_tls() const { return *GetParam() != '\0'; }

  // What it writes, and behind that "<exit code>" unless that is 0. "URL" stands for where the server is.
  std::string curl(std::string arguments) const {
    const std::string url =
        (is_tls() ? "https://localhost:" : "http://127.0.0.1:") + std::to_string(host_.port());
    for (size_t at; (at = arguments.find("URL")) != std::string::npos;) arguments.replace(at, 3, url);
    const std::string command = "curl -sS4 --max-time 20 --noproxy '*' --cacert " +
                                identity_.certificate_file() + " " + GetParam() + " " + arguments + " 2>&1";
    FILE *const output = popen(command.c_str(), "re");
    std::string text;
    char piece[65536];
    for (size_t n; (n = fread(piece, 1, sizeof piece, output)) > 0;) text.append(piece, n);
    const int status = pclose(output);
    if (status != 0) text += "<" + std::to_string(WEXITSTATUS(status)) + ">";
    return text;
  }

  const TlsIdentity identity_;
  const TempDir dir_;
  const std::string bytes_ = [] {
    std::string bytes(2000000, ' ');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 2654435761U >> 13);
    return bytes;
  }();
  const std::string file_ = dir_.write("file", bytes_);
  HttpHost host_;
};

TEST_P(HttpCurl, Gets) {
  EXPECT_EQ(curl("URL/hello URL/hello"), "hellohello");
  EXPECT_EQ(curl("--http1.0 URL/hello"), "hello");
  EXPECT_EQ(curl("-H 'Connection: close' URL/hello URL/hello"), "hellohello");
  EXPECT_EQ(curl("-fo /dev/null URL/nowhere"), "curl: (22) The requested URL returned error: 404\n<22>");
  EXPECT_EQ(curl("-w '%{num_connects}' URL/hello -o /dev/null URL/hello -o /dev/null"),
            "10");  // one, and then none
}

TEST_P(HttpCurl, Heads) {
  EXPECT_THAT(curl("-I URL/hello"), StartsWith("HTTP/1.1 200 OK\r\n"));
  EXPECT_THAT(curl("-I URL/hello"), HasSubstr("\r\nContent-Length: 5\r\n"));
}

TEST_P(HttpCurl, GetsAFile) {
  EXPECT_TRUE(curl("URL/file") == bytes_);
  EXPECT_TRUE(curl("--http1.0 URL/file") == bytes_);
}

TEST_P(HttpCurl, PutsAFile) {
  // It waits to be asked for so much.
  EXPECT_TRUE(curl("-T " + file_ + " URL/echo") == bytes_);
  EXPECT_TRUE(curl("-T " + file_ + " -H 'Transfer-Encoding: chunked' URL/echo") == bytes_);
  EXPECT_TRUE(curl("-T " + file_ + " -H 'Expect:' URL/echo") == bytes_);
}

INSTANTIATE_TEST_SUITE_P(Plain, HttpCurl, testing::Values(""));
INSTANTIATE_TEST_SUITE_P(Tls, HttpCurl, testing::Values("--tlsv1.2 --tls-max 1.2", "--tlsv1.3"));

}  // namespace
