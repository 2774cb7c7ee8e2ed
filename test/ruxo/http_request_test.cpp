// What the server takes for a request: a table of what it refuses and how, every limit at its border, and what handlers
// are told. Each case is sent at once and byte by byte, because what arrives together is no part of a request's
// meaning.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"
#include "test/support/log_capture.h"

namespace {

using testing::AnyOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::MatchesRegex;

std::string times(size_t count, const std::string &text) {
  std::string all;
  for (size_t i = 0; i < count; ++i) all += text;
  return all;
}

// "method|path|query|X|length" and, once it has been read, "|body".
std::string seen(ruxo_http_session_ctx *ctx) {
  const char *const query = ruxo_http_request_query(ctx);
  const char *const header = ruxo_http_request_header(ctx, "x");
  return std::string(ruxo_http_request_method(ctx)) + "|" + ruxo_http_request_path(ctx) + "|" +
         (query == nullptr ? "(none)" : query) + "|" + (header == nullptr ? "(none)" : header) + "|" +
         std::to_string(ruxo_http_request_content_length(ctx));
}

class HttpRequest : public testing::Test {
 protected:
  ~HttpRequest() override { host_.reset(); }

  void start(const ruxo_http_limits_t &limits = http_limits()) {
    host_.reset();
    host_ = std::make_unique<HttpHost>(limits);
    for (const char *method : {"GET", "POST", "OPTIONS"}) {
      for (const char *path : {"/", "*"}) {
        host_->route(method, path,
                     [this](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes) {
                       if (phase == RUXO_HTTP_HEAD) body_ = seen(ctx);
                       if (phase == RUXO_HTTP_BODY) body_ += "|" + std::string(bytes);
                       if (phase == RUXO_HTTP_COMPLETE)
                         ruxo_http_respond(ctx, 200, "text/plain", body_.c_str());
                       if (phase == RUXO_HTTP_ABORTED) ++aborted_;
                       return 0;
                     });
      }
    }
    host_->listen();
  }

  // The response; one that is refused must be the last on its connection.
  HttpResponse ask(const std::string &request, bool slowly) {
    HttpClient client(host_->port());
    slowly ? client.send_byte_by_byte(request) : client.send(request);
    const HttpResponse response = client.response();
    if (response.header("Connection") == "close") {
      EXPECT_TRUE(client.is_closed()) << request;
    }
    return response;
  }
  std::string answer(const std::string &request, bool slowly = false) {
    const HttpResponse response = ask(request, slowly);
    return std::to_string(response.status) + " " + response.body;
  }
  // For long requests.
  int status(const std::string &request, bool slowly = false) { return ask(request, slowly).status; }

