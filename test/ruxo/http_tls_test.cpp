// The server over TLS, with a client that is the TLS library's own.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"
#include "test/support/tls_identity.h"

namespace {

using testing::ElementsAre;
using testing::EndsWith;
using testing::StartsWith;

std::string get(const std::string &path, const std::string &more = "") {
  return "GET " + path + " HTTP/1.1\r\nHost: a\r\n" + more + "\r\n";
}

class TlsClient {
 public:
  explicit TlsClient(int port, const std::string &trusted, int receive_buffer = 0)
      : socket_(port, receive_buffer), context_(SSL_CTX_new(TLS_client_method()), SSL_CTX_free) {
    SSL_CTX_load_verify_file(context_.get(), trusted.c_str());
    SSL_CTX_set_verify(context_.get(), SSL_VERIFY_PEER, nullptr);
  }
  SSL_CTX *context() const { return context_.get(); }
  const HttpClient &socket() const { return socket_; }

  bool connect() {
    ssl_.reset(SSL_new(context_.get()));
    SSL_set_fd(ssl_.get(), socket_.fd());
    return SSL_connect(ssl_.get()) == 1;
  }
  SSL *ssl() const { return ssl_.get(); }

  void send(std::string_view bytes) const {
    ASSERT_EQ(SSL_write(ssl_.get(), bytes.data(), static_cast<int>(bytes.size())),
              static_cast<int>(bytes.size()));
  }
  // The body of a response; "(none)" when it is not complete.
  std::string body() {
    size_t end;
    while ((end = unread_.find("\r\n\r\n")) == std::string::npos) {
      if (!read_more()) return "(none)";
    }
    const size_t at = unread_.find("Content-Length: ");
    const size_t len = std::stoull(unread_.substr(at + 16));
    unread_.erase(0, end + 4);
    while (unread_.size() < len) {
      if (!read_more()) return "(none)";
    }
    const std::string result = unread_.substr(0, len);
    unread_.erase(0, len);
    return result;
  }
  std::string request(const std::string &bytes) {
    send(bytes);
    return body();
  }
  // Whether the server says that it is done, as TLS has it.
  bool is_closed() const {
    char byte;
    const int n = SSL_read(ssl_.get(), &byte, 1);
    return SSL_get_error(ssl_.get(), n) == SSL_ERROR_ZERO_RETURN;
  }

 private:
  bool read_more() {
    char piece[65536];
    const int n = SSL_read(ssl_.get(), piece, sizeof piece);
    if (n > 0) unread_.append(piece, static_cast<size_t>(n));
    return n > 0;
  }

  HttpClient socket_;
  std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context_;
  struct Free {
    void operator()(SSL *ssl) const { SSL_free(ssl); }
  };
  std::unique_ptr<SSL, Free> ssl_;
  std::string unread_;
};

class HttpTls : public testing::Test {
 protected:
  ~HttpTls() override { host_.reset(); }

  void start(const ruxo_http_limits_t &limits = http_limits()) {
    host_ = std::make_unique<HttpHost>(limits);
    char *err = nullptr;
    ASSERT_EQ(ruxo_http_server_tls(host_->server(), identity_.certificate_file().c_str(),
                                   identity_.key_file().c_str(), &err),
              0);
    ASSERT_EQ(err, nullptr);
    host_->answer("GET", "/hello",
                  [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "hello"); });
    host_->route(
        "PUT", "/size",
        [this](ruxo_http_session_ctx *ctx, ruxo_http_phase_t phase, std::string_view bytes) {
          received_ += bytes.size();
          if (phase == RUXO_HTTP_COMPLETE)
            ruxo_http_respond(ctx, 200, "text/plain", std::to_string(received_).c_str());
          return 0;
        },
        uint64_t{1} << 30);
    host_->answer("GET", "/memory", [this](ruxo_http_session_ctx *ctx) {
      ruxo_http_response_append(ctx, large_.data(), large_.size());
      ruxo_http_response_end(ctx);
    });
    host_->answer("GET", "/file", [this](ruxo_http_session_ctx *ctx) {
      const int fd = open(file_.c_str(), O_RDONLY | O_CLOEXEC);
      ruxo_http_response_append(ctx, "<", 1);
      EXPECT_TRUE(ruxo_http_response_append_mmap_from_fd(ctx, fd, large_.size() - 7, 0, 7));
      ruxo_http_response_append(ctx, ">", 1);
      close(fd);
      ruxo_http_response_end(ctx);
    });
    host_->listen();
  }
  TlsClient client(int receive_buffer = 0) const {
    return TlsClient(host_->port(), identity_.certificate_file(), receive_buffer);
  }
  std::string fault(const std::string &certificate, const std::string &key) const {
    ruxo_http_server_t *const server = ruxo_http_server_new(nullptr);
    char *err = nullptr;
    EXPECT_EQ(ruxo_http_server_tls(server, certificate.c_str(), key.c_str(), &err), -1);
    const std::string text = err;
    free(err);
    ruxo_http_server_stop(server, 0);
    return text;
  }

