#include "liborlith/topo/orlith_client.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test/support/curl_calls.h"
#include "test/support/faults.h"
#include "test/support/http_peer.h"
#include "test/support/locators.h"
#include "test/support/log_capture.h"
#include "test/support/temp_dir.h"
#include "test/topo/topo_test_support.h"

namespace {

using namespace topo_test;
using http_peer::answer;
using http_peer::End;
using http_peer::HttpPeer;
using http_peer::Reply;
using http_peer::Request;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

// A client, with what the last dereference leaves behind freed as well.
class Client {
 public:
  explicit Client(std::vector<std::string> hosts) {
    std::vector<char *> texts;
    for (std::string &host : hosts) texts.push_back(host.data());
    c = orlith_client_alloc(static_cast<int>(texts.size()), texts.data());
    if (c != nullptr) orlith_client_set_connecttimeout(c, 20000);
  }
  ~Client() {
    if (c == nullptr) return;
    orlith_client_free(c);
    topo_free(c->active_topo);
    free(c->active_topo_hash);
    pthread_rwlock_destroy(&c->lock);
    free(c);
  }
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  orlith_client_t *c = nullptr;
};

// `count` nodes of 4 copies at most, in fewer bytes than an answer may have.
std::string short_topology(unsigned count, unsigned copies) {
  return many_nodes(count, 20, copies);
}

std::string state_of(const std::string &current) {
  return "{\"current\":\"" + current + "\"}";
}

// A boot node that knows a topology.
http_peer::Handler boot_node(const std::string &xml) {
  const std::string hash = compile_ok(xml)->hex_signature;
  return [=](const Request &request) {
    if (request.line() == "GET /state") return answer(200, state_of(hash));
    if (request.line() == "GET /topology/xml/" + hash) return answer(200, xml);
    return answer(404, "not here");
  };
}

class OrlithClient : public testing::Test {
 protected:
  std::string hash_from(const Reply &reply) {
    HttpPeer peer(reply);
    const Client client({peer.url()});
    url_ = peer.url();
    return take(orlith_client_get_active_hash(client.c, peer.url().c_str()));
  }
  TopoHandle topo_from(const Reply &reply, const std::string &hash = std::string(64, 'a')) {
    HttpPeer peer(reply);
    url_ = peer.url();
    return TopoHandle(orlith_client_get_topo(peer.url().c_str(), hash.c_str()));
  }
  std::vector<std::string> take_all(const std::vector<char *> &hosts, int count) {
    std::vector<std::string> result;
    for (int i = 0; i < count; ++i) result.push_back(take(hosts[static_cast<size_t>(i)]));
    return result;
  }