  const LogCapture log_{&ruxo_error};  // refusals
  std::string body_;
  std::atomic<int> aborted_ = 0;
  std::unique_ptr<HttpHost> host_;
};

struct Refused {
  const char *what;
  std::string request;
  std::string answer;
};

const std::string kHost = "Host: a\r\n";
const std::string kMalformed = "400 the request is malformed\n";
const std::string kTarget = "400 the request target is not valid\n";
const std::string kLength = "400 the Content-Length field is not valid\n";
const std::string kBody = "400 the body is malformed\n";

std::string get(const std::string &target) {
  return "GET " + target + " HTTP/1.1\r\n" + kHost + "\r\n";
}
std::string with(const std::string &fields) {
  return "GET / HTTP/1.1\r\n" + kHost + fields + "\r\n\r\n";
}
std::string post(const std::string &fields, const std::string &body = "") {
  return "POST / HTTP/1.1\r\n" + kHost + fields + "\r\n\r\n" + body;
}
std::string chunked(const std::string &body) {
  return post("Transfer-Encoding: chunked", body);
}

const Refused kRefused[] = {
    {"no request at all", "hello there, how are you?\r\n\r\n", kMalformed},
    {"an empty method", " / HTTP/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"a method that is no token", "G{T / HTTP/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"no target", "GET HTTP/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"an empty target", "GET  HTTP/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"two blanks", "GET /  HTTP/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"a tab", "GET\t/ HTTP/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"a blank before the method", " GET / HTTP/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"a blank behind the version", "GET / HTTP/1.1 \r\nHost: a\r\n\r\n", kMalformed},
    {"no version", "GET /\r\nHost: a\r\n\r\n", kMalformed},
    {"a version in small letters", "GET / http/1.1\r\nHost: a\r\n\r\n", kMalformed},
    {"a long version", "GET / HTTP/1.11\r\nHost: a\r\n\r\n", kMalformed},
    {"a short version", "GET / HTTP/1\r\nHost: a\r\n\r\n", kMalformed},
    {"version 0.9", "GET / HTTP/0.9\r\nHost: a\r\n\r\n", "505 the HTTP version is not supported\n"},
    {"version 1.2", "GET / HTTP/1.2\r\nHost: a\r\n\r\n", "505 the HTTP version is not supported\n"},
    {"version 2", "PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n", "505 the HTTP version is not supported\n"},
    {"lines that end in a newline alone", "GET / HTTP/1.1\nHost: a\n\n", kMalformed},
    {"a field that ends in a newline alone", "GET / HTTP/1.1\r\nX: 1\nHost: a\r\n\r\n", kMalformed},
    {"a lone carriage return in a field", with("X: 1\r2"), kMalformed},
    {"a lone carriage return in the request line", "GET / HTTP/1.1\rHost: a\r\n\r\n", kMalformed},
    {"a NUL in the target", get(std::string("/a\0b", 4)), kMalformed},
    {"a NUL in a value", with(std::string("X: a\0b", 6)), kMalformed},
    {"a control byte in a value", with("X: a\x01"), kMalformed},
    {"a DEL in a value", with("X: a\x7f"), kMalformed},
    {"a field without a colon", with("X"), kMalformed},
    {"a field without a name", with(": 1"), kMalformed},
    {"a blank before the colon", with("X : 1"), kMalformed},
    {"a tab before the colon", with("X\t: 1"), kMalformed},
    {"a field name that is no token", with("X[1]: 1"), kMalformed},
    {"a field name beyond ASCII", with("\xc3\xa4: 1"), kMalformed},
    {"a first field that begins with a blank", "GET / HTTP/1.1\r\n Host: a\r\n\r\n", kMalformed},
    {"a folded field", with("X: 1\r\n 2"), "400 a header field is folded\n"},
    {"a field folded with a tab", with("X: 1\r\n\t2"), "400 a header field is folded\n"},
    {"a field whose first line is empty", with("X:\r\n 2"), "400 a header field is folded\n"},
    {"a folded field of nothing", with("X: 1\r\n  \r\nY: 2"), "400 a header field is folded\n"},
    {"a hidden Content-Length", post("X: 1\r\n Content-Length: 5", "abcde"),
     "400 a header field is folded\n"},
    {"a target that is no path", get("a"), kTarget},
    {"a target that is a host", "CONNECT a:80 HTTP/1.1\r\nHost: a\r\n\r\n", kTarget},
    {"a target with a fragment", get("/a#b"), kTarget},
    {"a target beyond ASCII", get("/\xc3\xa4"), kTarget},
    {"an asterisk for GET", get("*"), kTarget},
    {"a URL of another scheme", get("ftp://a/b"), kTarget},
    {"a URL without a host", get("http:///b"), kTarget},
    {"a URL whose host is none", get("http://a\\b/"), kTarget},
    {"no Host", "GET / HTTP/1.1\r\n\r\n", "400 no Host field\n"},
    {"no Host, for an absolute URL", "GET http://a/ HTTP/1.1\r\n\r\n", "400 no Host field\n"},
    {"two Hosts", with("Host: b"), "400 several Host fields\n"},
    {"the same Host twice", with("hOST: a"), "400 several Host fields\n"},
    {"two Hosts in HTTP/1.0", "GET / HTTP/1.0\r\nHost: a\r\nHost: a\r\n\r\n", "400 several Host fields\n"},
    {"a Host that is none", "GET / HTTP/1.1\r\nHost: a b\r\n\r\n", "400 the Host field is not valid\n"},
    {"a Host with a path", "GET / HTTP/1.1\r\nHost: a/b\r\n\r\n", "400 the Host field is not valid\n"},
    {"both lengths", post("Content-Length: 5\r\nTransfer-Encoding: chunked", "0\r\n\r\n"), kMalformed},
    {"both lengths, the other way", post("Transfer-Encoding: chunked\r\nContent-Length: 5", "0\r\n\r\n"),
     kMalformed},
    {"two lengths", post("Content-Length: 5\r\nContent-Length: 6", "abcdef"), kMalformed},
    {"the same length twice", post("Content-Length: 5\r\nContent-Length: 5", "abcde"),
     "400 several Content-Length fields\n"},
    {"a list of lengths", post("Content-Length: 5, 5", "abcde"), kLength},
    {"an empty length", post("Content-Length:", "abcde"), kMalformed},
    {"a negative length", post("Content-Length: -5", "abcde"), kMalformed},
    {"a length with a sign", post("Content-Length: +5", "abcde"), kMalformed},
    {"a length in hexadecimal", post("Content-Length: 0x5", "abcde"), kMalformed},
    {"a length with a blank", post("Content-Length: 5 5", "abcde"), kMalformed},
    {"a length that is quoted", post("Content-Length: \"5\"", "abcde"), kMalformed},
    {"a length of 2 to the 64", post("Content-Length: 18446744073709551616", "abcde"), kMalformed},
    {"a length of 2 to the 64 and 5", post("Content-Length: 18446744073709551621", "abcde"), kMalformed},
    {"a length of 2 to the 63", post("Content-Length: 9223372036854775808"), "413 the body is too long\n"},
    {"a length of 2 to the 63 less 1", post("Content-Length: 9223372036854775807"),
     "413 the body is too long\n"},
    {"an unknown coding", post("Transfer-Encoding: gzip", "abcde"), "501 an unknown transfer coding\n"},
    {"the identity", post("Transfer-Encoding: identity", "abcde"), "501 an unknown transfer coding\n"},
    {"a coding under chunked", post("Transfer-Encoding: gzip, chunked"), "501 an unknown transfer coding\n"},
    {"chunked with a parameter", post("Transfer-Encoding: chunked;q=1"), "501 an unknown transfer coding\n"},
    {"something like chunked", post("Transfer-Encoding: xchunked"), "501 an unknown transfer coding\n"},
    {"chunked in quotes", post("Transfer-Encoding: \"chunked\""), "501 an unknown transfer coding\n"},
    {"an empty coding", post("Transfer-Encoding:"), "501 an unknown transfer coding\n"},
    {"chunked, not at last", post("Transfer-Encoding: chunked, gzip"),
     "400 the Transfer-Encoding field is not valid\n"},
    {"chunked twice", post("Transfer-Encoding: chunked, chunked"),
     "400 the Transfer-Encoding field is not valid\n"},
    {"chunked in two fields", post("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked"), kMalformed},
    {"chunked behind a control byte",
     post("Transfer-Encoding: \x0b"
          "chunked"),
     kMalformed},
    {"chunked in HTTP/1.0", "POST / HTTP/1.0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n",
     "400 a Transfer-Encoding in HTTP/1.0\n"},
    {"an unknown expectation", post("Content-Length: 1\r\nExpect: 200-ok", "x"),
     "417 an unknown expectation\n"},
    {"a chunk without a size", chunked("\r\nabc\r\n0\r\n\r\n"), kBody},
    {"a chunk whose size is no number", chunked("g\r\n"), kBody},
    {"a negative chunk", chunked("-1\r\n"), kBody},
    {"a first chunk of nothing and then no end", chunked("0\r\nx\r\n\r\n"), kBody},
    {"a chunk with 0x", chunked("0x1\r\na\r\n0\r\n\r\n"), kBody},
    {"a blank before a chunk's size", chunked(" 1\r\na\r\n0\r\n\r\n"), kBody},
    {"a chunk of 2 to the 64", chunked("10000000000000000\r\n"), kBody},
    {"a chunk longer than it says", chunked("1\r\nab\r\n0\r\n\r\n"), kBody},
    {"a chunk line that ends in a newline alone", chunked("1\na\r\n0\r\n\r\n"), kBody},
    {"a chunk extension without a name", chunked("1;\r\na\r\n0\r\n\r\n"), kBody},
    {"a chunk extension with a blank at last", chunked("1;a \r\na\r\n0\r\n\r\n"), kBody},
    {"a trailer that is no field", chunked("0\r\nabc\r\n\r\n"), kBody},
    {"a trailer that is folded", chunked("0\r\nA: b\r\n c\r\n\r\n"), "400 a header field is folded\n"},
    {"a length in the trailer", chunked("0\r\nContent-Length: 5\r\n\r\n"), kBody},
    {"a coding in the trailer", chunked("0\r\nTransfer-Encoding: chunked\r\n\r\n"), kBody},
};

TEST_F(HttpRequest, WhatIsWrongIsRefused) {
  start();
  for (const Refused &refused : kRefused) EXPECT_EQ(answer(refused.request), refused.answer) << refused.what;
}

TEST_F(HttpRequest, WhatIsWrongIsRefusedByteByByteToo) {
  start();
  for (const Refused &refused : kRefused) {
    // A fault that leaves the end of the header unseen is answered when that, or the deadline, comes.
    if (refused.request.find("\r\n\r\n") == std::string::npos) continue;
    EXPECT_EQ(answer(refused.request, true), refused.answer) << refused.what;
  }
}

TEST_F(HttpRequest, WhatIsUnusualIsTaken) {
  start();
  const std::vector<std::pair<std::string, std::string>> table = {
      {get("/"), "GET|/|(none)|(none)|0"},
      {get("/a?b=c?d"), "GET|/a|b=c?d|(none)|0"},
      {get("/a?"), "GET|/a||(none)|0"},
      {get("//a/../b/./"), "GET|//a/../b/./|(none)|(none)|0"},
      {get("/%41%zz"), "GET|/%41%zz|(none)|(none)|0"},
      {get("/\"<>\\^`{|}"), "GET|/\"<>\\^`{|}|(none)|(none)|0"},
      {get("http://b:80/a?b"), "GET|/a|b|(none)|0"},
      {get("HTTPS://b"), "GET|/|(none)|(none)|0"},
      {get("http://b?c"), "GET|/|c|(none)|0"},
      {"OPTIONS * HTTP/1.1\r\nHost: a\r\n\r\n", "OPTIONS|*|(none)|(none)|0"},
      {"GET / HTTP/1.1\r\nHost:\r\n\r\n", "GET|/|(none)|(none)|0"},
      {"GET / HTTP/1.1\r\nhost:[::1]:80\r\n\r\n", "GET|/|(none)|(none)|0"},
      {"GET / HTTP/1.0\r\n\r\n", "GET|/|(none)|(none)|0"},
      {with("X:1"), "GET|/|(none)|1|0"},
      {with("x:  1\t \t"), "GET|/|(none)|1|0"},
      {with("X:"), "GET|/|(none)||0"},
      {with("X: a\tb \xc3\xa4\xff"), "GET|/|(none)|a\tb \xc3\xa4\xff|0"},
      {with("X: 1\r\nY: 2\r\nx: 3\r\nX:"), "GET|/|(none)|1, 3, |0"},
      {with("!#$%&'*+-.^_`|~: 1"), "GET|/|(none)|(none)|0"},
      {post("Content-Length: 0"), "POST|/|(none)|(none)|0"},
      {post("Content-Length: 005", "abcde"), "POST|/|(none)|(none)|5|abcde"},
      {post("Transfer-Encoding: Chunked", "0\r\n\r\n"), "POST|/|(none)|(none)|-1"},
      {with("Content-Length: 3") + "abc", "GET|/|(none)|(none)|3|abc"},
      {with("Expect: 100-continue"), "GET|/|(none)|(none)|0"},
      {with("Connection: Upgrade\r\nUpgrade: h2c"), "GET|/|(none)|(none)|0"},
  };
  for (const auto &[request, expected] : table) EXPECT_EQ(answer(request), "200 " + expected) << request;
}

TEST_F(HttpRequest, NothingBehindARefusedRequestIsAnswered) {
  start();
  HttpClient client(host_->port());
  client.send(get("/a") + get("b") + get("/c"));
  EXPECT_EQ(client.response().status, 200);
  EXPECT_EQ(client.response().status, 400);
  EXPECT_TRUE(client.is_closed());
}

TEST_F(HttpRequest, ARefusalIsLoggedWithItsClient) {
  start();
  EXPECT_EQ(answer(get("\x1b[2J")), kMalformed);
  EXPECT_THAT(
      log_.lines(),
      ElementsAre(MatchesRegex("http: 127\\.0\\.0\\.1:[0-9]+: answered 400: the request is malformed\n")));
}

TEST_F(HttpRequest, TheHandlerOfARefusedBodyIsTold) {
  start();
  EXPECT_EQ(answer(chunked("1\r\na\r\nx\r\n")), kBody);
  EXPECT_EQ(answer(chunked("100000\r\n" + std::string(1 << 20, 'x') + "\r\n1\r\n")),
            "413 the body is too long\n");
  EXPECT_EQ(aborted_, 2);
  EXPECT_EQ(answer(post("Content-Length: 1048577")),
            "413 the body is too long\n");  // it never heard of this one
  EXPECT_EQ(aborted_, 2);
}

// ---- Limits ----

TEST_F(HttpRequest, TheUrlIsLimited) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_url = 100;
  start(limits);
  for (const bool slowly : {false, true}) {
    EXPECT_EQ(status(get("/" + std::string(99, 'a')), slowly), 200);
    EXPECT_EQ(status(get("/" + std::string(49, 'a') + "?" + std::string(49, 'a')), slowly), 200);
    EXPECT_EQ(answer(get("/" + std::string(100, 'a')), slowly), "414 the URL is too long\n");
    EXPECT_EQ(answer(get("/" + std::string(49, 'a') + "?" + std::string(50, 'a')), slowly),
              "414 the URL is too long\n");
  }
  // Its end need not be waited for.
  EXPECT_EQ(answer("GET /" + std::string(100, 'a')), "414 the URL is too long\n");
}

TEST_F(HttpRequest, ARequestLineBeyondTheHeadersLimitHasTooLongAUrl) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_header_bytes = 100;
  start(limits);
  for (const bool slowly : {false, true}) {
    EXPECT_EQ(status(get("/" + std::string(84, 'a')), slowly),
              431);  // a line of 100 bytes, and then the Host
    for (const size_t len : {85U, 95U, 96U, 99U, 100U, 101U, 200U})
      EXPECT_EQ(status(get("/" + std::string(len, 'a')), slowly), 414) << len;
    EXPECT_EQ(status(std::string(100, 'G') + " / HTTP/1.1\r\n\r\n", slowly), 414);
    EXPECT_EQ(status(std::string(101, 'G') + " / HTTP/1.1\r\n\r\n", slowly), 431);
  }
  EXPECT_EQ(status("GET /" + std::string(8192, 'a')), 414);
}

TEST_F(HttpRequest, TheHeaderIsLimited) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_header_bytes = 200;
  start(limits);
  const std::string shortest = with("X: ");
  for (const bool slowly : {false, true}) {
    EXPECT_EQ(status(with("X: " + std::string(200 - shortest.size(), 'a')), slowly), 200);
    EXPECT_EQ(answer(with("X: " + std::string(201 - shortest.size(), 'a')), slowly),
              "431 the header is too long\n");
  }
  // What follows the header does not count.
  EXPECT_EQ(status(post("Content-Length: 1000", std::string(1000, 'a'))), 200);
  // A line without an end.
  EXPECT_EQ(status("GET / HTTP/1.1\r\nX: " + std::string(1000, 'a')), 431);
  EXPECT_EQ(status(std::string(1000, 'G')), 431);
}

