#include "liborlith/util/join.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "liborlith/util/join_private.h"
#include "ruxo/eventer.h"
#include "test/support/event_loops.h"

namespace {
bool no_memory_for_timers = false;
}

extern "C" {
// Declared first, as the compilers ask for.
eventer_t __real_eventer_add_in_s_us(eventer_func_t function, void *closure, unsigned long seconds,
                                     unsigned long microseconds);
eventer_t __wrap_eventer_add_in_s_us(eventer_func_t function, void *closure, unsigned long seconds,
                                     unsigned long microseconds);
eventer_t __wrap_eventer_add_in_s_us(eventer_func_t function, void *closure, unsigned long seconds,
                                     unsigned long microseconds) {
  if (no_memory_for_timers) return nullptr;
  return __real_eventer_add_in_s_us(function, closure, seconds, microseconds);
}
}

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> completions;

void complete(void *closure) {
  completions.emplace_back(static_cast<const char *>(closure));
}

class Join : public testing::Test {
 protected:
  Join() { completions.clear(); }

  static liborlith_join_t *create(liborlith_join_t *parent, const char *name) {
    return liborlith_join_create(parent, complete, const_cast<char *>(name));
  }
};

TEST_F(Join, ACommitWithoutWorkCompletesAtOnce) {
  liborlith_join_t *join = create(nullptr, "only");
  EXPECT_EQ(join->wait_count, 1u);
  EXPECT_EQ(join->parent, nullptr);
  EXPECT_THAT(completions, IsEmpty());
  EXPECT_TRUE(liborlith_join_commit(join));
  EXPECT_THAT(completions, ElementsAre("only"));
}

TEST_F(Join, WorkHoldsTheCompletionBack) {
  liborlith_join_t *join = create(nullptr, "only");
  liborlith_join_wait_more(join, 2);
  EXPECT_EQ(join->wait_count, 3u);
  EXPECT_FALSE(liborlith_join_one(join));
  EXPECT_FALSE(liborlith_join_commit(join));
  EXPECT_THAT(completions, IsEmpty());
  EXPECT_TRUE(liborlith_join_one(join));
  EXPECT_THAT(completions, ElementsAre("only"));
}

TEST_F(Join, WaitingForNoneMoreChangesNothing) {
  liborlith_join_t *join = create(nullptr, "only");
  liborlith_join_wait_more(join, 0);
  EXPECT_EQ(join->wait_count, 1u);
  EXPECT_TRUE(liborlith_join_commit(join));
}

TEST_F(Join, WithoutACompletionItOnlyCounts) {
  liborlith_join_t *parent = create(nullptr, "parent");
  liborlith_join_t *child = liborlith_join_create(parent, nullptr, nullptr);
  EXPECT_FALSE(liborlith_join_commit(parent));
  EXPECT_TRUE(liborlith_join_commit(child));
  EXPECT_THAT(completions, ElementsAre("parent"));
}

TEST_F(Join, ChildrenCompleteBeforeTheParentWhicheverEndsFirst) {
  liborlith_join_t *parent = create(nullptr, "parent");
  liborlith_join_t *one = create(parent, "one");
  liborlith_join_t *two = create(parent, "two");
  EXPECT_EQ(parent->wait_count, 3u);
  EXPECT_EQ(one->parent, parent);
  EXPECT_TRUE(liborlith_join_commit(two));
  EXPECT_EQ(parent->wait_count, 2u);
  EXPECT_FALSE(liborlith_join_commit(parent));
  EXPECT_TRUE(liborlith_join_commit(one));
  EXPECT_THAT(completions, ElementsAre("two", "one", "parent"));
}

TEST_F(Join, TheParentWaitsForItsOwnCommit) {
  liborlith_join_t *parent = create(nullptr, "parent");
  EXPECT_TRUE(liborlith_join_commit(create(parent, "child")));
  EXPECT_THAT(completions, ElementsAre("child"));
  EXPECT_TRUE(liborlith_join_commit(parent));
  EXPECT_THAT(completions, ElementsAre("child", "parent"));
}

