#include "ruxo/zipkin.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <thread>

#include "ruxo/log.h"
#include "test/support/log_capture.h"

namespace {

std::vector<std::string> annotations(const ruxo_zipkin_span *span) {
  std::vector<std::string> result;
  for (size_t i = 0; i < ruxo_zipkin_span_annotation_count(span); ++i) {
    result.emplace_back(ruxo_zipkin_span_annotation(span, i));
  }
  return result;
}

class Zipkin : public testing::Test {
 protected:
  ~Zipkin() override {
    ruxo_zipkin_set_active_span(nullptr);
    ruxo_zipkin_span_free(span_);
  }
  ruxo_zipkin_span *span_ = ruxo_zipkin_span_new("request");
};

}  // namespace

TEST_F(Zipkin, ASpanHasANameAndATraceId) {
  EXPECT_STREQ(ruxo_zipkin_span_name(span_), "request");
  ruxo_zipkin_span *const other = ruxo_zipkin_span_new("other");
  EXPECT_NE(ruxo_zipkin_span_trace_id(span_), 0u);
  EXPECT_NE(ruxo_zipkin_span_trace_id(span_), ruxo_zipkin_span_trace_id(other));
  ruxo_zipkin_span_free(other);
  ruxo_zipkin_span_free(nullptr);
}

TEST_F(Zipkin, TheActiveSpanIsTheThreads) {
  EXPECT_EQ(ruxo_zipkin_active_span(), nullptr);
  EXPECT_EQ(ruxo_zipkin_set_active_span(span_), nullptr);
  EXPECT_EQ(ruxo_zipkin_active_span(), span_);
  EXPECT_EQ(ruxo_zipkin_set_active_span(span_), span_);
  std::thread([] { EXPECT_EQ(ruxo_zipkin_active_span(), nullptr); }).join();
  EXPECT_EQ(ruxo_zipkin_set_active_span(nullptr), span_);
  EXPECT_EQ(ruxo_zipkin_active_span(), nullptr);
}

TEST_F(Zipkin, LinesBecomeAnnotationsWhileLogsAreAttached) {
  ruxo_zipkin_set_active_span(span_);
  ruxo_log(ruxo_debug, "not attached\n");
  ruxo_zipkin_span_attach_logs(span_, true);
  EXPECT_TRUE(ruxo_zipkin_span_logs_attached(span_));
  ruxo_log(ruxo_debug, "one %d\n", 1);
  ruxo_log(ruxo_debug, "two\n");
  ruxo_zipkin_span_attach_logs(span_, false);
  ruxo_log(ruxo_debug, "detached\n");
  EXPECT_THAT(annotations(span_), testing::ElementsAre("one 1\n", "two\n"));
  EXPECT_EQ(ruxo_zipkin_span_annotation(span_, 2), nullptr);
}

TEST_F(Zipkin, ALineOfALiveStreamIsAnnotatedAndWritten) {
  ruxo_log_stream_t ls = nullptr;
  const LogCapture capture(&ls);
  ruxo_zipkin_span_attach_logs(span_, true);
  ruxo_zipkin_set_active_span(span_);
  ruxo_log(ls, "both\n");
  EXPECT_THAT(annotations(span_), testing::ElementsAre("both\n"));
  EXPECT_THAT(capture.lines(), testing::ElementsAre("both\n"));
}

TEST_F(Zipkin, ALineOfADisabledStreamIsAnnotatedOnly) {
  ruxo_log_stream_t ls = nullptr;
  const LogCapture capture(&ls);
  ruxo_log_stream_disable(ls);
  ruxo_zipkin_span_attach_logs(span_, true);
  ruxo_zipkin_set_active_span(span_);
  ruxo_log(ls, "span only\n");
  EXPECT_THAT(annotations(span_), testing::ElementsAre("span only\n"));
  EXPECT_THAT(capture.lines(), testing::IsEmpty());
}

TEST_F(Zipkin, TheOverrideCountFollowsThreadsAndAttachment) {
  EXPECT_EQ(ruxo_log_overrides, 0);
  ruxo_zipkin_set_active_span(span_);
  EXPECT_EQ(ruxo_log_overrides, 0);
  ruxo_zipkin_span_attach_logs(span_, true);
  ruxo_zipkin_span_attach_logs(span_, true);
  EXPECT_EQ(ruxo_log_overrides, 1);
  std::thread([&] {
    ruxo_zipkin_set_active_span(span_);
    EXPECT_EQ(ruxo_log_overrides, 2);
    ruxo_zipkin_span_attach_logs(span_, false);
    EXPECT_EQ(ruxo_log_overrides, 0);
    ruxo_zipkin_span_attach_logs(span_, true);
    EXPECT_EQ(ruxo_log_overrides, 2);
    // The thread ends with the span active.
  }).join();
  EXPECT_EQ(ruxo_log_overrides, 1);
  ruxo_zipkin_set_active_span(nullptr);
  EXPECT_EQ(ruxo_log_overrides, 0);
}

TEST_F(Zipkin, SwitchingSpansMovesTheCount) {
  ruxo_zipkin_span *const other = ruxo_zipkin_span_new("other");
  ruxo_zipkin_span_attach_logs(span_, true);
  ruxo_zipkin_set_active_span(span_);
  ruxo_zipkin_set_active_span(other);
  EXPECT_EQ(ruxo_log_overrides, 0);
  ruxo_zipkin_set_active_span(span_);
  EXPECT_EQ(ruxo_log_overrides, 1);
  ruxo_zipkin_set_active_span(nullptr);
  ruxo_zipkin_span_free(other);
}

TEST_F(Zipkin, ManyThreadsCanAnnotateOneSpan) {
  ruxo_zipkin_span_attach_logs(span_, true);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      ruxo_zipkin_set_active_span(span_);
      for (int i = 0; i < 100; ++i) ruxo_log(ruxo_debug, "line\n");
      ruxo_zipkin_set_active_span(nullptr);
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(annotations(span_), std::vector<std::string>(400, "line\n"));
}