TEST_F(HttpRequest, TheHeaderIsLimitedAcrossManyReads) {
  start();
  const std::string shortest = with("X: ");
  EXPECT_EQ(status(with("X: " + std::string(65536 - shortest.size(), 'a'))), 200);
  EXPECT_EQ(status(with("X: " + std::string(65537 - shortest.size(), 'a'))), 431);
}

TEST_F(HttpRequest, TheNumberOfFieldsIsLimited) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_headers = 5;
  start(limits);
  EXPECT_EQ(status(with(times(3, "X: 1\r\n") + "Y: 1")), 200);
  EXPECT_EQ(answer(with(times(4, "X: 1\r\n") + "Y: 1")), "431 too many header fields\n");
  EXPECT_EQ(status(chunked("0\r\n" + times(3, "X: 1\r\n") + "\r\n")), 200);
  EXPECT_EQ(answer(chunked("0\r\n" + times(4, "X: 1\r\n") + "\r\n")), "431 too many header fields\n");
}

TEST_F(HttpRequest, TheBodyIsLimited) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_body = 10;
  start(limits);
  const std::string too_long = "413 the body is too long\n";
  for (const bool slowly : {false, true}) {
    EXPECT_EQ(status(post("Content-Length: 10", std::string(10, 'a')), slowly), 200);
    EXPECT_EQ(answer(post("Content-Length: 11", std::string(11, 'a')), slowly), too_long);
    EXPECT_EQ(status(chunked("a\r\n0123456789\r\n0\r\n\r\n"), slowly), 200);
    EXPECT_EQ(answer(chunked("b\r\n0123456789a\r\n0\r\n\r\n"), slowly), too_long);
    EXPECT_EQ(status(chunked("5\r\n01234\r\n5\r\n56789\r\n0\r\n\r\n"), slowly), 200);
    EXPECT_EQ(answer(chunked("5\r\n01234\r\n6\r\n56789a\r\n0\r\n\r\n"), slowly), too_long);
    EXPECT_EQ(answer(chunked("5\r\n01234\r\nffffffffffffffff\r\n"), slowly), too_long);
  }
}

