#include "liborlith/liborlith_init.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "liborlith/liborlith_fatal.h"
#include "liborlith/orollupd/rollup.h"
#include "liborlith/util/go_asynch.h"
#include "liborlith/util/join.h"
#include "liborlith/util/metric_locator.h"
#include "liborlith/util/metric_name.h"
#include "liborlith/util/oil.h"
#include "liborlith/util/vask_move.h"
#include "liborlith/util/vask_proxy_buffer.h"
#include "ruxo/eventer.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// What the modules do when they start, in order: filled by the wrappers below.
std::mutex steps_lock;
std::vector<std::string> steps;

void record(const std::string &step) {
  const std::lock_guard guard(steps_lock);
  steps.push_back(step);
}

}  // namespace

extern "C" {
void __real_topo_init_globals(void);
int __real_eventer_name_callback(const char *name, eventer_func_t function);
ruxo_log_stream_t __real_liborlith_init_log(const char *name, ruxo_log_stream_t fallback);

void __wrap_topo_init_globals(void);
int __wrap_eventer_name_callback(const char *name, eventer_func_t function);
ruxo_log_stream_t __wrap_liborlith_init_log(const char *name, ruxo_log_stream_t fallback);

void __wrap_topo_init_globals(void) {
  record("topo");
  __real_topo_init_globals();
}
int __wrap_eventer_name_callback(const char *name, eventer_func_t function) {
  record(name);
  return __real_eventer_name_callback(name, function);
}
ruxo_log_stream_t __wrap_liborlith_init_log(const char *name, ruxo_log_stream_t fallback) {
  record(name);
  return __real_liborlith_init_log(name, fallback);
}
}

namespace {

// Start-up happens once in a process, so every statement here is run by a new copy of this executable, whatever ran
// before. Its failures are on the standard error that the outer expectation then shows.
class LiborlithInitDeathTest : public testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

#define EXPECT_IN_FRESH_PROCESS(work)                   \
  EXPECT_EXIT(                                          \
      {                                                 \
        work();                                         \
        std::exit(testing::Test::HasFailure() ? 1 : 0); \
      },                                                \
      testing::ExitedWithCode(0), "")

struct Module {
  const char *debug_name;
  ruxo_log_stream_t *debug_ls;
  const char *error_name;
  ruxo_log_stream_t *error_ls;
  void (*start)(void);
};

const Module modules[] = {
    {"debug/orollup", &orollup_debug_ls, "error/orollup", &orollup_error_ls, orollupd_rollup_init},
    {"debug/vask_move", &vask_move_debug_ls, "error/vask_move", &vask_move_error_ls, vask_move_init},
    {"debug/vask_proxy_buffer", &vask_proxy_buffer_debug_ls, "error/vask_proxy_buffer",
     &vask_proxy_buffer_error_ls, vask_proxy_buffer_lib_init},
    {"debug/go_asynch", &go_asynch_debug_ls, "error/go_asynch", &go_asynch_error_ls,
     orlith_go_asynch_lib_init},
    {"debug/joiner", &join_debug_ls, "error/joiner", &join_error_ls, liborlith_join_init},
    {"debug/metric_locator", &ml_debug_ls, "error/metric_locator", &ml_error_ls,
     orlith_metric_locator_lib_init},
    {"debug/metric_name", &mn_debug_ls, "error/metric_name", &mn_error_ls, orlith_metric_name_lib_init},
    {"debug/oil", &oil_debug_ls, "error/oil", &oil_error_ls, oil_lib_init},
};

const std::vector<std::string> whole_start = {
    "topo",
    "debug/orollup",
    "error/orollup",
    "vask_move_vask_asynch_unlink",
    "vask_move_vask_asynch_move",
    "debug/vask_move",
    "error/vask_move",
    "debug/vask_proxy_buffer",
    "error/vask_proxy_buffer",
    "debug/go_asynch",
    "error/go_asynch",
    "liborlith_join_commit_helper",
    "debug/joiner",
    "error/joiner",
    "debug/metric_locator",
    "error/metric_locator",
    "debug/metric_name",
    "error/metric_name",
    "debug/oil",
    "error/oil",
};

TEST_F(LiborlithInitDeathTest, StartsTheModulesInTheirOrder) {
  EXPECT_IN_FRESH_PROCESS([] {
    liborlith_init();
    EXPECT_EQ(steps, whole_start);
  });
}

TEST_F(LiborlithInitDeathTest, ASecondCallAndDirectStartsAfterItChangeNothing) {
  EXPECT_IN_FRESH_PROCESS([] {
    liborlith_init();
    oil_debug_ls = nullptr;
    const ruxo_log_stream_t first_error = oil_error_ls;
    steps.clear();
    liborlith_init();
    topo_init_globals();
    for (const Module &module : modules) module.start();
    EXPECT_THAT(steps, ElementsAre("topo")) << "which is only the call itself";
    EXPECT_EQ(oil_debug_ls, nullptr);
    EXPECT_EQ(oil_error_ls, first_error);
  });
}

TEST_F(LiborlithInitDeathTest, AModuleStartedBeforeIsNotStartedAgain) {
  EXPECT_IN_FRESH_PROCESS([] {
    oil_lib_init();
    vask_move_init();
    EXPECT_THAT(steps, ElementsAre("debug/oil", "error/oil", "vask_move_vask_asynch_unlink",
                                   "vask_move_vask_asynch_move", "debug/vask_move", "error/vask_move"));
    liborlith_init();
    EXPECT_EQ(steps.size(), whole_start.size());
  });
}

TEST_F(LiborlithInitDeathTest, ConcurrentCallersStartEverythingOnce) {
  EXPECT_IN_FRESH_PROCESS([] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) threads.emplace_back([] { liborlith_init(); });
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(steps, whole_start);
  });
}

