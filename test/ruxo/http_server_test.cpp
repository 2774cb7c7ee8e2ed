// The server as its clients see it: requests in, responses out, on one connection.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"
#include "test/support/log_capture.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::StartsWith;

std::string get(const std::string &path, const std::string &more = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: a\r\n" + more + "\r\n";
}

std::string post(const std::string &path, const std::string &body, const std::string &more = "") {
  return "POST " + path + " HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
         more + "\r\n" + body;
}

std::string chunked_post(const std::string &path, const std::string &body, const std::string &more = "") {
  return "POST " + path + " HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n" + more + "\r\n" + body;
}

class HttpServer : public testing::Test {
 protected:
  void SetUp() override {
    host_.answer("GET", "/hello",
                 [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "hello"); });
    host_.answer("GET", "/echo/", [](ruxo_http_session_ctx *ctx) {
      ruxo_http_respond(ctx, 200, "text/plain", ruxo_http_request_path(ctx));
    });
    host_.route("POST", "/upload",
                [this](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes) {
                  return upload(ctx, phase, bytes);
                });
  }

  // Answers with what it was sent.
  int upload(ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes) {
    phases_.push_back(phase);
    if (phase == RUXO_HTTP_HEAD) body_ = std::to_string(ruxo_http_request_content_length(ctx)) + ":";
    if (phase == RUXO_HTTP_BODY) body_ += bytes;
    if (phase == RUXO_HTTP_COMPLETE) ruxo_http_respond(ctx, 200, "text/plain", body_.c_str());
    return 0;
  }

  HttpClient client() {
    if (host_.port() == 0) host_.listen();
    return HttpClient(host_.port());
  }

  const LogCapture log_{&ruxo_error};      // refusals
  std::string body_;                       // the loop's
  std::vector<ruxo_http_phase_t> phases_;  // the same; read once the response is there
  HttpHost host_;
};

TEST_F(HttpServer, AnswersAGet) {
  HttpClient one = client();
  const HttpResponse response = one.request(get("/hello"));
  EXPECT_EQ(response.status_line, "HTTP/1.1 200 OK");
  EXPECT_EQ(response.header("Content-Type"), "text/plain");
  EXPECT_EQ(response.header("Content-Length"), "5");
  EXPECT_EQ(response.header("Connection"), "(none)");
  EXPECT_THAT(response.header("Date"), MatchesRegex("[A-Z][a-z][a-z], [0-9][0-9] [A-Z][a-z][a-z] [0-9]{4} "
                                                    "[0-9][0-9]:[0-9][0-9]:[0-9][0-9] GMT"));
  EXPECT_EQ(response.body, "hello");
}

TEST_F(HttpServer, DatesItsResponses) {
  HttpClient one = client();
  const time_t before = time(nullptr);
  const std::string date = one.request(get("/hello")).header("Date");
  struct tm parsed = {};
  ASSERT_NE(strptime(date.c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parsed), nullptr) << date;
  EXPECT_GE(timegm(&parsed), before - 1);
  EXPECT_LE(timegm(&parsed), time(nullptr) + 1);
}

TEST_F(HttpServer, KeepsTheConnection) {
  HttpClient one = client();
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(one.request(get("/echo/" + std::to_string(i))).body, "/echo/" + std::to_string(i));
}

TEST_F(HttpServer, AnswersAHeadWithoutTheBody) {
  HttpClient one = client();
  one.send("HEAD /hello HTTP/1.1\r\nHost: a\r\n\r\n");
  const HttpResponse response = one.response(true);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Length"), "5");
  EXPECT_EQ(one.request(get("/hello")).body, "hello");
}

TEST_F(HttpServer, ClosesBehindWhoAsksForIt) {
  HttpClient one = client();
  const HttpResponse response = one.request(get("/hello", "Connection: close\r\n"));
  EXPECT_EQ(response.header("Connection"), "close");
  EXPECT_EQ(response.body, "hello");
  EXPECT_TRUE(one.is_closed());
}

TEST_F(HttpServer, ClosesBehindAnOldClient) {
  HttpClient one = client();
  const HttpResponse response = one.request("GET /hello HTTP/1.0\r\n\r\n");
  EXPECT_EQ(response.status_line, "HTTP/1.1 200 OK");
  EXPECT_EQ(response.header("Connection"), "close");
  EXPECT_EQ(response.body, "hello");
  EXPECT_TRUE(one.is_closed());
}

