#include "liborlith/util/join.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "liborlith/util/join_private.h"
#include "ruxo/eventer.h"

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