TEST_F(LiborlithInitDeathTest, WithoutConfiguredStreamsModulesUseTheGlobalOnes) {
  EXPECT_IN_FRESH_PROCESS([] {
    ASSERT_NE(ruxo_debug, nullptr);
    ASSERT_NE(ruxo_error, nullptr);
    liborlith_init();
    for (const Module &module : modules) {
      EXPECT_EQ(*module.debug_ls, ruxo_debug) << module.debug_name;
      EXPECT_EQ(*module.error_ls, ruxo_error) << module.error_name;
    }
  });
}

TEST_F(LiborlithInitDeathTest, ConfiguredStreamsAreUsed) {
  EXPECT_IN_FRESH_PROCESS([] {
    for (const Module &module : modules) {
      const ruxo_log_stream_t debug = ruxo_log_stream_new(module.debug_name);
      const ruxo_log_stream_t error = ruxo_log_stream_new(module.error_name);
      module.start();
      EXPECT_EQ(*module.debug_ls, debug) << module.debug_name;
      EXPECT_EQ(*module.error_ls, error) << module.error_name;
    }
  });
}

TEST_F(LiborlithInitDeathTest, HandlesThatTheHostHasSetAreKept) {
  EXPECT_IN_FRESH_PROCESS([] {
    const ruxo_log_stream_t own = ruxo_log_stream_new("host/own");
    for (const Module &module : modules) {
      ruxo_log_stream_new(module.debug_name);
      *module.debug_ls = own;
    }
    liborlith_init();
    for (const Module &module : modules) {
      EXPECT_EQ(*module.debug_ls, own) << module.debug_name;
      EXPECT_EQ(*module.error_ls, ruxo_error) << module.error_name;
    }
  });
}

TEST_F(LiborlithInitDeathTest, WithoutGlobalStreamsTheHandlesAreWhatTheLookUpAnswers) {
  EXPECT_IN_FRESH_PROCESS([] {
    ruxo_debug = nullptr;
    ruxo_error = nullptr;
    liborlith_init();
    for (const Module &module : modules) {
      EXPECT_EQ(*module.debug_ls, ruxo_log_stream_find(module.debug_name));
      EXPECT_EQ(*module.error_ls, ruxo_log_stream_find(module.error_name));
    }
  });
}

TEST_F(LiborlithInitDeathTest, TheNamedCallbacksCanBeFound) {
  EXPECT_IN_FRESH_PROCESS([] {
    liborlith_init();
    EXPECT_EQ(eventer_callback_for_name("vask_move_vask_asynch_unlink"), &vask_asynch_unlink);
    EXPECT_EQ(eventer_callback_for_name("vask_move_vask_asynch_move"), &vask_asynch_move);
    EXPECT_NE(eventer_callback_for_name("liborlith_join_commit_helper"), nullptr);
  });
}

TEST(LiborlithInitLog, WithoutAFallbackItIsTheLookUp) {
  EXPECT_FALSE(ruxo_log_stream_exists("test/never configured"));
  EXPECT_EQ(liborlith_init_log("test/never configured", nullptr),
            ruxo_log_stream_find("test/never configured"));
  const ruxo_log_stream_t configured = ruxo_log_stream_new("test/configured");
  EXPECT_EQ(liborlith_init_log("test/configured", nullptr), configured);
}

TEST(LiborlithInitLog, AConfiguredStreamComesBeforeTheFallback) {
  const ruxo_log_stream_t fallback = ruxo_log_stream_new("test/fallback");
  EXPECT_EQ(liborlith_init_log("test/not configured", fallback), fallback);
  const ruxo_log_stream_t configured = ruxo_log_stream_new("test/configured");
  EXPECT_EQ(liborlith_init_log("test/configured", fallback), configured);
}

class LiborlithFatalDeathTest : public LiborlithInitDeathTest {};

TEST_F(LiborlithFatalDeathTest, AFailedAssertionWritesItsLineAndAborts) {
  EXPECT_EXIT(
      liborlith_assert(1 + 1 == 3), testing::KilledBySignal(SIGABRT),
      " message=\"\\[FATAL\\] assertion \\(1 \\+ 1 == 3\\) at test/util/liborlith_init_test\\.cpp:[0-9]+ "
      "failed\"\n$");
}

TEST_F(LiborlithFatalDeathTest, WithoutAnErrorStreamItAbortsWithoutOutput) {
  EXPECT_EXIT(
      {
        ruxo_error = nullptr;
        liborlith_assert(1 + 1 == 3);
      },
      testing::KilledBySignal(SIGABRT), "^$");
}

TEST_F(LiborlithFatalDeathTest, WithADisabledErrorStreamItAbortsWithoutOutput) {
  EXPECT_EXIT(
      {
        ruxo_log_stream_disable(ruxo_error);
        liborlith_assert(1 + 1 == 3);
      },
      testing::KilledBySignal(SIGABRT), "^$");
}

TEST_F(LiborlithFatalDeathTest, WhatIsStillQueuedIsWrittenFirst) {
  EXPECT_EXIT(
      {
        for (int i = 0; i < 1000; ++i) ruxo_log(ruxo_error, "line %d\n", i);
        liborlith_fatal(ruxo_error, "[FATAL] the end\n");
      },
      testing::KilledBySignal(SIGABRT),
      "message=\"line 0\"\n(.*\n){998}.*message=\"line 999\"\n.*\\[FATAL\\] the end\"\n$");
}

TEST(LiborlithAssert, AConditionThatHoldsDoesNothing) {
  int evaluations = 0;
  liborlith_assert(++evaluations == 1);
  EXPECT_EQ(evaluations, 1);
}

}  // namespace