TEST_F(Join, TheCompletionRunsWhileTheParentsHoldStillStands) {
  static liborlith_join_t *parent;
  parent = create(nullptr, "parent");
  liborlith_join_t *child = liborlith_join_create(
      parent, [](void *) { EXPECT_EQ(parent->wait_count, 2u); }, nullptr);
  EXPECT_TRUE(liborlith_join_commit(child));
  EXPECT_EQ(parent->wait_count, 1u);
  EXPECT_TRUE(liborlith_join_commit(parent));
}

TEST_F(Join, AVeryLongChainCompletesFromTheLeafUp) {
  static int count;
  count = 0;
  liborlith_join_t *join = nullptr;
  constexpr int depth = 300000;
  for (int i = 0; i < depth; ++i) {
    liborlith_join_t *child = liborlith_join_create(
        join, [](void *) { ++count; }, nullptr);
    if (join != nullptr) {
      ASSERT_FALSE(liborlith_join_commit(join));
    }
    join = child;
  }
  EXPECT_TRUE(liborlith_join_commit(join));
  EXPECT_EQ(count, depth);
}

TEST_F(Join, TheDeferredCommitsCallbackReleasesOneHold) {
  liborlith_join_init();
  const eventer_func_t helper = eventer_callback_for_name("liborlith_join_commit_helper");
  ASSERT_NE(helper, nullptr);
  EXPECT_EQ(helper, &join_commit_helper);
  liborlith_join_t *join = create(nullptr, "only");
  liborlith_join_wait_more(join, 1);
  EXPECT_EQ(helper(nullptr, EVENTER_TIMER, join, nullptr), 0);
  EXPECT_EQ(join->wait_count, 1u);
  EXPECT_EQ(helper(nullptr, EVENTER_TIMER, join, nullptr), 0);
  EXPECT_THAT(completions, ElementsAre("only"));
}

TEST_F(Join, HoldsAreReleasedFromManyThreadsAndOneOfThemCompletes) {
  constexpr int thread_count = 8;
  constexpr int rounds = 300;
  for (int round = 0; round < rounds; ++round) {
    struct Shared {
      int work[thread_count] = {};  // written by the workers, read by the completion
      int sum = 0;
    } shared;
    std::atomic<int> last_ones{0};
    liborlith_join_t *join = liborlith_join_create(
        nullptr,
        [](void *closure) {
          auto *s = static_cast<Shared *>(closure);
          for (const int one : s->work) s->sum += one;
        },
        &shared);
    std::vector<std::thread> threads;
    for (int i = 0; i < thread_count; ++i) {
      liborlith_join_wait_more(join, 1);
      threads.emplace_back([&, i] {
        shared.work[i] = i + 1;
        if (liborlith_join_one(join)) ++last_ones;
      });
    }
    if (liborlith_join_commit(join)) ++last_ones;
    for (std::thread &thread : threads) thread.join();
    ASSERT_EQ(last_ones, 1);
    ASSERT_EQ(shared.sum, 36);
  }
}

// The loop's threads, and a completion that notes where it ran.
class JoinNextCycle : public testing::Test {
 protected:
  ~JoinNextCycle() override { eventer_stop(); }

  liborlith_join_t *create(liborlith_join_t *parent = nullptr) {
    return liborlith_join_create(
        parent,
        [](void *closure) {
          auto *self = static_cast<JoinNextCycle *>(closure);
          ++self->completions_;
          self->thread_ = pthread_self();
          self->completed_.once();
        },
        this);
  }

  std::atomic<int> completions_ = 0;
  std::atomic<pthread_t> thread_{};  // of the latest completion
  Happened completed_;
};

