// Spans as a collector receives them, and as peers hand them on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/json.h"
#include "ruxo/log.h"
#include "ruxo/util.h"
#include "ruxo/zipkin.h"
#include "test/support/child_process.h"
#include "test/support/http_peer.h"
#include "test/support/log_capture.h"

namespace {

using http_peer::answer;
using http_peer::HttpPeer;
using testing::ElementsAre;
using testing::StartsWith;

constexpr uint64_t kFlushMs = 60000;

struct JsonFree {
  void operator()(ruxo_json_object *o) const { ruxo_json_free(o); }
};
using Json = std::unique_ptr<ruxo_json_object, JsonFree>;

std::string text_of(const ruxo_json_object *o, const char *key) {
  const char *const text = ruxo_json_string(ruxo_json_object_get(o, key, nullptr), nullptr);
  return text == nullptr ? "(none)" : text;
}

struct Counts {
  uint64_t sent = 0, dropped = 0;
  Counts() { ruxo_zipkin_reporter_counts(&sent, &dropped); }
};

// A collector that takes everything, and what it got.
class Collector {
 public:
  explicit Collector(int status = 202) : peer_(answer(status, "")) {}
  std::string url() const { return peer_.url() + "/api/v2/spans"; }
  bool trace_everything() const { return ruxo_zipkin_report_to(url().c_str(), "node", 1.0); }
  std::vector<http_peer::Request> requests() const { return peer_.requests(); }

  // All spans of all batches.
  std::vector<const ruxo_json_object *> spans() {
    EXPECT_TRUE(ruxo_zipkin_flush(kFlushMs));
    std::vector<const ruxo_json_object *> result;
    for (const auto &request : peer_.requests()) {
      batches_.emplace_back(ruxo_json_parse_n(request.body.data(), request.body.size()));
      EXPECT_NE(batches_.back(), nullptr) << request.body;
      for (size_t i = 0; i < ruxo_json_array_length(batches_.back().get()); ++i)
        result.push_back(ruxo_json_array_get(batches_.back().get(), i));
    }
    return result;
  }

 private:
  HttpPeer peer_;
  std::vector<Json> batches_;
};

class ZipkinReport : public testing::Test {
 protected:
  ~ZipkinReport() override {
    ruxo_zipkin_client_publish();
    ruxo_zipkin_flush(kFlushMs);
    ruxo_zipkin_report_to(nullptr, nullptr, 0);
  }
  std::string trace() { return header(ruxo_zipkin_client_trace_header); }
  std::string parent() { return header(ruxo_zipkin_client_parent_header); }
  std::string span() { return header(ruxo_zipkin_client_span_header); }
  std::string sampled() { return header(ruxo_zipkin_client_sampled_header); }

 private:
  static std::string header(const char *(*render)(char *, size_t)) {
    char buff[128];
    const char *const text = render(buff, sizeof buff);
    EXPECT_TRUE(text == nullptr || text == buff);
    return text == nullptr ? "(none)" : text;
  }
};

}  // namespace

TEST_F(ZipkinReport, IsOffAtFirst) {
  EXPECT_EQ(ruxo_zipkin_client_start("request"), nullptr);
  EXPECT_EQ(ruxo_zipkin_client_span(), nullptr);
  EXPECT_EQ(ruxo_zipkin_server_start("GET", "00f067aa0ba902b7", nullptr, "00f067aa0ba902b7", "1"), nullptr);
  EXPECT_EQ(trace() + parent() + span() + sampled(), "(none)(none)(none)(none)");
  ruxo_zipkin_client_publish();
  ruxo_zipkin_span_publish(nullptr);
  ruxo_zipkin_span_annotate(nullptr, ZIPKIN_CLIENT_SEND);
  ruxo_zipkin_span_bannotate_i32(nullptr, "key", 1);
  ruxo_zipkin_span_bannotate_str(nullptr, "key", "value");
  EXPECT_TRUE(ruxo_zipkin_flush(0));
}