TEST_F(HttpRequest, ARouteHasItsOwnLimit) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_body = 10;
  host_ = std::make_unique<HttpHost>(limits);
  host_->answer(
      "POST", "/", [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "x"); }, 20);
  host_->listen();
  EXPECT_EQ(status(post("Content-Length: 20", std::string(20, 'a'))), 200);
  EXPECT_EQ(status(post("Content-Length: 21", std::string(21, 'a'))), 413);
}

TEST_F(HttpRequest, WhatStandsBetweenChunksIsLimited) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_header_bytes = 200;
  start(limits);
  EXPECT_EQ(status(chunked("1;a=" + std::string(150, 'b') + "\r\nx\r\n0\r\n\r\n")), 200);
  EXPECT_EQ(answer(chunked("1;a=" + std::string(250, 'b') + "\r\nx\r\n0\r\n\r\n")),
            "431 the header is too long\n");
  EXPECT_EQ(answer(chunked("1;a=" + std::string(250, 'b'))), "431 the header is too long\n");
  EXPECT_EQ(answer(chunked("0\r\nA: " + std::string(250, 'b') + "\r\n\r\n")), "431 the header is too long\n");
  EXPECT_EQ(answer(chunked("0\r\nA: " + std::string(250, 'b'))), "431 the header is too long\n");
}

