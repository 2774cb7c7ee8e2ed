// Requests to peers: how a handle is set up, and what tracing learns.
#include <curl/curl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "ruxo/json.h"
#include "ruxo/zipkin.h"
#include "test/support/curl_calls.h"
#include "test/support/faults.h"
#include "test/support/http_peer.h"
#include "test/support/log_capture.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;
using http_peer::answer;
using http_peer::HttpPeer;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

struct CurlCleanup {
  void operator()(CURL *curl) const { curl_easy_cleanup(curl); }
};
using Curl = std::unique_ptr<CURL, CurlCleanup>;

size_t drop_body(char *, size_t size, size_t nmemb, void *) {
  return size * nmemb;
}

TopoHandle topology_of(int apiport, const std::string &attributes = "write_copies=\"1\"") {
  return compile_ok(nodes(attributes, "<node id=\"" + kId1 +
                                          "\" weight=\"4\" address=\"127.0.0.1\" port=\"1\" apiport=\"" +
                                          std::to_string(apiport) + "\"/>"));
}

class TopoTransport : public testing::Test {
 protected:
  ~TopoTransport() override { topo_set_ca_chain(nullptr, nullptr); }

  // A request for `url` that is ready to be performed.
  Curl request(const std::string &url) {
    Curl curl(curl_easy_init());
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, drop_body);
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_TIMEOUT_MS, 20000L);
    curl_calls::options.clear();
    return curl;
  }
  LogCapture errors_{&ruxo_error};
};

// The tags of the one span that the collector gets while `work` runs.
template <class Work>
std::string tags_reported(Work work) {
  HttpPeer collector(answer(202, ""));
  EXPECT_TRUE(ruxo_zipkin_report_to(collector.url().c_str(), "test", 1.0));
  ruxo_zipkin_client_start("curl: request");
  work();
  EXPECT_EQ(ruxo_zipkin_client_span(), nullptr) << "the span must have been published";
  EXPECT_TRUE(ruxo_zipkin_flush(60000));
  ruxo_zipkin_report_to(nullptr, nullptr, 0);
  const auto batches = collector.requests();
  if (batches.size() != 1) return "no span";
  ruxo_json_object *const all = ruxo_json_parse_n(batches[0].body.data(), batches[0].body.size());
  EXPECT_EQ(ruxo_json_array_length(all), 1U);
  const std::string tags = ruxo_json_text(ruxo_json_object_get(ruxo_json_array_get(all, 0), "tags", nullptr));
  ruxo_json_free(all);
  return tags;
}

TEST_F(TopoTransport, TheUrlPrefixNamesTheNode) {
  const TopoHandle tc = topology_of(8113);
  EXPECT_EQ(topo_host_config_url_prefix(&tc->hc[0]), "http://" + kId1 + ":8113");
}

TEST_F(TopoTransport, TheConnectToListIsTheTopologys) {
  const TopoHandle tc = topology_of(8113);
  EXPECT_EQ(topo_curl_connect_to(nullptr), nullptr);
  ASSERT_NE(topo_curl_connect_to(tc.get()), nullptr);
  EXPECT_EQ(topo_curl_connect_to(tc.get())->data, kId1 + ":8113:127.0.0.1:8113");
}

TEST_F(TopoTransport, TlsIsTheTopologys) {
  EXPECT_FALSE(topo_curl_tls_enabled(nullptr));
  EXPECT_FALSE(topo_curl_tls_enabled(topology_of(1).get()));
  EXPECT_TRUE(topo_curl_tls_enabled(topology_of(1, "write_copies=\"1\" use_tls=\"true\"").get()));
}

TEST_F(TopoTransport, WithoutATopologyAndAGlobalChainNothingIsSet) {
  const Curl curl = request("http://127.0.0.1/");
  topo_curl_setup(curl.get(), nullptr);
  EXPECT_THAT(curl_calls::options, IsEmpty());
}