TEST_F(JoinNextCycle, NeverCompletesWithinTheCallButOnALaterCycleOfItsLoop) {
  ASSERT_EQ(eventer_start(2), 0);
  for (unsigned i = 0; i < 2; ++i) {
    on_loop(eventer_choose_owner(i), [&] {
      liborlith_join_t *const join = create();
      liborlith_join_commit_nextcycle(join);
      EXPECT_EQ(completions_, 0);
      EXPECT_EQ(join->wait_count, 1U);
    });
    completed_.wait();
    EXPECT_EQ(thread_.load(), eventer_choose_owner(i));
    completions_ = 0;
  }
}

TEST_F(JoinNextCycle, FromAnotherThreadCompletesOnALoopThread) {
  ASSERT_EQ(eventer_start(1), 0);
  liborlith_join_commit_nextcycle(create());
  completed_.wait();
  EXPECT_EQ(thread_, eventer_choose_owner(0));
}

TEST_F(JoinNextCycle, BeforeTheStartItWaits) {
  liborlith_join_commit_nextcycle(create());
  EXPECT_EQ(completions_, 0);
  ASSERT_EQ(eventer_start(1), 0);
  completed_.wait();
}

TEST_F(JoinNextCycle, WorkStillHoldsTheCompletionBack) {
  ASSERT_EQ(eventer_start(1), 0);
  liborlith_join_t *const join = create();
  liborlith_join_wait_more(join, 1);
  liborlith_join_commit_nextcycle(join);
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_EQ(completions_, 0);
  EXPECT_TRUE(liborlith_join_one(join));
  EXPECT_EQ(completions_, 1);
  EXPECT_EQ(thread_, pthread_self());
}

TEST_F(JoinNextCycle, ATreeOfThemCompletesOnce) {
  ASSERT_EQ(eventer_start(2), 0);
  liborlith_join_t *const root = create();
  std::vector<liborlith_join_t *> children;
  for (int i = 0; i < 100; ++i) children.push_back(liborlith_join_create(root, nullptr, nullptr));
  liborlith_join_commit_nextcycle(root);
  for (liborlith_join_t *child : children) liborlith_join_commit_nextcycle(child);
  completed_.wait();
  EXPECT_EQ(completions_, 1);
}

// Loop threads and workers release the holds of the same joins.
TEST_F(JoinNextCycle, HoldsAreReleasedFromLoopsAndJobsAndOneOfThemCompletes) {
  ASSERT_EQ(eventer_start(2), 0);
  eventer_jobq_t *const queue = eventer_jobq_create("test/join", 4);
  const eventer_func_t release = [](eventer_t, int, void *closure, struct timeval *) {
    liborlith_join_one(static_cast<liborlith_join_t *>(closure));
    return 0;
  };
  constexpr int rounds = 100;
  constexpr int jobs = 8;
  for (int round = 0; round < rounds; ++round) {
    liborlith_join_t *const join = create();
    for (int i = 0; i < jobs; ++i) {
      liborlith_join_wait_more(join, 2);  // one for the work, one for its completion
      eventer_add_asynch(queue, eventer_alloc_asynch(release, join));
    }
    liborlith_join_commit_nextcycle(join);
  }
  completed_.wait(rounds);
  EXPECT_EQ(completions_, rounds);
  eventer_jobq_destroy(queue);
}

TEST(JoinDeathTest, ADeferredCommitWithoutMemoryIsFatal) {
  EXPECT_DEATH(
      {
        liborlith_join_t *const join = liborlith_join_create(nullptr, nullptr, nullptr);
        no_memory_for_timers = true;
        liborlith_join_commit_nextcycle(join);
      },
      "message=\"\\[FATAL\\] assertion \\(timer != NULL\\) at util/join\\.cpp:[0-9]+ failed\"\n");
}

TEST(JoinDeathTest, AJoinHasOneParent) {
  EXPECT_DEATH(
      {
        liborlith_join_t *parent = liborlith_join_create(nullptr, nullptr, nullptr);
        liborlith_join_t *child = liborlith_join_create(parent, nullptr, nullptr);
        liborlith::join_attach(child, parent);
      },
      "message=\"\\[FATAL\\] assertion \\(rval->parent == NULL\\) at util/join\\.cpp:[0-9]+ failed\"\n");
}

}  // namespace