  std::string url_;
  LogCapture errors_{&ruxo_error};
};

// ---- The client ----

TEST_F(OrlithClient, ABootHostWithoutASchemeIsTakenToMeanHttp) {
  const Client client({"10.0.0.1:8112", "https://a:1", "http://b:2", "HTTP://c:3", "httpx"});
  EXPECT_STREQ(client.c->boot[0], "http://10.0.0.1:8112");
  EXPECT_STREQ(client.c->boot[1], "https://a:1");
  EXPECT_STREQ(client.c->boot[2], "http://b:2");
  EXPECT_STREQ(client.c->boot[3], "http://HTTP://c:3");
  EXPECT_STREQ(client.c->boot[4], "http://httpx");
  EXPECT_EQ(client.c->boot[5], nullptr);
}

TEST_F(OrlithClient, StartsWithItsDefaults) {
  const Client client({"a"});
  EXPECT_EQ(client.c->ref_cnt, 1U);
  EXPECT_EQ(client.c->active_topo, nullptr);
  EXPECT_EQ(client.c->active_topo_hash, nullptr);
  EXPECT_EQ(orlith_client_set_timeout(client.c, 5), 30000);
  EXPECT_EQ(orlith_client_set_timeout(client.c, 6), 5);
  orlith_client_set_connecttimeout(client.c, 100);
  EXPECT_EQ(orlith_client_set_connecttimeout(client.c, 7), 100);
}

TEST_F(OrlithClient, ConnectsWithinATenthOfASecondUnlessToldOtherwise) {
  char host[] = "a";
  char *hosts[] = {host};
  orlith_client_t *const c = orlith_client_alloc(1, hosts);
  EXPECT_EQ(c->connecttimeout, 100);
  EXPECT_EQ(c->timeout, 30000);
  orlith_client_deref(c);
  pthread_rwlock_destroy(&c->lock);
  free(c);
}

TEST_F(OrlithClient, TheLastReferenceFreesTheBootUrlsOnly) {
  const Client client({"a"});
  orlith_client_ref(client.c);
  orlith_client_free(client.c);
  EXPECT_STREQ(client.c->boot[0], "http://a");
  orlith_client_ref(client.c);
  orlith_client_deref(client.c);
  orlith_client_deref(client.c);
  EXPECT_EQ(client.c->boot, nullptr);
  EXPECT_EQ(pthread_rwlock_tryrdlock(&client.c->lock), 0);
  pthread_rwlock_unlock(&client.c->lock);
  client.c->ref_cnt = 1;  // for the fixture
}

TEST_F(OrlithClient, WithoutMemoryThereIsNoClient) {
  char host[] = "a";
  char *hosts[] = {host, host};
  for (int n = 1; n <= 2; ++n) {
    const faults::Fail fail(faults::Call::calloc, ENOMEM, n, 1);
    EXPECT_EQ(orlith_client_alloc(2, hosts), nullptr) << n;
  }
}

// ---- The state of a node ----

TEST_F(OrlithClient, GetsTheSignatureThatANodeReports) {
  EXPECT_EQ(hash_from(answer(200, "{\"next\":\"-\",\"current\":\"abc\"}")), "abc");
  EXPECT_THAT(errors_.lines(), IsEmpty());
}

TEST_F(OrlithClient, ANodeWithoutATopologyReportsADash) {
  EXPECT_EQ(hash_from(answer(200, state_of("-"))), "(no message)");
  EXPECT_THAT(errors_.lines(), IsEmpty());
}

TEST_F(OrlithClient, AStateThatDoesNotParseIsLogged) {
  for (const char *body : {"", "{", "[]", "{}", "{\"current\":1}", "{\"current\":null}",
                           "{\"current\":\"a\\u0000b\"}", "{\"current\":\"a\"} x", "<state/>"}) {
    errors_.clear();
    EXPECT_EQ(hash_from(answer(200, body)), "(no message)") << body;
    EXPECT_THAT(errors_.lines(), ElementsAre("Error: Couldn't parse state data coming from " + url_ + "\n"))
        << body;
  }
}

TEST_F(OrlithClient, AStateOfAnotherStatusIsNone) {
  for (const int status : {204, 301, 404, 500}) {
    errors_.clear();
    EXPECT_EQ(hash_from(answer(status, status == 204 ? "" : state_of("abc"))), "(no message)") << status;
    EXPECT_THAT(errors_.lines(),
                ElementsAre("orlith_client_get_active_hash from " + url_ +
                            " failed - code 0 (No error), httpcode " + std::to_string(status) + "\n"));
  }
}

TEST_F(OrlithClient, ARedirectionIsNotFollowed) {
  HttpPeer other(answer(200, state_of("elsewhere")));
  EXPECT_EQ(hash_from(answer(302, "", "Location: " + other.url() + "/state\r\n")), "(no message)");
  EXPECT_THAT(other.requests(), IsEmpty());
}

TEST_F(OrlithClient, OnlyHttpAndHttpsAreSpoken) {
  const TempDir folder;
  folder.write("state", state_of("abc"));
  const Client client({"a"});
  EXPECT_EQ(orlith_client_get_active_hash(client.c, ("file://" + folder.path()).c_str()), nullptr);
  EXPECT_EQ(orlith_client_get_topo(("file://" + folder.path()).c_str(), "abc"), nullptr);
  ASSERT_EQ(errors_.lines().size(), 2U);
  EXPECT_THAT(errors_.lines()[0], HasSubstr("failed - code 1 ("));
}

TEST_F(OrlithClient, APeerThatResetsAtAnyByteHasNoState) {
  const std::string whole = answer(200, state_of("abc")).bytes;
  for (size_t len = 0; len < whole.size(); ++len) {
    errors_.clear();
    EXPECT_EQ(hash_from({whole.substr(0, len), End::reset}), "(no message)") << len;
    EXPECT_EQ(errors_.lines().size(), 1U) << len;
  }
}

TEST_F(OrlithClient, APeerThatStallsIsGivenUp) {
  const curl_calls::HurryTimeouts hurry(100);
  EXPECT_EQ(hash_from({"HTTP/1.1 200 OK\r\n", End::stall}), "(no message)");
  EXPECT_THAT(errors_.lines(),
              ElementsAre(StartsWith("orlith_client_get_active_hash from " + url_ + " failed - code 28 (")));
  EXPECT_EQ(topo_from({"", End::stall}), nullptr);
  EXPECT_EQ(curl_calls::timeouts_asked, (std::vector<long>{5000, 5000}));
}

TEST_F(OrlithClient, APeerThatLiesAboutItsLengthHasNoState) {
  EXPECT_EQ(hash_from({"HTTP/1.1 200 OK\r\nContent-Length: 1000\r\n\r\n" + state_of("abc"), End::close}),
            "(no message)");
  EXPECT_THAT(errors_.lines(), ElementsAre(HasSubstr("failed - code 18 (")));
}

TEST_F(OrlithClient, AnAnswerOf8191BytesFitsAndOneMoreDoesNot) {
  const std::string head = "{\"current\":\"abc\"}";
  EXPECT_EQ(hash_from(answer(200, head + std::string(8191 - head.size(), ' '))), "abc");
  EXPECT_EQ(hash_from(answer(200, head + std::string(8192 - head.size(), ' '))), "(no message)");
  EXPECT_THAT(errors_.lines(), ElementsAre(HasSubstr("failed - code 23 (")));
}

TEST_F(OrlithClient, OptionsThatLibcurlRefusesAreLogged) {
  HttpPeer peer(answer(200, state_of("abc")));
  const Client client({peer.url()});
  const std::string begin = "orlith_client_get_active_hash: ";
  const std::vector<std::pair<CURLoption, std::string>> fatal = {
      {CURLOPT_URL, begin + "unable to set CURLOPT_URL value of " + peer.url() + "/state\n"},
      {CURLOPT_WRITEDATA, begin + "unable to set CURLOPT_WRITEDATA closure\n"},
      {CURLOPT_WRITEFUNCTION, begin + "unable to set CURLOPT_WRITEFUNCTION callback\n"}};
  const std::vector<std::pair<CURLoption, std::string>> warnings = {
      {CURLOPT_NOSIGNAL, begin + "WARNING: unable to set CURLOPT_NOSIGNAL value of 1\n"},
      {CURLOPT_CONNECTTIMEOUT_MS,
       begin + "WARNING: unable to set CURLOPT_CONNECTTIMEOUT_MS value of 20000\n"},
      {CURLOPT_TIMEOUT_MS, begin + "WARNING: unable to set CURLOPT_TIMEOUT_MS value of 5000\n"}};
  for (const auto &[option, line] : fatal) {
    errors_.clear();
    const curl_calls::Refuse refuse(option);
    EXPECT_EQ(take(orlith_client_get_active_hash(client.c, peer.url().c_str())), "(no message)");
    EXPECT_THAT(errors_.lines(), ElementsAre(line));
  }
  for (const auto &[option, line] : warnings) {
    errors_.clear();
    const curl_calls::Refuse refuse(option);
    EXPECT_EQ(take(orlith_client_get_active_hash(client.c, peer.url().c_str())), "abc");
    EXPECT_THAT(errors_.lines(), ElementsAre(line));
  }
}

// ---- The topology ----

TEST_F(OrlithClient, GetsATopologyByItsSignature) {
  const std::string xml = short_topology(3, 2);
  const std::string hash = compile_ok(xml)->hex_signature;
  HttpPeer peer(boot_node(xml));
  const TopoHandle tc(orlith_client_get_topo(peer.url().c_str(), hash.c_str()));
  ASSERT_NE(tc, nullptr);
  EXPECT_EQ(tc->hex_signature, hash);
  EXPECT_EQ(topo_retrieve(tc->signature), nullptr) << "it is the caller's alone";
  EXPECT_EQ(orlith_client_get_topo(nullptr, hash.c_str()), nullptr);
  EXPECT_EQ(orlith_client_get_topo(peer.url().c_str(), nullptr), nullptr);
}

TEST_F(OrlithClient, ATransferThatFailsIsLoggedWithItsCode) {
  const http_peer::ClosedPort nobody;
  EXPECT_EQ(orlith_client_get_topo(nobody.url().c_str(), "abc"), nullptr);
  EXPECT_THAT(errors_.lines(), ElementsAre("orlith_client_get_topo from " + nobody.url() +
                                           " failed - code 7 (Couldn't connect to server), httpcode 0\n"));
}

TEST_F(OrlithClient, XmlThatDoesNotParseIsLogged) {
  ruxo_log_stream_t debug = nullptr;
  const LogCapture debugged(&debug, "test/topo_debug");
  topo_set_debug(debug);
  EXPECT_EQ(topo_from(answer(200, "<nodes")), nullptr);
  topo_set_debug(nullptr);
  EXPECT_THAT(errors_.lines(), ElementsAre("error parsing xml memory in orlith_client_get_topo - len 6\n"));
  EXPECT_THAT(debugged.lines(), ElementsAre("error parsing xml memory - buffer was -<nodes-\n"));
}

TEST_F(OrlithClient, ATopologyThatDoesNotCompileIsLoggedWithTheCompilersMessage) {
  const std::string xml = short_topology(2, 1);
  const Compiled wrong = compile(xml, std::string(64, 'a').c_str());
  EXPECT_EQ(topo_from(answer(200, xml)), nullptr);
  EXPECT_THAT(errors_.lines(), ElementsAre("topology compiler error: " + wrong.error + "\n"));
}

TEST_F(OrlithClient, ASignatureThatWouldChangeTheUrlIsRefused) {
  HttpPeer peer(answer(200, short_topology(2, 1)));
  for (const char *hash : {"", "-", "../state", "a b", "a?b", "a\r\nX: y", "a/b", "%2e"}) {
    errors_.clear();
    EXPECT_EQ(orlith_client_get_topo(peer.url().c_str(), hash), nullptr) << hash;
    EXPECT_EQ(errors_.lines().size(), 1U) << hash;
  }
  EXPECT_THAT(peer.requests(), IsEmpty());
}

TEST_F(OrlithClient, ATopologyOf8192BytesCannotBeFetched) {
  const std::string xml = short_topology(3, 2);
  const std::string hash = compile_ok(xml)->hex_signature;
  const auto padded = [&](size_t size) { return answer(200, xml + std::string(size - xml.size(), '\n')); };
  EXPECT_NE(topo_from(padded(8191), hash), nullptr);
  EXPECT_EQ(topo_from(padded(8192), hash), nullptr);
  EXPECT_EQ(topo_from(padded(9000), hash), nullptr);
  ASSERT_EQ(errors_.lines().size(), 2U);
  EXPECT_THAT(errors_.lines()[0], HasSubstr("failed - code 23 ("));
}

TEST_F(OrlithClient, BootNodesAreAskedInOrderUntilOneHasATopology) {
  HttpPeer none(answer(200, state_of("-")));
  HttpPeer wrong([](const Request &request) {
    return request.line() == "GET /state" ? answer(200, state_of("abc")) : answer(200, "<nodes/>");
  });
  HttpPeer good(boot_node(short_topology(3, 2))), never(boot_node(short_topology(4, 2)));
  const http_peer::ClosedPort nobody;
  const Client client({nobody.url(), none.url(), wrong.url(), good.url(), never.url()});
  EXPECT_EQ(orlith_client_node_count(client.c), 3);
  EXPECT_EQ(none.requests().size(), 1U);
  EXPECT_EQ(wrong.requests().size(), 2U);
  EXPECT_EQ(good.requests().size(), 2U);
  EXPECT_THAT(never.requests(), IsEmpty());
  EXPECT_STREQ(client.c->active_topo_hash, client.c->active_topo->hex_signature);
}

TEST_F(OrlithClient, TheHashIsForgottenWhenTheLastBootNodeHasNone) {
  HttpPeer wrong([](const Request &request) {
    return request.line() == "GET /state" ? answer(200, state_of("abc")) : answer(200, "<nodes/>");
  });
  HttpPeer none(answer(200, state_of("-")));
  const Client client({wrong.url(), none.url()});
  orlith_client_retopo(client.c);
  EXPECT_EQ(client.c->active_topo_hash, nullptr);
  EXPECT_EQ(client.c->active_topo, nullptr);
}

TEST_F(OrlithClient, ATopologyIsFetchedOnceAndAgainWhenForced) {
  HttpPeer boot(boot_node(short_topology(3, 2)));
  const Client client({boot.url()});
  topo_config *const first = orlith_client_get_active_topo(client.c);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(orlith_client_get_active_topo(client.c), first);
  orlith_client_retopo(client.c);
  EXPECT_EQ(boot.requests().size(), 2U);
  EXPECT_EQ(orlith_client_force_retopo(client.c), 0);
  EXPECT_EQ(client.c->active_topo, nullptr);
  EXPECT_EQ(topo_size(first), 3) << "it is forgotten, not freed";
  EXPECT_NE(orlith_client_get_active_topo(client.c), nullptr);
  EXPECT_EQ(boot.requests().size(), 4U);
  topo_free(first);
}

TEST_F(OrlithClient, ThreadsThatAskAtOnceFetchOnce) {
  HttpPeer boot(boot_node(short_topology(3, 2)));
  const Client client({boot.url()});
  std::vector<std::thread> threads;
  for (int t = 0; t < 6; ++t) {
    threads.emplace_back([&, t] {
      for (int n = 0; n < 50; ++n) {
        EXPECT_EQ(orlith_client_node_count(client.c), 3);
        EXPECT_NE(orlith_client_get_active_topo(client.c), nullptr);
        if (t % 2 == 0) {
          orlith_client_ref(client.c);
          orlith_client_deref(client.c);
        }
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(boot.requests().size(), 2U);
  EXPECT_EQ(client.c->ref_cnt, 1U);
}

// ---- Nodes ----

TEST_F(OrlithClient, NodeUrlsNameTheNodeAndItsApiPort) {
  const auto urls_with = [&](const std::string &attributes) {
    HttpPeer boot(boot_node(nodes(attributes, node(kId2) + node(kId1))));
    const Client client({boot.url()});
    std::vector<char *> hosts(2);
    return take_all(hosts, orlith_client_get_all_nodes(client.c, hosts.data()));
  };
  EXPECT_THAT(urls_with("write_copies=\"1\""),
              ElementsAre("http://" + kId2 + ":8113", "http://" + kId1 + ":8113"));
  EXPECT_THAT(urls_with("write_copies=\"1\" use_tls=\"true\""),
              ElementsAre("https://" + kId2 + ":8113", "https://" + kId1 + ":8113"));
}

TEST_F(OrlithClient, WithoutATopologyThereAreNoNodes) {
  HttpPeer none(answer(200, state_of("-")));
  const Client client({none.url()});
  const LocatorPtr metric = make_locator("cpu");
  std::vector<char *> hosts(20);
  EXPECT_EQ(orlith_client_get_active_topo(client.c), nullptr);
  EXPECT_EQ(orlith_client_node_count(client.c), -1);
  EXPECT_EQ(orlith_client_get_all_nodes(client.c, hosts.data()), -1);
  EXPECT_EQ(orlith_client_find(client.c, hosts.data(), 2, metric.get()), -1);
  EXPECT_EQ(orlith_client_find_with_random_fill(client.c, hosts.data(), 2, metric.get()), -2);
}

TEST_F(OrlithClient, FindsTheOwnersThatTheNodesFind) {
  const std::string xml = short_topology(12, 10);
  HttpPeer boot(boot_node(xml));
  const Client client({boot.url()});
  const TopoHandle tc = compile_ok(xml);
  for (const char *name : {"cpu", "mem", "disk|ST[a:1]"}) {
    const LocatorPtr metric = make_locator(name);
    host_config *owners[TOPO_MAX_COPIES];
    ASSERT_EQ(topo_find_insertion_point_config_locator(tc.get(), metric.get(), owners, 10), 10);
    for (const int cnt : {1, 3, 10, 20}) {
      std::vector<char *> hosts(20);
      const int count = orlith_client_find(client.c, hosts.data(), cnt, metric.get());
      EXPECT_EQ(count, std::min(cnt, 10)) << "ten owners at most";
      const std::vector<std::string> urls = take_all(hosts, count);
      for (size_t i = 0; i < urls.size(); ++i)
        EXPECT_EQ(urls[i], "http://" + std::string(owners[i]->id_str) + ":8113");
    }
  }
  char *none = nullptr;
  EXPECT_EQ(orlith_client_find(client.c, &none, 0, make_locator("cpu").get()), 0);
  EXPECT_EQ(orlith_client_find(client.c, &none, -1, make_locator("cpu").get()), 0);
}

TEST_F(OrlithClient, OtherNodesFillTheListUp) {
  HttpPeer boot(boot_node(short_topology(12, 2)));
  const Client client({boot.url()});
  const LocatorPtr metric = make_locator("cpu");
  std::vector<char *> hosts(20);
  const std::vector<std::string> owners =
      take_all(hosts, orlith_client_find(client.c, hosts.data(), 2, metric.get()));
  ASSERT_EQ(owners.size(), 2U);
  std::set<std::string> third;
  for (int n = 0; n < 60; ++n) {
    for (const int cnt : {1, 2, 3, 7, 12, 20}) {
      const int count = orlith_client_find_with_random_fill(client.c, hosts.data(), cnt, metric.get());
      EXPECT_EQ(count, std::min(cnt, 12));
      const std::vector<std::string> urls = take_all(hosts, count);
      EXPECT_EQ(std::set<std::string>(urls.begin(), urls.end()).size(), urls.size()) << "no node comes twice";
      for (size_t i = 0; i < std::min<size_t>(urls.size(), 2); ++i) EXPECT_EQ(urls[i], owners[i]);
      if (cnt == 3) third.insert(urls[2]);
    }
  }
  EXPECT_GT(third.size(), 1U) << "the fill begins anywhere";
}

TEST_F(OrlithClient, WithTwentyAskedForAllTwelveNodesCome) {
  HttpPeer boot(boot_node(short_topology(12, 10)));
  const Client client({boot.url()});
  std::vector<char *> hosts(20);
  const int count =
      orlith_client_find_with_random_fill(client.c, hosts.data(), 20, make_locator("cpu").get());
  EXPECT_EQ(count, 12);
  take_all(hosts, count);
}

}  // namespace
