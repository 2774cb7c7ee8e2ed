// The server as its clients see it: requests in, responses out, one connection or many.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"

namespace {

using testing::HasSubstr;
using testing::MatchesRegex;

std::string get(const std::string &path, const std::string &more = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: a\r\n" + more + "\r\n";
}

class HttpServer : public testing::Test {
 protected:
  void SetUp() override {
    host_.answer("GET", "/hello",
                 [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "hello"); });
    // Says what it was asked.
    host_.answer("GET", "/say/", [](ruxo_http_session_ctx *ctx) {
      const char *const query = ruxo_http_request_query(ctx);
      const char *const header = ruxo_http_request_header(ctx, "x-one");
      const std::string text = std::string(ruxo_http_request_method(ctx)) + "|" +
                               ruxo_http_request_path(ctx) + "|" + (query == nullptr ? "(none)" : query) +
                               "|" + (header == nullptr ? "(none)" : header);
      ruxo_http_respond(ctx, 200, "text/plain", text.c_str());
    });
    host_.listen();
  }

  HttpHost host_;
};

TEST_F(HttpServer, AnswersAGet) {
  HttpClient client(host_.port());
  const HttpResponse response = client.request(get("/hello"));
  EXPECT_EQ(response.status_line, "HTTP/1.1 200 OK");
  EXPECT_EQ(response.header("Content-Type"), "text/plain");
  EXPECT_EQ(response.header("Content-Length"), "5");
  EXPECT_EQ(response.header("Connection"), "(none)");
  EXPECT_THAT(response.header("Date"), MatchesRegex("[A-Z][a-z][a-z], [0-9][0-9] [A-Z][a-z][a-z] [0-9]{4} "
                                                    "[0-9][0-9]:[0-9][0-9]:[0-9][0-9] GMT"));
  EXPECT_EQ(response.body, "hello");
}

TEST_F(HttpServer, KeepsTheConnection) {
  HttpClient client(host_.port());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(client.request(get("/hello")).body, "hello");
}

}  // namespace