TEST_F(ZipkinReport, RefusesCollectorsThatAreNotOnTheWebAndRatesOutOfRange) {
  for (const char *url : {"", "file:///tmp/x", "host:9411", "HTTP:/x"})
    EXPECT_FALSE(ruxo_zipkin_report_to(url, "node", 1.0)) << url;
  for (const double rate : {-0.1, 1.1, std::numeric_limits<double>::quiet_NaN()})
    EXPECT_FALSE(ruxo_zipkin_report_to("http://127.0.0.1/", "node", rate)) << rate;
  EXPECT_EQ(ruxo_zipkin_client_start("request"), nullptr) << "a refusal must not switch tracing on";
}

TEST_F(ZipkinReport, AClientSpanOfItsOwnTraceHasNoParent) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  ruxo_zipkin_span *const started = ruxo_zipkin_client_start("request");
  ASSERT_NE(started, nullptr);
  EXPECT_EQ(ruxo_zipkin_client_span(), started);
  EXPECT_THAT(trace(), testing::MatchesRegex("X-B3-TraceId: [0-9a-f]{16}"));
  EXPECT_THAT(span(), testing::MatchesRegex("X-B3-SpanId: [0-9a-f]{16}"));
  EXPECT_EQ(parent(), "(none)");
  EXPECT_EQ(sampled(), "X-B3-Sampled: 1");
  std::thread([] { EXPECT_EQ(ruxo_zipkin_client_span(), nullptr); }).join();
}

TEST_F(ZipkinReport, HeadersNeedTheirRoom) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  ruxo_zipkin_client_start("request");
  char buff[49];
  EXPECT_EQ(ruxo_zipkin_client_trace_header(buff, 30), nullptr);
  EXPECT_EQ(ruxo_zipkin_client_trace_header(buff, 31), buff);
  EXPECT_EQ(strlen(buff), 30U);
  EXPECT_EQ(ruxo_zipkin_client_trace_header(buff, 0), nullptr);
  EXPECT_EQ(ruxo_zipkin_client_sampled_header(buff, 15), nullptr);
  EXPECT_EQ(ruxo_zipkin_client_sampled_header(buff, 16), buff);
}

TEST_F(ZipkinReport, ATraceGoesThroughThisProcess) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  ruxo_zipkin_span *const server = ruxo_zipkin_server_start("GET /x", "463AC35C9F6413AD48485A3953BB6124",
                                                            "00f067aa0ba902b7", "000000000000000a", "1");
  ASSERT_NE(server, nullptr);
  EXPECT_EQ(ruxo_zipkin_span_trace_id(server), 0x48485a3953bb6124U);
  ruxo_zipkin_set_active_span(server);
  ruxo_zipkin_client_start("request");
  EXPECT_EQ(trace(), "X-B3-TraceId: 463ac35c9f6413ad48485a3953bb6124");
  EXPECT_EQ(parent(), "X-B3-ParentSpanId: 000000000000000a");
  EXPECT_EQ(sampled(), "X-B3-Sampled: 1");
  const std::string client_id = span().substr(strlen("X-B3-SpanId: "));
  ruxo_zipkin_client_publish();
  EXPECT_EQ(ruxo_zipkin_client_span(), nullptr);
  ruxo_zipkin_span_publish(server);
  EXPECT_EQ(ruxo_zipkin_active_span(), nullptr);

  const auto spans = collector.spans();
  ASSERT_EQ(spans.size(), 2U);
  EXPECT_EQ(text_of(spans[0], "traceId"), "463ac35c9f6413ad48485a3953bb6124");
  EXPECT_EQ(text_of(spans[0], "parentId"), "000000000000000a");
  EXPECT_EQ(text_of(spans[0], "id"), client_id);
  EXPECT_EQ(text_of(spans[0], "name"), "request");
  EXPECT_EQ(text_of(spans[0], "kind"), "CLIENT");
  EXPECT_EQ(text_of(spans[0], "shared"), "(none)");
  EXPECT_EQ(text_of(spans[1], "traceId"), "463ac35c9f6413ad48485a3953bb6124");
  EXPECT_EQ(text_of(spans[1], "parentId"), "00f067aa0ba902b7");
  EXPECT_EQ(text_of(spans[1], "id"), "000000000000000a");
  EXPECT_EQ(text_of(spans[1], "name"), "GET /x");
  EXPECT_EQ(text_of(spans[1], "kind"), "SERVER");
  EXPECT_TRUE(ruxo_json_boolean(ruxo_json_object_get(spans[1], "shared", nullptr)));
  EXPECT_EQ(text_of(ruxo_json_object_get(spans[1], "localEndpoint", nullptr), "serviceName"), "node");
}