  const LogCapture log_{&ruxo_error};
  const TlsIdentity identity_;
  const TempDir dir_;
  std::string large_ = [] {
    std::string bytes(3000000, ' ');
    for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 2654435761U >> 13);
    return bytes;
  }();
  const std::string file_ = dir_.write("file", large_);
  size_t received_ = 0;
  std::unique_ptr<HttpHost> host_;
};

TEST_F(HttpTls, AnswersRequests) {
  start();
  TlsClient one = client();
  ASSERT_TRUE(one.connect());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(one.request(get("/hello")), "hello");
  one.send(get("/hello") + get("/hello"));
  EXPECT_EQ(one.body() + one.body(), "hellohello");
  EXPECT_EQ(one.request(get("/hello", "Connection: close\r\n")), "hello");
  EXPECT_TRUE(one.is_closed());
}

TEST_F(HttpTls, SpeaksTls12And13AndNothingOlder) {
  start();
  for (const int version : {TLS1_2_VERSION, TLS1_3_VERSION}) {
    TlsClient one = client();
    SSL_CTX_set_max_proto_version(one.context(), version);
    ASSERT_TRUE(one.connect());
    EXPECT_EQ(SSL_version(one.ssl()), version);
    EXPECT_EQ(one.request(get("/hello")), "hello");
  }
  TlsClient old = client();
  SSL_CTX_set_min_proto_version(old.context(), TLS1_1_VERSION);
  SSL_CTX_set_max_proto_version(old.context(), TLS1_1_VERSION);
  SSL_CTX_set_cipher_list(old.context(), "ALL:@SECLEVEL=0");
  EXPECT_FALSE(old.connect());
}

TEST_F(HttpTls, SaysThatItSpeaksHttp11) {
  start();
  TlsClient one = client();
  SSL_CTX_set_alpn_protos(one.context(), reinterpret_cast<const unsigned char *>("\x02h2\x08http/1.1"), 12);
  ASSERT_TRUE(one.connect());
  const unsigned char *chosen;
  unsigned len;
  SSL_get0_alpn_selected(one.ssl(), &chosen, &len);
  EXPECT_EQ(std::string(reinterpret_cast<const char *>(chosen), len), "http/1.1");
  TlsClient other = client();
  SSL_CTX_set_alpn_protos(other.context(), reinterpret_cast<const unsigned char *>("\x02h2"), 3);
  EXPECT_FALSE(other.connect());
}

TEST_F(HttpTls, SendsLargeResponses) {
  start();
  for (const int receive_buffer : {0, 4096}) {
    TlsClient one = client(receive_buffer);
    ASSERT_TRUE(one.connect());
    EXPECT_TRUE(one.request(get("/memory")) == large_);
    EXPECT_TRUE(one.request(get("/file")) == "<" + large_.substr(7) + ">");
    EXPECT_EQ(one.request(get("/hello")), "hello");
  }
}

TEST_F(HttpTls, TakesLargeBodies) {
  start();
  TlsClient one = client();
  ASSERT_TRUE(one.connect());
  one.send("PUT /size HTTP/1.1\r\nHost: a\r\nContent-Length: 3000000\r\nExpect: 100-continue\r\n\r\n");
  char interim[25];
  ASSERT_EQ(SSL_read(one.ssl(), interim, sizeof interim), 25);
  EXPECT_EQ(std::string(interim, 25), "HTTP/1.1 100 Continue\r\n\r\n");
  for (size_t at = 0; at < large_.size(); at += 100000) one.send(std::string_view(large_).substr(at, 100000));
  EXPECT_EQ(one.body(), "3000000");
}

TEST_F(HttpTls, UnderstandsRequestsByteByByte) {
  start();
  TlsClient one = client();
  ASSERT_TRUE(one.connect());
  for (const char byte : get("/hello")) one.send({&byte, 1});
  EXPECT_EQ(one.body(), "hello");
}