TEST_F(HttpServer, KeepsTheConnectionOfAnOldClientThatAsksForIt) {
  HttpClient one = client();
  for (int i = 0; i < 2; ++i) {
    const HttpResponse response = one.request("GET /hello HTTP/1.0\r\nConnection: Keep-Alive\r\n\r\n");
    EXPECT_EQ(response.header("Connection"), "keep-alive");
    EXPECT_EQ(response.body, "hello");
  }
}

TEST_F(HttpServer, AnswersWhatWasAskedBeforeAHalfClose) {
  HttpClient one = client();
  one.send(get("/hello") + get("/echo/2"));
  one.finish_sending();
  EXPECT_EQ(one.response().body, "hello");
  EXPECT_EQ(one.response().body, "/echo/2");
  EXPECT_TRUE(one.is_closed());
}

TEST_F(HttpServer, AnswersAThousandPipelinedRequestsInOrder) {
  HttpClient one = client();
  std::string all;
  for (int i = 0; i < 1000; ++i)
    all += i % 10 == 3 ? post("/upload", std::to_string(i)) : get("/echo/" + std::to_string(i));
  one.send(all);
  for (int i = 0; i < 1000; ++i) {
    const std::string number = std::to_string(i);
    const std::string upload = std::to_string(number.size()) + ":" + number;
    ASSERT_EQ(one.response().body, i % 10 == 3 ? upload : "/echo/" + number);
  }
}

TEST_F(HttpServer, UnderstandsRequestsByteByByte) {
  HttpClient one = client();
  one.send_byte_by_byte(get("/hello") + post("/upload", "some bytes") +
                        chunked_post("/upload", "3\r\nabc\r\n4;x=y\r\ndefg\r\n0\r\nTrailer: t\r\n\r\n") +
                        get("/echo/x"));
  EXPECT_EQ(one.response().body, "hello");
  EXPECT_EQ(one.response().body, "10:some bytes");
  EXPECT_EQ(one.response().body, "-1:abcdefg");
  EXPECT_EQ(one.response().body, "/echo/x");
}

// The last bytes of a body are seen one at a time, whatever the network does.
TEST_F(HttpServer, UnderstandsTheEndOfAChunkedBodyPieceByPiece) {
  for (const std::string body : {"0\r\n\r\n", "00\r\n\r\n", "0\r\nA: b\r\n\r\n", "1\r\nx\r\n0\r\n\r\n"}) {
    HttpClient one = client();
    one.send(chunked_post("/upload", ""));
    for (const char byte : body) {
      let_loop_pass(eventer_choose_owner(0));
      one.send({&byte, 1});
    }
    EXPECT_EQ(one.response().body, body[0] == '1' ? "-1:x" : "-1:") << body;
  }
}

TEST_F(HttpServer, ForgivesAnEmptyLineBeforeARequest) {
  HttpClient one = client();
  EXPECT_EQ(one.request("\r\n" + get("/hello")).body, "hello");
  one.send_byte_by_byte("\r\n" + get("/hello"));
  EXPECT_EQ(one.response().body, "hello");
  EXPECT_EQ(one.request("\r\n\r\n" + get("/hello")).status, 400);
}