TEST_F(ZipkinReport, WrongNumbersBeginATraceOfTheirOwn) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  const char *const good = "00000000000000ff";
  const char *const cases[][3] = {{nullptr, nullptr, nullptr},
                                  {good, nullptr, nullptr},
                                  {nullptr, nullptr, good},
                                  {"00000000000000fg", nullptr, good},
                                  {"ff", nullptr, good},
                                  {"0000000000000000", nullptr, good},
                                  {good, nullptr, "0000000000000000"},
                                  {good, "nonsense", good},
                                  {"x0000000000000ff00000000000000ff", nullptr, good},
                                  {"00000000000000ff0000000000000000", nullptr, good},
                                  {"00000000000000ff0", nullptr, good}};
  for (const auto &[trace_id, parent_id, span_id] : cases) {
    ruxo_zipkin_span *const server = ruxo_zipkin_server_start("GET", trace_id, parent_id, span_id, "1");
    ASSERT_NE(server, nullptr);
    EXPECT_NE(ruxo_zipkin_span_trace_id(server), 0xffU);
    ruxo_zipkin_span_publish(server);
  }
  const auto spans = collector.spans();
  EXPECT_EQ(spans.size(), std::size(cases));
  for (const auto *one : spans) {
    EXPECT_EQ(text_of(one, "parentId"), "(none)");
    EXPECT_FALSE(ruxo_json_boolean(ruxo_json_object_get(one, "shared", nullptr)));
  }
}

TEST_F(ZipkinReport, APeersDecisionIsKept) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  for (const char *no : {"0", "false"}) {
    ruxo_zipkin_span *const server = ruxo_zipkin_server_start("GET", nullptr, nullptr, nullptr, no);
    ruxo_zipkin_set_active_span(server);
    ruxo_zipkin_client_start("request");
    EXPECT_EQ(sampled(), "X-B3-Sampled: 0");
    EXPECT_THAT(trace(), StartsWith("X-B3-TraceId: "));
    ruxo_zipkin_client_publish();
    ruxo_zipkin_span_publish(server);
  }
  ASSERT_TRUE(ruxo_zipkin_report_to(collector.url().c_str(), "node", 0.0));
  ruxo_zipkin_span_publish(ruxo_zipkin_server_start("nobody asked", nullptr, nullptr, nullptr, nullptr));
  for (const char *yes : {"1", "true", "d"})
    ruxo_zipkin_span_publish(ruxo_zipkin_server_start("asked", nullptr, nullptr, nullptr, yes));
  const auto spans = collector.spans();
  EXPECT_EQ(spans.size(), 3U);
  for (const auto *one : spans) EXPECT_EQ(text_of(one, "name"), "asked");
}

TEST_F(ZipkinReport, AboutTheRatesPartOfTracesIsSampled) {
  Collector collector;
  ASSERT_TRUE(ruxo_zipkin_report_to(collector.url().c_str(), "node", 0.25));
  int taken = 0;
  for (int n = 0; n < 4000; ++n) {
    ruxo_zipkin_client_start("request");
    taken += sampled() == "X-B3-Sampled: 1";
  }
  // Ten standard deviations to either side.
  EXPECT_NEAR(taken, 1000, 280);
}