TEST_F(HttpTls, AFileThatBecomesShorterClosesTheConnection) {
  start();
  TlsClient one = client(4096);
  ASSERT_TRUE(one.connect());
  one.send(get("/file"));
  char first;
  ASSERT_EQ(SSL_read(one.ssl(), &first, 1), 1);
  ASSERT_EQ(truncate(file_.c_str(), 1000), 0);
  EXPECT_EQ(one.body(), "(none)");
  TlsClient other = client();
  ASSERT_TRUE(other.connect());
  EXPECT_EQ(other.request(get("/hello")), "hello");
}

TEST_F(HttpTls, WhoDoesNotSpeakTlsIsCutOff) {
  start();
  for (const std::string &bytes :
       {get("/hello"), std::string(1000, '\0'), std::string("\x16\x03\x01\xff\xff garbage"),
        std::string("\x16\x03\x01\x00\x04\x01\x00\x00\x00", 9)}) {
    HttpClient plain(host_->port());
    plain.send(bytes);
    plain.finish_sending();
    EXPECT_EQ(plain.rest().find("HTTP/"), std::string::npos);
  }
  EXPECT_EQ(log_.lines().size(), 4U);
  for (const std::string &line : log_.lines()) {
    EXPECT_THAT(line, StartsWith("http: 127.0.0.1:"));
    EXPECT_THAT(line, EndsWith(": the TLS handshake failed\n"));
  }
  TlsClient one = client();
  ASSERT_TRUE(one.connect());
  EXPECT_EQ(one.request(get("/hello")), "hello");
}

TEST_F(HttpTls, AHandshakeMayBeResetAtEveryByte) {
  start();
  // What a client says first.
  const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                                  SSL_CTX_free);
  SSL *const ssl = SSL_new(context.get());
  BIO *const out = BIO_new(BIO_s_mem());
  SSL_set_bio(ssl, BIO_new(BIO_s_mem()), out);
  SSL_connect(ssl);
  char *data;
  const long size = BIO_get_mem_data(out, &data);
  ASSERT_GT(size, 100);
  const std::string hello(data, static_cast<size_t>(size));
  SSL_free(ssl);
  for (size_t len = 0; len <= hello.size(); ++len) {
    HttpClient plain(host_->port());
    plain.send(hello.substr(0, len));
    plain.reset();
  }
  TlsClient one = client();
  ASSERT_TRUE(one.connect());
  EXPECT_EQ(one.request(get("/hello")), "hello");
}

TEST_F(HttpTls, AHandshakeThatStallsIsCutOff) {
  ruxo_http_limits_t limits = http_limits();
  limits.header_timeout_ms = 50;
  start(limits);
  HttpClient silent(host_->port());
  EXPECT_TRUE(silent.is_closed());
  HttpClient begun(host_->port());
  begun.send("\x16\x03\x01");
  EXPECT_TRUE(begun.is_closed());
}

TEST_F(HttpTls, OneTooManyIsClosed) {
  ruxo_http_limits_t limits = http_limits();
  limits.max_connections = 1;
  start(limits);
  TlsClient one = client();
  ASSERT_TRUE(one.connect());
  HttpClient two(host_->port());
  EXPECT_TRUE(two.is_closed());
  EXPECT_EQ(one.request(get("/hello")), "hello");
}

TEST_F(HttpTls, IsStoppedLikeAny) {
  start();
  TlsClient idle = client();
  ASSERT_TRUE(idle.connect());
  EXPECT_EQ(idle.request(get("/hello")), "hello");
  HttpClient in_handshake(host_->port());
  EXPECT_EQ(host_->stop(60000), 0U);
}

TEST_F(HttpTls, TellsWhyItCannotUseItsFiles) {
  const std::string certificate = identity_.certificate_file(), key = identity_.key_file();
  EXPECT_THAT(fault("/nowhere", key), StartsWith("cannot use the certificate in /nowhere: error:"));
  EXPECT_THAT(fault(certificate, "/nowhere"), StartsWith("cannot use the key in /nowhere: error:"));
  EXPECT_THAT(fault(key, key), StartsWith("cannot use the certificate in " + key + ": error:"));
  EXPECT_THAT(fault(certificate, certificate),
              StartsWith("cannot use the key in " + certificate + ": error:"));
  EXPECT_THAT(fault(certificate, identity_.locked_key_file()), StartsWith("cannot use the key in "));
  const TlsIdentity other;
  EXPECT_THAT(fault(certificate, other.key_file()), StartsWith("cannot use the key in "));
}

}  // namespace