TEST_F(HttpRequest, TheNumberOfRequestsIsLimited) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_requests = 3;
  start(limits);
  HttpClient client(host_->port());
  client.send(times(5, get("/")));
  EXPECT_EQ(client.response().header("Connection"), "(none)");
  EXPECT_EQ(client.response().header("Connection"), "(none)");
  EXPECT_EQ(client.response().header("Connection"), "close");
  EXPECT_TRUE(client.is_closed());
}

// ---- What handlers ask ----

TEST_F(HttpRequest, TheClientIsNamed) {
  host_ = std::make_unique<HttpHost>();
  host_->answer("GET", "/", [](ruxo_http_session_ctx *ctx) {
    ruxo_http_respond(ctx, 200, "text/plain", ruxo_http_request_peer(ctx));
  });
  host_->listen();
  HttpClient client(host_->port());
  sockaddr_in address;
  socklen_t size = sizeof address;
  getsockname(client.fd(), reinterpret_cast<sockaddr *>(&address), &size);
  EXPECT_EQ(client.request(get("/")).body, "127.0.0.1:" + std::to_string(ntohs(address.sin_port)));
}

std::string decoded(const std::string &text, size_t size, ssize_t (*decode)(const char *, char *, size_t)) {
  std::string buff(size, '?');
  const ssize_t len = decode(text.c_str(), buff.data(), size);
  if (len < 0) return "(refused)";
  EXPECT_EQ(buff[static_cast<size_t>(len)], '\0');
  return buff.substr(0, static_cast<size_t>(len));
}