TEST_F(ZipkinReport, TheCollectorSeesEventsAndFacts) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  const uint64_t before_ms = ruxo_now_ms();
  ruxo_zipkin_span *const client = ruxo_zipkin_client_start("with \"quotes\" and \xff");
  ruxo_zipkin_span_annotate(client, ZIPKIN_CLIENT_SEND);
  ruxo_zipkin_span_annotate(client, "half way");
  ruxo_zipkin_span_bannotate_i32(client, "http.status_code", -7);
  ruxo_zipkin_span_bannotate_str(client, "twice", "first");
  ruxo_zipkin_span_bannotate_str(client, "twice", "second");
  ruxo_zipkin_span_annotate(client, ZIPKIN_CLIENT_RECV);
  EXPECT_EQ(ruxo_zipkin_span_annotation_count(client), 1U);
  ruxo_zipkin_client_publish();

  const auto spans = collector.spans();
  ASSERT_EQ(spans.size(), 1U);
  EXPECT_EQ(text_of(spans[0], "name"), "with \"quotes\" and \xef\xbf\xbd");
  const uint64_t begin_us = ruxo_json_uint(ruxo_json_object_get(spans[0], "timestamp", nullptr));
  EXPECT_GE(begin_us / 1000 + 1, before_ms);
  EXPECT_LE(begin_us / 1000, ruxo_now_ms() + 1);
  EXPECT_GE(ruxo_json_uint(ruxo_json_object_get(spans[0], "duration", nullptr)), 1U);
  const ruxo_json_object *const events = ruxo_json_object_get(spans[0], "annotations", nullptr);
  ASSERT_EQ(ruxo_json_array_length(events), 1U);
  EXPECT_EQ(text_of(ruxo_json_array_get(events, 0), "value"), "half way");
  EXPECT_GE(ruxo_json_uint(ruxo_json_object_get(ruxo_json_array_get(events, 0), "timestamp", nullptr)),
            begin_us);
  ruxo_json_object *const tags = ruxo_json_object_get(spans[0], "tags", nullptr);
  EXPECT_STREQ(ruxo_json_text(tags), "{\"http.status_code\":\"-7\",\"twice\":\"second\"}");
  const auto requests = collector.requests();
  ASSERT_EQ(requests.size(), 1U);
  EXPECT_EQ(requests[0].line(), "POST /api/v2/spans");
  EXPECT_EQ(requests[0].header("Content-Type"), "application/json");
}

TEST_F(ZipkinReport, AttachedLogLinesTravelWithTheSpan) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  ruxo_zipkin_span *const server = ruxo_zipkin_server_start("GET", nullptr, nullptr, nullptr, "1");
  ruxo_zipkin_span_attach_logs(server, true);
  ruxo_zipkin_set_active_span(server);
  ruxo_log(ruxo_debug, "a line\n");
  ruxo_zipkin_span_publish(server);
  EXPECT_EQ(ruxo_log_overrides, 0);
  const auto spans = collector.spans();
  ASSERT_EQ(spans.size(), 1U);
  const ruxo_json_object *const events = ruxo_json_object_get(spans[0], "annotations", nullptr);
  ASSERT_EQ(ruxo_json_array_length(events), 1U);
  EXPECT_EQ(text_of(ruxo_json_array_get(events, 0), "value"), "a line\n");
}

TEST_F(ZipkinReport, ANewRequestDropsTheOneInProgress) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  ruxo_zipkin_client_start("given up");
  ruxo_zipkin_client_start("made");
  ruxo_zipkin_client_publish();
  const auto spans = collector.spans();
  ASSERT_EQ(spans.size(), 1U);
  EXPECT_EQ(text_of(spans[0], "name"), "made");
}

TEST_F(ZipkinReport, SpansOfManyThreadsArriveInBatches) {
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  const Counts before;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int n = 0; n < 250; ++n) {
        ruxo_zipkin_client_start("request");
        ruxo_zipkin_client_publish();
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(collector.spans().size(), 1000U);
  EXPECT_LT(collector.requests().size(), 1000U);
  EXPECT_EQ(Counts().sent - before.sent, 1000U);
  EXPECT_EQ(Counts().dropped, before.dropped);
}

TEST_F(ZipkinReport, SpansAreDroppedAndCountedWhenTheCollectorIsAway) {
  const http_peer::ClosedPort nobody;
  const LogCapture errors(&ruxo_error);
  ASSERT_TRUE(ruxo_zipkin_report_to(nobody.url().c_str(), "node", 1.0));
  const Counts before;
  for (int n = 0; n < 3; ++n) {
    ruxo_zipkin_client_start("request");
    ruxo_zipkin_client_publish();
    EXPECT_TRUE(ruxo_zipkin_flush(kFlushMs));
  }
  EXPECT_EQ(Counts().dropped - before.dropped, 3U);
  EXPECT_EQ(Counts().sent, before.sent);
  EXPECT_THAT(errors.lines(), ElementsAre(StartsWith("tracing: 1 spans for " + nobody.url() + " dropped: ")));
}

