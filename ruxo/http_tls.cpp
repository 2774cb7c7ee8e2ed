// Bytes over TLS (1.2 and later), by OpenSSL on a non-blocking socket.
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ruxo/http_private.h"

namespace ruxo::http {

namespace {

constexpr size_t kRecordSize = 16384;  // the most that one record of TLS holds

class TlsTransport final : public Transport {
 public:
  TlsTransport(SSL *ssl, int fd) : ssl_(ssl), fd_(fd) {}
  ~TlsTransport() override { SSL_free(ssl_); }
  TlsTransport(const TlsTransport &) = delete;
  TlsTransport &operator=(const TlsTransport &) = delete;

  ssize_t handshake() override {
    return result([&] { return SSL_accept(ssl_); });
  }

  ssize_t read(char *buff, size_t size) override {
    return result([&] { return SSL_read(ssl_, buff, static_cast<int>(std::min<size_t>(size, INT32_MAX))); });
  }

  // A record that could not leave has to be offered again as it was: so the bytes are copied, which also puts a head
  // and a short body into one record.
  ssize_t send(const struct iovec *pieces, int count, bool) override {
    for (int i = 0; i < count && !offered_; ++i) {
      const size_t n = std::min(pieces[i].iov_len, kRecordSize - record_len_);
      memcpy(record() + record_len_, pieces[i].iov_base, n);
      record_len_ += n;
    }
    return send_record();
  }

  ssize_t send_file(int file, uint64_t offset, uint64_t len) override {
    if (!offered_) {
      const ssize_t n = read_file_at(file, record(), std::min<uint64_t>(len, kRecordSize), offset);
      if (n < 0) return kFailed;
      if (n == 0) return kEnd;
      record_len_ = static_cast<size_t>(n);
    }
    return send_record();
  }

  void finish() override {
    ERR_clear_error();
    if (SSL_is_init_finished(ssl_) && !failed_) SSL_shutdown(ssl_);
    shutdown(fd_, SHUT_WR);
  }

  void rest() override { record_.reset(); }

  // What has been deciphered is not seen on the socket.
  bool short_read_is_last() const override { return false; }

 private:
  char *record() {
    if (record_ == nullptr) record_ = std::make_unique<char[]>(kRecordSize);
    return record_.get();
  }

  ssize_t send_record() {
    const ssize_t n = result([&] { return SSL_write(ssl_, record_.get(), static_cast<int>(record_len_)); });
    offered_ = n == kBlocked;
    if (!offered_) record_len_ = 0;
    return n == kEnd ? kFailed : n;
  }

  template <class Call>
  ssize_t result(Call call) {
    if (failed_) return kFailed;
    ERR_clear_error();
    errno = 0;
    const int n = call();
    if (n > 0) return n;
    switch (SSL_get_error(ssl_, n)) {
      case SSL_ERROR_WANT_READ:
        wanted_ = EVENTER_READ;
        return kBlocked;
      case SSL_ERROR_WANT_WRITE:
        wanted_ = EVENTER_WRITE;
        return kBlocked;
      case SSL_ERROR_ZERO_RETURN:
        return kEnd;
      default:
        failed_ = true;  // after which nothing more may be asked of it
        return kFailed;
    }
  }

  SSL *const ssl_;
  const int fd_;
  std::unique_ptr<char[]> record_;
  size_t record_len_ = 0;
  bool offered_ = false;
  bool failed_ = false;
};

std::string last_fault() {
  char text[256];
  const unsigned long code = ERR_peek_last_error();
  if (code == 0) return "unknown fault";
  ERR_error_string_n(code, text, sizeof text);
  return text;
}

// Clients that speak something else too are told what this server speaks.
int choose_protocol(SSL *, const unsigned char **chosen, unsigned char *chosen_len,
                    const unsigned char *offered, unsigned offered_len, void *) {
  static const unsigned char kOurs[] = "\x08http/1.1\x08http/1.0";
  unsigned char *found = nullptr;
  const int result = SSL_select_next_proto(&found, chosen_len, kOurs, sizeof kOurs - 1, offered, offered_len);
  *chosen = found;
  return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_ALERT_FATAL;
}

// A key with a pass phrase is not asked for on the terminal of a server.
int no_pass_phrase(char *, int, int, void *) {
  return -1;
}

bool load(SSL_CTX *context, const char *certificate_file, const char *key_file, std::string *err) {
  if (SSL_CTX_use_certificate_chain_file(context, certificate_file) != 1) {
    *err = std::string("cannot use the certificate in ") + certificate_file + ": " + last_fault();
  } else if (SSL_CTX_use_PrivateKey_file(context, key_file, SSL_FILETYPE_PEM) != 1) {
    *err = std::string("cannot use the key in ") + key_file + ": " + last_fault();
  } else if (SSL_CTX_check_private_key(context) != 1) {
    *err = std::string("the key in ") + key_file + " is not that of the certificate in " + certificate_file;
  }
  return err->empty();
}

}  // namespace

TlsContext tls_context(const char *certificate_file, const char *key_file, std::string *err) {
  ERR_clear_error();
  TlsContext context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  if (context == nullptr) {
    *err = last_fault();
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION);
  // An end without notice is an end: HTTP itself says how long everything is.
  SSL_CTX_set_options(context.get(), SSL_OP_NO_RENEGOTIATION | SSL_OP_IGNORE_UNEXPECTED_EOF |
                                         SSL_OP_CIPHER_SERVER_PREFERENCE | SSL_OP_NO_COMPRESSION);
  SSL_CTX_set_mode(context.get(), SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                      SSL_MODE_RELEASE_BUFFERS);
  SSL_CTX_set_alpn_select_cb(context.get(), choose_protocol, nullptr);
  SSL_CTX_set_default_passwd_cb(context.get(), no_pass_phrase);
  const bool loaded = load(context.get(), certificate_file, key_file, err);
  ERR_clear_error();
  return loaded ? context : nullptr;
}

std::unique_ptr<Transport> tls_transport(ssl_ctx_st *context, int fd) {
  SSL *const ssl = SSL_new(context);
  if (ssl == nullptr) return nullptr;
  if (SSL_set_fd(ssl, fd) != 1) {
    SSL_free(ssl);
    return nullptr;
  }
  return std::make_unique<TlsTransport>(ssl, fd);
}

}  // namespace ruxo::http