TEST_F(TopoTransport, AChainIsSetAlsoWithoutTls) {
  const TopoHandle tc = topology_of(8113, "write_copies=\"1\" use_tls=\"false\"");
  topo_set_ca_chain(tc.get(), "/own/chain.pem");
  const Curl curl = request("http://127.0.0.1/");
  for (int n = 0; n < 2; ++n) {
    curl_calls::options.clear();
    topo_curl_setup(curl.get(), tc.get());
    EXPECT_THAT(curl_calls::options,
                ElementsAre(Pair(CURLOPT_CAINFO, "/own/chain.pem"), Pair(CURLOPT_CONNECT_TO, "")));
  }
}

TEST_F(TopoTransport, TheGlobalChainServesWhereThereIsNoOther) {
  const TopoHandle tc = topology_of(8113);
  topo_set_ca_chain(nullptr, "/first.pem");
  topo_set_ca_chain(nullptr, "/global.pem");
  const Curl curl = request("http://127.0.0.1/");
  topo_curl_setup(curl.get(), nullptr);
  EXPECT_THAT(curl_calls::options, ElementsAre(Pair(CURLOPT_CAINFO, "/global.pem")));
  curl_calls::options.clear();
  topo_curl_setup(curl.get(), tc.get());
  EXPECT_THAT(curl_calls::options,
              ElementsAre(Pair(CURLOPT_CAINFO, "/global.pem"), Pair(CURLOPT_CONNECT_TO, "")));
  topo_set_ca_chain(tc.get(), "/own.pem");
  curl_calls::options.clear();
  topo_curl_setup(curl.get(), tc.get());
  EXPECT_THAT(curl_calls::options,
              ElementsAre(Pair(CURLOPT_CAINFO, "/own.pem"), Pair(CURLOPT_CONNECT_TO, "")));
  topo_set_ca_chain(tc.get(), nullptr);
  topo_set_ca_chain(nullptr, nullptr);
  curl_calls::options.clear();
  topo_curl_setup(curl.get(), tc.get());
  EXPECT_THAT(curl_calls::options, ElementsAre(Pair(CURLOPT_CONNECT_TO, "")));
}

TEST_F(TopoTransport, WithoutMemoryTheChainStays) {
  const TopoHandle tc = topology_of(8113);
  topo_set_ca_chain(tc.get(), "/old.pem");
  {
    const faults::Fail no_memory(faults::Call::strdup, ENOMEM);
    topo_set_ca_chain(tc.get(), "/new.pem");
  }
  EXPECT_STREQ(tc->ca_chain, "/old.pem");
  EXPECT_THAT(errors_.lines(), ElementsAre("topo_set_ca_chain: no memory, /new.pem is not used\n"));
}

TEST_F(TopoTransport, AChainThatLibcurlRefusesIsLoggedAndTheListIsStillSet) {
  const TopoHandle tc = topology_of(8113);
  topo_set_ca_chain(tc.get(), "/own.pem");
  const Curl curl = request("http://127.0.0.1/");
  const curl_calls::Refuse refuse(CURLOPT_CAINFO);
  topo_curl_setup(curl.get(), tc.get());
  EXPECT_THAT(errors_.lines(),
              ElementsAre("topo_curl_set_tls: could not set CURLOPT_CAINFO via curl_easy_setopt\n"));
  EXPECT_THAT(curl_calls::options,
              ElementsAre(Pair(CURLOPT_CAINFO, "/own.pem"), Pair(CURLOPT_CONNECT_TO, "")));
}

TEST_F(TopoTransport, AListThatLibcurlRefusesIsLogged) {
  const TopoHandle tc = topology_of(8113);
  const Curl curl = request("http://127.0.0.1/");
  const curl_calls::Refuse refuse(CURLOPT_CONNECT_TO);
  topo_curl_setup(curl.get(), tc.get());
  EXPECT_THAT(errors_.lines(),
              ElementsAre("topo_curl_setup: Unable to set CURLOPT_CONNECT_TO value via curl_easy_setopt\n"));
}