TEST_F(HttpServer, AnswersOverIpv6) {
  char *err = nullptr;
  const int port = ruxo_http_server_listen(host_.server(), "::1", 0, &err);
  if (port < 0) {
    const std::string reason = err;
    free(err);
    GTEST_SKIP() << "this machine has no IPv6 loopback: " << reason;
  }
  const int fd = socket(AF_INET6, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in6 address = {};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(static_cast<uint16_t>(port));
  address.sin6_addr = in6addr_loopback;
  ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
  const std::string request = get("/hello", "Connection: close\r\n");
  ASSERT_EQ(write(fd, request.data(), request.size()), static_cast<ssize_t>(request.size()));
  char text[1024];
  std::string all;
  for (ssize_t n; (n = read(fd, text, sizeof text)) > 0;) all.append(text, static_cast<size_t>(n));
  EXPECT_THAT(all, EndsWith("\r\n\r\nhello"));
  close(fd);
}

// ---- Routes ----

TEST_F(HttpServer, TellsWhatIsNotThere) {
  HttpClient one = client();
  for (const char *path : {"/", "/hell", "/hello/", "/echo", "/Hello", "/x"}) {
    const HttpResponse response = one.request(get(path));
    EXPECT_EQ(response.status_line, "HTTP/1.1 404 Not Found") << path;
    EXPECT_EQ(response.body, "there is nothing here\n");
  }
}

TEST_F(HttpServer, TellsWhichMethodsAreAllowed) {
  host_.answer("PUT", "/hello", [](ruxo_http_session_ctx *ctx) { ruxo_http_response_end(ctx); });
  HttpClient one = client();
  const HttpResponse response = one.request("DELETE /hello HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(response.status_line, "HTTP/1.1 405 Method Not Allowed");
  EXPECT_EQ(response.header("Allow"), "GET, HEAD, PUT");
  EXPECT_EQ(one.request(get("/upload")).header("Allow"), "POST");
  EXPECT_EQ(one.request("get /hello HTTP/1.1\r\nHost: a\r\n\r\n").status, 405);  // methods have their case
}

TEST_F(HttpServer, TakesTheLongestRouteThatHasTheMethod) {
  for (const char *path : {"/a/", "/a/b/", "/a/b/c"}) {
    host_.answer("GET", path,
                 [path](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", path); });
  }
  host_.answer("PUT", "/a/b/c/d", [](ruxo_http_session_ctx *ctx) { ruxo_http_response_end(ctx); });
  HttpClient one = client();
  EXPECT_EQ(one.request(get("/a/")).body, "/a/");
  EXPECT_EQ(one.request(get("/a/x")).body, "/a/");
  EXPECT_EQ(one.request(get("/a/b/")).body, "/a/b/");
  EXPECT_EQ(one.request(get("/a/b/c")).body, "/a/b/c");
  EXPECT_EQ(one.request(get("/a/b/c?q")).body, "/a/b/c");
  EXPECT_EQ(one.request(get("/a/b/c/d")).body, "/a/b/");
  EXPECT_EQ(one.request(get("/a/b/cd")).body, "/a/b/");
}

TEST_F(HttpServer, RefusesARouteTwiceAndWhileItListens) {
  const auto handler = [](ruxo_http_session_ctx *, ruxo_http_phase_t, const void *, size_t, void *) {
    return 0;
  };
  EXPECT_EQ(ruxo_http_server_route(host_.server(), "PUT", "/new", 0, handler, nullptr), 0);
  EXPECT_EQ(ruxo_http_server_route(host_.server(), "PUT", "/new", 0, handler, nullptr), -1);
  host_.listen();
  EXPECT_EQ(ruxo_http_server_route(host_.server(), "PUT", "/later", 0, handler, nullptr), -1);
}

TEST_F(HttpServer, DoesNotListenOnWhatIsNoAddress) {
  char *err = nullptr;
  EXPECT_EQ(ruxo_http_server_listen(host_.server(), "localhost", 0, &err), -1);
  EXPECT_STREQ(err, "not an IP address: \"localhost\"");
  free(err);
  const int port = host_.listen();
  EXPECT_EQ(ruxo_http_server_listen(host_.server(), "127.0.0.1", static_cast<uint16_t>(port), &err), -1);
  EXPECT_EQ(err, "cannot listen on 127.0.0.1:" + std::to_string(port) + ": Address already in use");
  free(err);
}

// ---- Bodies ----

TEST_F(HttpServer, HandsABodyToItsHandler) {
  HttpClient one = client();
  EXPECT_EQ(one.request(post("/upload", "some bytes")).body, "10:some bytes");
  EXPECT_THAT(phases_, ElementsAre(RUXO_HTTP_HEAD, RUXO_HTTP_BODY, RUXO_HTTP_COMPLETE));
  phases_.clear();
  EXPECT_EQ(one.request(post("/upload", "")).body, "0:");
  EXPECT_THAT(phases_, ElementsAre(RUXO_HTTP_HEAD, RUXO_HTTP_COMPLETE));
  EXPECT_EQ(one.request("POST /upload HTTP/1.1\r\nHost: a\r\n\r\n").body, "0:");
}

TEST_F(HttpServer, HandsAChunkedBodyToItsHandler) {
  HttpClient one = client();
  EXPECT_EQ(one.request(chunked_post("/upload", "3\r\nabc\r\n000A\r\n0123456789\r\n0\r\n\r\n")).body,
            "-1:abc0123456789");
  EXPECT_EQ(one.request(chunked_post("/upload", "0\r\n\r\n")).body, "-1:");
  EXPECT_EQ(one.request(chunked_post("/upload", "1;a;b=\"c\\\"d\"\r\nx\r\n0;e\r\nF: g\r\nH: i\r\n\r\n")).body,
            "-1:x");
  EXPECT_EQ(one.request(get("/hello")).body, "hello");
}

TEST_F(HttpServer, DoesNotBelieveATrailer) {
  host_.route("POST", "/trailer", [](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    if (phase == RUXO_HTTP_COMPLETE) {
      const char *const header = ruxo_http_request_header(ctx, "X-User");
      ruxo_http_respond(ctx, 200, "text/plain", header == nullptr ? "nobody" : header);
    }
    return 0;
  });
  HttpClient one = client();
  EXPECT_EQ(one.request(chunked_post("/trailer", "0\r\nX-User: root\r\n\r\n")).body, "nobody");
}

TEST_F(HttpServer, TakesABodyOfManyMegabytes) {
  uint64_t received = 0;
  host_.route(
      "PUT", "/big",
      [&](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes) {
        received += bytes.size();
        if (phase == RUXO_HTTP_COMPLETE)
          ruxo_http_respond(ctx, 200, "text/plain", std::to_string(received).c_str());
        return 0;
      },
      uint64_t{64} << 20);
  HttpClient one = client();
  constexpr size_t kSize = size_t{32} << 20;
  one.send("PUT /big HTTP/1.1\r\nHost: a\r\nContent-Length: " + std::to_string(kSize) + "\r\n\r\n");
  one.send(std::string(kSize, 'b'));
  EXPECT_EQ(one.response().body, std::to_string(kSize));
}

TEST_F(HttpServer, AsksForABodyThatTheClientHoldsBack) {
  HttpClient one = client();
  one.send("POST /upload HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nExpect: 100-Continue\r\n\r\n");
  EXPECT_EQ(one.response().status_line, "HTTP/1.1 100 Continue");
  one.send("abc");
  EXPECT_EQ(one.response().body, "3:abc");
  // Who did not wait for it is not asked.
  one.send(post("/upload", "abc", "Expect: 100-continue\r\n"));
  EXPECT_EQ(one.response().status, 200);
}

TEST_F(HttpServer, DoesNotAskForABodyThatIsRefused) {
  host_.route("POST", "/no", [](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    if (phase == RUXO_HTTP_HEAD) ruxo_http_respond(ctx, 403, "text/plain", "no");
    return 0;
  });
  HttpClient one = client();
  const std::string expecting = " HTTP/1.1\r\nHost: a\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\n";
  const HttpResponse response = one.request("POST /no" + expecting);
  EXPECT_EQ(response.status, 403);
  EXPECT_EQ(response.header("Connection"), "close");  // the body may come or not
  EXPECT_TRUE(one.is_closed());
  HttpClient other = client();
  EXPECT_EQ(other.request("POST /nowhere" + expecting).status, 404);
}

TEST_F(HttpServer, DoesNotAskAnOldClient) {
  HttpClient one = client();
  one.send("POST /upload HTTP/1.0\r\nContent-Length: 3\r\nExpect: 100-continue\r\n\r\nabc");
  EXPECT_EQ(one.response().body, "3:abc");
}

TEST_F(HttpServer, AnAnswerBeforeTheBodyReachesAClientThatSendsItAll) {
  host_.route("POST", "/no", [this](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    phases_.push_back(phase);
    if (phase == RUXO_HTTP_HEAD) ruxo_http_respond(ctx, 403, "text/plain", "no");
    return 0;
  });
  HttpClient one = client();
  const HttpResponse response = one.request(post("/no", std::string(500000, 'x')) + get("/hello"));
  EXPECT_EQ(response.status, 403);
  EXPECT_EQ(response.body, "no");
  EXPECT_TRUE(one.is_closed());
  EXPECT_THAT(phases_, ElementsAre(RUXO_HTTP_HEAD));
}

// What is unread when a socket is closed resets the connection: the client would see that behind its answer, or
// instead of it.
TEST_F(HttpServer, ARefusalIsNoReset) {
  for (const std::string &request : {"nonsense\r\n\r\n" + std::string(50000, 'x'),
                                     get("/hello", "Connection: close\r\n") + std::string(50000, 'x'),
                                     post("/nowhere", std::string(50000, 'x'))}) {
    HttpClient one = client();
    one.send(request);
    EXPECT_GE(one.response().status, 200);
    EXPECT_TRUE(one.is_closed());
    let_loop_pass(eventer_choose_owner(0));
    int fault = 0;
    socklen_t size = sizeof fault;
    getsockopt(one.fd(), SOL_SOCKET, SO_ERROR, &fault, &size);
    EXPECT_EQ(fault, 0);
  }
}

// ---- Responses ----

TEST_F(HttpServer, PutsAResponseTogether) {
  host_.answer("GET", "/made", [](ruxo_http_session_ctx *ctx) {
    ruxo_http_response_status(ctx, 201);
    EXPECT_TRUE(ruxo_http_response_header(ctx, "X-One", "a b\tc"));
    EXPECT_TRUE(ruxo_http_response_header(ctx, "X-Two", ""));
    EXPECT_TRUE(ruxo_http_response_append(ctx, "one,", 4));
    EXPECT_TRUE(ruxo_http_response_append(ctx, "", 0));
    EXPECT_TRUE(ruxo_http_response_append(ctx, "two\0", 4));
    ruxo_http_response_end(ctx);
  });
  HttpClient one = client();
  const HttpResponse response = one.request(get("/made"));
  EXPECT_EQ(response.status_line, "HTTP/1.1 201 Created");
  EXPECT_EQ(response.header("X-One"), "a b\tc");
  EXPECT_EQ(response.header("X-Two"), "");
  EXPECT_EQ(response.body, std::string("one,two\0", 8));
}

TEST_F(HttpServer, RefusesHeadersThatAreNoneOrItsOwn) {
  host_.answer("GET", "/made", [](ruxo_http_session_ctx *ctx) {
    for (const char *name : {"", "a b", "a:", "a\r\nb", "\xc3\xa4", "Content-Length", "transfer-encoding",
                             "CONNECTION", "Keep-Alive", "Upgrade", "Trailer", "Date"}) {
      EXPECT_FALSE(ruxo_http_response_header(ctx, name, "1")) << name;
    }
    for (const char *value : {"a\r\nb", "a\nb", "a\rb", "\x7f", "\x01", " a", "a ", "\ta"})
      EXPECT_FALSE(ruxo_http_response_header(ctx, "X", value)) << value;
    ruxo_http_respond(ctx, 200, "text/plain", "made");
  });
  HttpClient one = client();
  const HttpResponse response = one.request(get("/made"));
  EXPECT_EQ(response.body, "made");
  EXPECT_EQ(response.headers.size(), 3U);
}

TEST_F(HttpServer, LeavesTheBodyOutWhereNoneIsAllowed) {
  for (const int status : {204, 304}) {
    host_.answer("GET", status == 204 ? "/204" : "/304", [status](ruxo_http_session_ctx *ctx) {
      ruxo_http_respond(ctx, status, "text/plain", "body");
    });
  }
  HttpClient one = client();
  for (const char *path : {"/204", "/304"}) {
    const HttpResponse response = one.request(get(path));
    EXPECT_EQ(std::to_string(response.status), path + 1);
    EXPECT_EQ(response.header("Content-Length"), "(none)");
  }
  EXPECT_EQ(one.request(get("/hello")).body, "hello");
}

TEST_F(HttpServer, KnowsStatusesAndRefusesWhatIsNone) {
  host_.answer("GET", "/status/", [](ruxo_http_session_ctx *ctx) {
    ruxo_http_respond(ctx, atoi(ruxo_http_request_path(ctx) + 8), "text/plain", "x");
  });
  HttpClient one = client();
  EXPECT_EQ(one.request(get("/status/200")).status_line, "HTTP/1.1 200 OK");
  EXPECT_EQ(one.request(get("/status/503")).status_line, "HTTP/1.1 503 Service Unavailable");
  EXPECT_EQ(one.request(get("/status/507")).status_line, "HTTP/1.1 507 Insufficient Storage");
  EXPECT_EQ(one.request(get("/status/299")).status_line, "HTTP/1.1 299 ");
  EXPECT_EQ(one.request(get("/status/599")).status_line, "HTTP/1.1 599 ");
  for (const char *path : {"/status/100", "/status/199", "/status/600", "/status/0", "/status/-5"})
    EXPECT_EQ(one.request(get(path)).status_line, "HTTP/1.1 500 Internal Server Error") << path;
}

TEST_F(HttpServer, SendsAResponseThatIsLargerThanTheSocketTakes) {
  std::string large(size_t{20} << 20, ' ');
  for (size_t i = 0; i < large.size(); ++i) large[i] = static_cast<char>('a' + i * 7919 % 26);
  host_.answer("GET", "/large", [&](ruxo_http_session_ctx *ctx) {
    for (size_t at = 0; at < large.size(); at += 1 << 20)
      ruxo_http_response_append(ctx, large.data() + at, 1 << 20);
    ruxo_http_response_end(ctx);
  });
  host_.listen();
  HttpClient one(host_.port(), 4096);
  EXPECT_TRUE(one.request(get("/large")).body == large);
  EXPECT_EQ(one.request(get("/hello")).body, "hello");
}

TEST_F(HttpServer, AHandlerThatFailsIsAnsweredForWith500) {
  for (const ruxo_http_phase_t when : {RUXO_HTTP_HEAD, RUXO_HTTP_BODY, RUXO_HTTP_COMPLETE}) {
    const char *const paths[] = {"/0", "/1", "/2"};
    host_.route("POST", paths[when],
                [this, when](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
                  phases_.push_back(phase);
                  ruxo_http_response_append(ctx, "what is lost", 12);
                  return phase == when ? 1 : 0;
                });
  }
  for (const int when : {0, 1, 2}) {
    phases_.clear();
    HttpClient one = client();
    const HttpResponse response = one.request(post("/" + std::to_string(when), "x"));
    EXPECT_EQ(response.status_line, "HTTP/1.1 500 Internal Server Error");
    EXPECT_EQ(response.body, "the request failed\n");
    EXPECT_TRUE(one.is_closed());
    EXPECT_EQ(phases_.size(), static_cast<size_t>(when) + 1);  // and no ABORTED: it knows
  }
}

TEST_F(HttpServer, AHandlerMayAnswerLater) {
  ruxo_http_session_ctx *waiting = nullptr;
  host_.answer("GET", "/later", [&](ruxo_http_session_ctx *ctx) {
    waiting = ctx;
    eventer_add_in_s_us(
        [](eventer_t, int, void *closure, struct timeval *) {
          ruxo_http_respond(*static_cast<ruxo_http_session_ctx **>(closure), 200, "text/plain", "at last");
          return 0;
        },
        &waiting, 0, 10000);
  });
  HttpClient one = client();
  one.send(get("/later") + get("/hello") + get("/later"));
  EXPECT_EQ(one.response().body, "at last");
  EXPECT_EQ(one.response().body, "hello");
  EXPECT_EQ(one.response().body, "at last");
}

TEST_F(HttpServer, IsToldWhenTheClientOfALaterAnswerIsGone) {
  Happened begun, aborted;
  host_.route("GET", "/never", [&](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view) {
    static int kept = 7;
    if (phase == RUXO_HTTP_HEAD) ruxo_http_session_set_closure(ctx, &kept);
    if (phase == RUXO_HTTP_COMPLETE) begun.once();
    if (phase == RUXO_HTTP_ABORTED) {
      EXPECT_EQ(ruxo_http_session_closure(ctx), &kept);
      aborted.once();
    }
    return 0;
  });
  HttpClient one = client();
  one.send(get("/never"));
  begun.wait();
  one.reset();
  aborted.wait();
}

TEST_F(HttpServer, ASessionBeginsWithoutTheOneBeforeIt) {
  host_.answer("GET", "/fresh", [](ruxo_http_session_ctx *ctx) {
    EXPECT_EQ(ruxo_http_session_closure(ctx), nullptr);
    ruxo_http_session_set_closure(ctx, ctx);
    const bool known = ruxo_http_request_header(ctx, "X-Old") != nullptr;
    ruxo_http_response_header(ctx, "X-Known", known ? "yes" : "no");
    ruxo_http_respond(ctx, known ? 202 : 200, "text/plain", known ? "old" : "new");
  });
  HttpClient one = client();
  const HttpResponse first = one.request(get("/fresh?query", "X-Old: 1\r\n"));
  EXPECT_EQ(first.status, 202);
  const HttpResponse second = one.request(get("/fresh"));
  EXPECT_EQ(second.status, 200);
  EXPECT_EQ(second.header("X-Known"), "no");
  EXPECT_EQ(second.body, "new");
  EXPECT_EQ(second.headers.size(), 4U);
}

}  // namespace
