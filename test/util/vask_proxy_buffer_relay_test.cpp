// Proxy buffers between two servers: one whose answer they spool, one that relays it; with and without TLS.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <memory>
#include <string>

#include "liborlith/topo/topo.h"
#include "liborlith/util/vask_proxy_buffer.h"
#include "test/support/http_host.h"
#include "test/support/http_peer.h"
#include "test/support/log_capture.h"
#include "test/support/tls_identity.h"
#include "test/util/vask_proxy_buffer_support.h"

namespace {

using http_peer::answer;
using http_peer::HttpPeer;
using testing::ElementsAre;
using testing::HasSubstr;

using namespace proxy_buffer_test;

class VaskProxyBufferRelay : public testing::Test {
 protected:
  VaskProxyBufferRelay() { spool_root(); }
  ~VaskProxyBufferRelay() override {
    host_.stop(5000);
    topo_set_ca_chain(nullptr, nullptr);
  }

  static Buffer fetch(const std::string &url, int expected = 0) {
    Buffer pb(vask_proxy_buffer_new());
    EXPECT_EQ(
        vask_proxy_buffer_perform_curl(pb.get(), nullptr, url.c_str(), kTimeoutMs, nullptr, nullptr, nullptr),
        expected);
    return pb;
  }
  static std::string body_of(const Buffer &pb) {
    const uint8_t *const map = vask_proxy_buffer_mmap(pb.get(), MAP_SHARED);
    return map == nullptr
               ? ""
               : std::string(reinterpret_cast<const char *>(map), vask_proxy_buffer_get_len(pb.get()));
  }
  // A server that relays what the peer at `url` has answered.
  void relay(const std::string &url) {
    host_.answer("GET", "/relay", [url](ruxo_http_session_ctx *ctx) {
      Buffer pb = fetch(url);
      ruxo_http_response_status(ctx, static_cast<int>(vask_proxy_buffer_get_httpcode(pb.get())));
      const bool appended = vask_proxy_buffer_ruxo_http_append_mmap_from_fd(pb.get(), ctx, MAP_SHARED, 0);
      ruxo_http_response_header(ctx, "X-Appended", appended ? "yes" : "no");
      pb.reset();  // before anything was sent
      ruxo_http_response_end(ctx);
    });
    host_.listen();
  }
  std::string host_url(const std::string &scheme, const std::string &name) const {
    return scheme + "://" + name + ":" + std::to_string(host_.port()) + "/relay";
  }

  HttpHost host_;
  LogCapture errors_{&vask_proxy_buffer_error_ls};
};

std::string appended_of(const Buffer &pb, const std::string &url) {
  std::string found;
  vask_proxy_buffer_perform_curl(
      pb.get(), nullptr, url.c_str(), kTimeoutMs, nullptr,
      [](char *key, char *value, void *closure) {
        if (strcmp(key, "x-appended") == 0) *static_cast<std::string *>(closure) = value;
      },
      &found);
  return found;
}

TEST_F(VaskProxyBufferRelay, ABodyArrivesAsItWas) {
  std::string bytes(3 << 20, ' ');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31 + (i >> 12));
  HttpPeer peer(answer(200, bytes));
  relay(peer.url());
  const Buffer pb(vask_proxy_buffer_new());
  EXPECT_EQ(appended_of(pb, host_url("http", "127.0.0.1")), "yes");
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb.get()), 200);
  EXPECT_TRUE(body_of(pb) == bytes);
}

TEST_F(VaskProxyBufferRelay, WithoutABodyNothingIsAppended) {
  HttpPeer empty(answer(200, ""));
  relay(empty.url());
  const Buffer pb(vask_proxy_buffer_new());
  EXPECT_EQ(appended_of(pb, host_url("http", "127.0.0.1")), "no");
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb.get()), 200);
  EXPECT_EQ(vask_proxy_buffer_get_len(pb.get()), 0U);
  EXPECT_FALSE(vask_proxy_buffer_has_valid_fd(pb.get()));
}

TEST_F(VaskProxyBufferRelay, AnotherStatusIsRelayedWithoutItsBody) {
  HttpPeer gone(answer(404, "why"));
  relay(gone.url());
  const Buffer pb(vask_proxy_buffer_new());
  EXPECT_EQ(appended_of(pb, host_url("http", "127.0.0.1")), "no");
  EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb.get()), 404);
}

TEST_F(VaskProxyBufferRelay, APeerWithTheWrongCertificateIsNotBelieved) {
  const TlsIdentity identity, another;
  char *err = nullptr;
  ASSERT_EQ(ruxo_http_server_tls(host_.server(), identity.certificate_file().c_str(),
                                 identity.key_file().c_str(), &err),
            0);
  HttpPeer peer(answer(200, "secret"));
  relay(peer.url());
  const std::string url = host_url("https", "localhost");
  const auto refused = [&](const std::string &where) {
    errors_.clear();
    const Buffer pb = fetch(where, -1);
    EXPECT_EQ(vask_proxy_buffer_get_curl_error_code(pb.get()), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(vask_proxy_buffer_get_httpcode(pb.get()), 500);
    EXPECT_THAT(errors_.lines(), ElementsAre(HasSubstr("curl error code 60 (")));
  };
  refused(url);
  topo_set_ca_chain(nullptr, another.certificate_file().c_str());
  refused(url);
  topo_set_ca_chain(nullptr, identity.certificate_file().c_str());
  refused(host_url("https", "127.0.0.1"));
  EXPECT_EQ(peer.requests().size(), 0U);
  EXPECT_EQ(body_of(fetch(url)), "secret");
}

}  // namespace