TEST_F(TopoTransport, ANodeIsReachedByItsId) {
  HttpPeer peer(answer(200, "here"));
  const TopoHandle tc = topology_of(peer.port());
  const Curl curl = request(topo_host_config_url_prefix(&tc->hc[0]) + std::string("/state"));
  EXPECT_EQ(topo_curl_perform(curl.get(), tc.get()), CURLE_OK);
  ASSERT_EQ(peer.requests().size(), 1U);
  EXPECT_EQ(peer.requests()[0].line(), "GET /state");
  EXPECT_EQ(peer.requests()[0].header("Host"), kId1 + ":" + std::to_string(peer.port()));
}

TEST_F(TopoTransport, WithoutASpanTheResultOfTheTransferIsAllThereIs) {
  const http_peer::ClosedPort nobody;
  EXPECT_EQ(topo_curl_perform(request(nobody.url()).get(), nullptr), CURLE_COULDNT_CONNECT);
  HttpPeer peer(answer(503, "no"));
  EXPECT_EQ(topo_curl_perform(request(peer.url()).get(), nullptr), CURLE_OK) << "a status is not a result";
  EXPECT_EQ(ruxo_zipkin_client_span(), nullptr);
}

TEST_F(TopoTransport, TheSpanSaysWhoAnsweredWhat) {
  HttpPeer peer(answer(404, "none"));
  const std::string url = peer.url() + "/x";
  const Curl curl = request(url);
  const std::string tags =
      tags_reported([&] { EXPECT_EQ(topo_curl_perform(curl.get(), nullptr), CURLE_OK); });
  EXPECT_EQ(tags, "{\"http.status_code\":\"404\",\"peer.port\":\"" + std::to_string(peer.port()) +
                      "\",\"peer.ipv4\":\"127.0.0.1\",\"http.uri\":\"" + url + "\"}");
}

TEST_F(TopoTransport, APeerReachedOverIpv6IsAnnotatedSo) {
  if (!HttpPeer::has_ipv6()) GTEST_SKIP() << "no IPv6 loopback here";
  HttpPeer peer(answer(200, "here"), AF_INET6);
  const Curl curl = request(peer.url() + "/");
  const std::string tags =
      tags_reported([&] { EXPECT_EQ(topo_curl_perform(curl.get(), nullptr), CURLE_OK); });
  EXPECT_THAT(tags, testing::HasSubstr("\"peer.ipv6\":\"::1\""));
  EXPECT_THAT(tags, testing::Not(testing::HasSubstr("peer.ipv4")));
}

TEST_F(TopoTransport, ASpanOfAFailedRequestIsPublishedWithTheResultUnchanged) {
  const http_peer::ClosedPort nobody;
  const Curl curl = request(nobody.url());
  const std::string tags =
      tags_reported([&] { EXPECT_EQ(topo_curl_perform(curl.get(), nullptr), CURLE_COULDNT_CONNECT); });
  EXPECT_THAT(tags, testing::StartsWith("{\"http.status_code\":\"0\""));
  EXPECT_THAT(tags, testing::HasSubstr("\"http.uri\":\"" + nobody.url() + "/\""));
}

TEST_F(TopoTransport, WhatLibcurlCannotTellIsLeftOut) {
  HttpPeer peer(answer(200, "here"));
  const Curl curl = request(peer.url());
  const curl_calls::RefuseInfo refuse({CURLINFO_RESPONSE_CODE, CURLINFO_PRIMARY_PORT, CURLINFO_PRIMARY_IP});
  const std::string tags = tags_reported([&] { topo_curl_perform(curl.get(), nullptr); });
  EXPECT_EQ(tags, "{\"http.uri\":\"" + peer.url() + "/\"}");
}

}  // namespace