TEST(HttpPercentDecode, DecodesEscapesAndNothingElse) {
  const auto decode = [](const std::string &text) { return decoded(text, 100, ruxo_http_percent_decode); };
  EXPECT_EQ(decode(""), "");
  EXPECT_EQ(decode("a+b"), "a+b");
  EXPECT_EQ(decode("%41%2f%2F%c3%A4%25"), "A//\xc3\xa4%");
  EXPECT_EQ(decode("%01"), "\x01");
  for (const char *text : {"%", "%4", "a%", "%g1", "%1g", "%%41", "%00", "a%00b", "% 41", "%-1"})
    EXPECT_EQ(decode(text), "(refused)") << text;
}

TEST(HttpPercentDecode, NeedsRoomForItsNul) {
  EXPECT_EQ(decoded("%41bc", 4, ruxo_http_percent_decode), "Abc");
  EXPECT_EQ(decoded("%41bc", 3, ruxo_http_percent_decode), "(refused)");
  EXPECT_EQ(decoded("", 1, ruxo_http_percent_decode), "");
  EXPECT_EQ(ruxo_http_percent_decode("", nullptr, 0), -1);
}

TEST(HttpSafePath, TakesWhatStaysBelow) {
  const auto decode = [](const std::string &text) { return decoded(text, 100, ruxo_http_safe_path); };
  for (const char *text :
       {"a", "a/b/c", "a.b", "...", "..a", ".a", "a..", "a/...", "\xc3\xa4", "a b", "~", "a\\b"})
    EXPECT_EQ(decode(text), text);
  EXPECT_EQ(decode("%61/%62"), "a/b");
  EXPECT_EQ(decode("a%2fb"), "a/b");
  for (const char *text : {"",         "/",        "/a",   "a/",       "a//b",         ".",
                           "..",       "../a",     "a/..", "a/../b",   "a/./b",        "./a",
                           "%2e%2e/a", "a/%2e%2E", "%2fa", "a%2f%2fb", "a/%2e%2e%2fb", "..%2f..%2fetc",
                           "a\nb",     "a%0ab",    "a%7f", "a/%00",    "a%",           "\x01"})
    EXPECT_EQ(decode(text), "(refused)") << text;
}

}  // namespace