TEST_F(ZipkinReport, SpansThatTheCollectorRefusesAreDropped) {
  Collector collector(500);
  const LogCapture errors(&ruxo_error);
  ASSERT_TRUE(collector.trace_everything());
  const Counts before;
  ruxo_zipkin_client_start("request");
  ruxo_zipkin_client_publish();
  EXPECT_EQ(collector.spans().size(), 1U);
  EXPECT_EQ(Counts().dropped - before.dropped, 1U);
  EXPECT_THAT(errors.lines(),
              ElementsAre("tracing: 1 spans for " + collector.url() + " dropped: status 500\n"));
}

TEST_F(ZipkinReport, ACollectorThatIsBackIsTold) {
  std::atomic<int> status{500};
  HttpPeer peer([&](const http_peer::Request &) { return answer(status, ""); });
  const LogCapture errors(&ruxo_error), notices(&ruxo_notice, "test/notices");
  ASSERT_TRUE(ruxo_zipkin_report_to(peer.url().c_str(), "node", 1.0));
  for (const int next : {500, 500, 202, 202, 500}) {
    status = next;
    ruxo_zipkin_client_start("request");
    ruxo_zipkin_client_publish();
    ASSERT_TRUE(ruxo_zipkin_flush(kFlushMs));
  }
  const std::string dropped = "tracing: 1 spans for " + peer.url() + " dropped: status 500\n";
  EXPECT_THAT(errors.lines(), ElementsAre(dropped, dropped));
  EXPECT_THAT(notices.lines(), ElementsAre("tracing: " + peer.url() + " takes spans again\n"));
}

TEST_F(ZipkinReport, APublisherNeverWaitsForACollectorThatStalls) {
  auto stalled = std::make_unique<HttpPeer>(http_peer::Reply{"", http_peer::End::stall});
  ASSERT_TRUE(ruxo_zipkin_report_to(stalled->url().c_str(), "node", 1.0));
  const Counts before;
  // Were one of these to wait for the collector, the test would end by its time limit; the first batch is on its way
  // to the collector, which never answers, so what the queue cannot hold has to go.
  constexpr uint64_t kSpans = 2 * RUXO_ZIPKIN_MAX_QUEUED + 200;
  for (uint64_t n = 0; n < kSpans; ++n) {
    ruxo_zipkin_client_start("request");
    ruxo_zipkin_client_publish();
  }
  EXPECT_FALSE(ruxo_zipkin_flush(1));
  EXPECT_GE(Counts().dropped - before.dropped, kSpans - RUXO_ZIPKIN_MAX_QUEUED - 200);
  EXPECT_LT(Counts().dropped - before.dropped, kSpans);
  EXPECT_EQ(Counts().sent, before.sent);
  stalled.reset();  // what is queued finds nobody and goes at once
  EXPECT_TRUE(ruxo_zipkin_flush(kFlushMs));
}

TEST_F(ZipkinReport, AForkedChildReportsItsOwnSpans) {
  FORKS_WITH_THREADS();
  Collector collector;
  ASSERT_TRUE(collector.trace_everything());
  ruxo_zipkin_client_start("parent");
  ruxo_zipkin_client_publish();
  const ChildResult child = run_in_child([] {
    ruxo_zipkin_client_start("child");
    ruxo_zipkin_client_publish();
    if (!ruxo_zipkin_flush(kFlushMs)) _exit(1);
  });
  EXPECT_TRUE(child.exited_with(0)) << child.stderr_text;
  std::vector<std::string> names;
  for (const auto *one : collector.spans()) names.push_back(text_of(one, "name"));
  EXPECT_EQ(std::count(names.begin(), names.end(), "parent"), 1);
  EXPECT_EQ(std::count(names.begin(), names.end(), "child"), 1);
}
