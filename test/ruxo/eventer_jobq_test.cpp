// Job queues: work on their workers, completions on the owner, cancellation.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/eventer.h"
#include "test/support/event_loops.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kWork = EVENTER_ASYNCH_WORK;
constexpr int kComplete = EVENTER_ASYNCH_COMPLETE;
constexpr int kCancel = EVENTER_ASYNCH_CANCEL;

// A job that notes its phases and the threads they ran on, and does what the test says in each.
class Job {
 public:
  using Step = std::function<void(eventer_t e, int phase)>;
  explicit Job(Step step = [](eventer_t, int) {}) : step_(std::move(step)) {}

  eventer_t event() { return eventer_alloc_asynch(Handler::call, &handler_); }
  void wait() { last_.wait(); }  // until COMPLETE or CANCEL

  std::vector<int> phases;
  std::vector<pthread_t> threads;

 private:
  Step step_;
  Happened last_;
  Handler handler_{[this](eventer_t e, int phase, const struct timeval &) {
    phases.push_back(phase);
    threads.push_back(pthread_self());
    step_(e, phase);
    if (phase != kWork) last_.once();
    return 0;
  }};
};

// A job that holds its worker until the test lets it go.
class Blocker {
 public:
  explicit Blocker(eventer_jobq_t *queue) {
    eventer_add_asynch(queue, job_.event());
    entered_.wait();
  }
  void leave() { leave_.once(); }
  Job &job() { return job_; }

 private:
  Happened entered_, leave_;
  Job job_{[this](eventer_t, int phase) {
    if (phase != kWork) return;
    entered_.once();
    leave_.wait();
  }};
};

// Each test has a queue of its own name, in a process that may run other tests, too.
class EventerJobq : public testing::Test {
 protected:
  ~EventerJobq() override { eventer_stop(); }

  static eventer_jobq_t *create(const char *name, unsigned threads) {
    eventer_jobq_t *const queue = eventer_jobq_create(name, threads);
    EXPECT_NE(queue, nullptr);
    return queue;
  }
  static void start(unsigned loops = 1) { ASSERT_EQ(eventer_start(loops), 0); }
};

std::string thread_name() {
  char name[16] = {};
  pthread_getname_np(pthread_self(), name, sizeof name);
  return name;
}

TEST_F(EventerJobq, AJobWorksOnAWorkerAndCompletesOnItsOwner) {
  start(3);
  eventer_jobq_t *const queue = create("jobq/phases", 1);
  Job job([](eventer_t e, int phase) { EXPECT_EQ(eventer_is_owner(e), phase == kComplete); });
  const eventer_t e = job.event();
  eventer_set_owner(e, eventer_choose_owner(1));
  eventer_add_asynch(queue, e);
  job.wait();
  EXPECT_THAT(job.phases, ElementsAre(kWork, kComplete));
  for (unsigned i = 0; i < 3; ++i) EXPECT_NE(job.threads[0], eventer_choose_owner(i));
  EXPECT_NE(job.threads[0], pthread_self());
  EXPECT_EQ(job.threads[1], eventer_choose_owner(1));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, AJobOfALoopThreadCompletesThere) {
  start(4);
  eventer_jobq_t *const queue = create("jobq/loop", 2);
  for (unsigned i = 0; i < 4; ++i) {
    Job job;
    on_loop(eventer_choose_owner(i), [&] { eventer_add_asynch(queue, job.event()); });
    job.wait();
    EXPECT_EQ(job.threads[1], eventer_choose_owner(i));
  }
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, AJobWithoutAnOwnerCompletesOnALoopThreadThatOwnsItThen) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/no owner", 1);
  Job job([](eventer_t e, int phase) { EXPECT_EQ(eventer_is_owner(e), phase == kComplete); });
  eventer_add_asynch(queue, job.event());
  job.wait();
  EXPECT_EQ(job.threads[1], eventer_choose_owner(0));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, AWorkThatGivesTheCompletionUpHasNone) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/given up", 1);
  std::vector<int> phases;
  Handler handler([&](eventer_t e, int phase, const struct timeval &) {
    phases.push_back(phase);
    eventer_set_mask(e, 0);
    return 0;
  });
  eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
  Job behind;
  eventer_add_asynch(queue, behind.event());
  behind.wait();
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_THAT(phases, ElementsAre(kWork));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, WithoutLoopThreadsTheCompletionRunsOnTheWorker) {
  eventer_start(1);  // opens the queues that an earlier test's stop has closed
  eventer_stop();
  eventer_jobq_t *const queue = create("jobq/no loops", 1);
  Job job;
  eventer_add_asynch(queue, job.event());
  job.wait();
  EXPECT_THAT(job.phases, ElementsAre(kWork, kComplete));
  EXPECT_EQ(job.threads[0], job.threads[1]);
  EXPECT_NE(job.threads[0], pthread_self());
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, WorkBeginsInTheOrderAdded) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/order", 1);
  Blocker blocker(queue);
  std::vector<size_t> begun, completed;
  std::deque<Job> jobs;
  constexpr size_t count = 200;
  for (size_t i = 0; i < count; ++i) {
    jobs.emplace_back([&, i](eventer_t, int phase) { (phase == kWork ? begun : completed).push_back(i); });
    eventer_add_asynch(queue, jobs.back().event());
  }
  blocker.leave();
  for (Job &job : jobs) job.wait();
  EXPECT_EQ(begun.size(), count);
  EXPECT_EQ(completed.size(), count);
  EXPECT_TRUE(std::is_sorted(begun.begin(), begun.end()));
  EXPECT_TRUE(std::is_sorted(completed.begin(), completed.end()));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, TellsWhatWaitsAndWhatRuns) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/counts", 2);
  EXPECT_EQ(eventer_jobq_backlog(queue), 0U);
  EXPECT_EQ(eventer_jobq_inflight(queue), 0U);
  Blocker one(queue), two(queue);
  Job waiting[3];
  for (Job &job : waiting) eventer_add_asynch(queue, job.event());
  EXPECT_EQ(eventer_jobq_backlog(queue), 3U);
  EXPECT_EQ(eventer_jobq_inflight(queue), 2U);
  one.leave();
  two.leave();
  for (Job &job : waiting) job.wait();
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, HasAsManyWorkersAsJobsNeedUpToItsNumber) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/workers", 3);
  {
    std::deque<Blocker> blockers;
    for (int i = 0; i < 3; ++i) blockers.emplace_back(queue);  // each only returns once its job runs
    Job fourth;
    eventer_add_asynch(queue, fourth.event());
    EXPECT_EQ(eventer_jobq_backlog(queue), 1U);
    std::set<pthread_t> threads;
    for (Blocker &blocker : blockers) blocker.leave();
    for (Blocker &blocker : blockers) blocker.job().wait();
    for (Blocker &blocker : blockers) threads.insert(blocker.job().threads[0]);
    EXPECT_EQ(threads.size(), 3U);
    fourth.wait();
    EXPECT_EQ(threads.count(fourth.threads[0]), 1U);
  }
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, EightThreadsDoEveryJobOnce) {
  start(2);
  eventer_jobq_t *const queue = create("jobq/eight", 8);
  constexpr size_t producers = 4;
  constexpr size_t jobs_each = 2000;
  struct Count {
    std::atomic<int> works = 0, completions = 0;
  };
  std::vector<Count> counts(producers * jobs_each);
  std::atomic<size_t> over = 0;
  Happened all;
  struct Shared {
    std::atomic<size_t> *over;
    Happened *all;
  } static shared;
  shared = {&over, &all};
  static constexpr eventer_func_t step = [](eventer_t e, int phase, void *closure, struct timeval *) {
    auto *count = static_cast<Count *>(closure);
    if (phase == kWork) {
      EXPECT_EQ(++count->works, 1);
    } else {
      EXPECT_EQ(phase, kComplete);
      EXPECT_TRUE(eventer_is_owner(e));
      EXPECT_EQ(++count->completions, 1);
      if (++*shared.over == producers * jobs_each) shared.all->once();
    }
    return 0;
  };
  std::vector<std::thread> threads;
  for (size_t p = 0; p < producers; ++p) {
    threads.emplace_back([&, p] {
      for (size_t i = 0; i < jobs_each; ++i) {
        eventer_add_asynch(queue, eventer_alloc_asynch(step, &counts[p * jobs_each + i]));
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  all.wait();
  for (const Count &count : counts) {
    ASSERT_EQ(count.works, 1);
    ASSERT_EQ(count.completions, 1);
  }
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, AJobMayAddAnotherInEachPhase) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/chain", 1);
  Job from_work, from_completion;
  Job first([&](eventer_t, int phase) {
    eventer_add_asynch(queue, (phase == kWork ? from_work : from_completion).event());
  });
  eventer_add_asynch(queue, first.event());
  first.wait();
  from_work.wait();
  from_completion.wait();
  EXPECT_THAT(from_completion.phases, ElementsAre(kWork, kComplete));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, NamesAndNumbersHaveLimits) {
  EXPECT_EQ(eventer_jobq_create("jobq/limits", 0), nullptr);
  EXPECT_EQ(eventer_jobq_create("jobq/limits", 1025), nullptr);
  EXPECT_EQ(eventer_jobq_by_name("jobq/limits"), nullptr);
  std::string name = "jobq/limits";
  eventer_jobq_t *const queue = eventer_jobq_create(name.c_str(), 1024);
  ASSERT_NE(queue, nullptr);
  name = "changed";
  EXPECT_EQ(eventer_jobq_by_name("jobq/limits"), queue);
  EXPECT_EQ(eventer_jobq_create("jobq/limits", 1), nullptr) << "in use";
  eventer_jobq_destroy(queue);
  EXPECT_EQ(eventer_jobq_by_name("jobq/limits"), nullptr);
  eventer_jobq_destroy(create("jobq/limits", 1));
  eventer_jobq_destroy(nullptr);
}

TEST_F(EventerJobq, WorkersBearTheQueuesName) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/a name that is cut", 1);
  std::string worker, loop;
  Job job([&](eventer_t, int phase) { (phase == kWork ? worker : loop) = thread_name(); });
  eventer_add_asynch(queue, job.event());
  job.wait();
  EXPECT_EQ(worker, "jobq/a name tha");
  EXPECT_EQ(loop, "eventer/0");
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, NullIsTheQueueThatIsCalledDefault) {
  start(1);
  Job job;
  eventer_add_asynch(nullptr, job.event());
  job.wait();
  EXPECT_THAT(job.phases, ElementsAre(kWork, kComplete));
  eventer_jobq_t *const queue = eventer_jobq_by_name("default");
  ASSERT_NE(queue, nullptr);
  EXPECT_EQ(eventer_jobq_create("default", 1), nullptr);
  eventer_jobq_destroy(queue);
  // Made by the host, it is the host's.
  eventer_jobq_t *const own = create("default", 1);
  Blocker blocker(own);
  Job behind;
  eventer_add_asynch(nullptr, behind.event());
  EXPECT_EQ(eventer_jobq_backlog(own), 1U);
  blocker.leave();
  behind.wait();
  eventer_jobq_destroy(own);
}

TEST_F(EventerJobq, DestroyingCompletesWhatRunsAndCancelsWhatWaitsOnTheOwner) {
  start(2);
  eventer_jobq_t *const queue = create("jobq/destroyed", 1);
  Blocker blocker(queue);
  Job waiting[3];
  for (Job &job : waiting) {
    const eventer_t e = job.event();
    eventer_set_owner(e, eventer_choose_owner(1));
    eventer_add_asynch(queue, e);
  }
  std::thread closer([&] { eventer_jobq_destroy(queue); });
  for (Job &job : waiting) job.wait();  // cancelled although the worker is still held
  blocker.leave();
  closer.join();
  EXPECT_THAT(blocker.job().phases, ElementsAre(kWork, kComplete));
  for (Job &job : waiting) {
    EXPECT_THAT(job.phases, ElementsAre(kCancel));
    EXPECT_EQ(job.threads[0], eventer_choose_owner(1));
  }
}

TEST_F(EventerJobq, StoppingCompletesWhatRunsAndCancelsWhatWaits) {
  start(2);
  eventer_jobq_t *const queue = create("jobq/stopped", 2);
  const pthread_t owner = eventer_choose_owner(1);
  Blocker one(queue), two(queue);
  Job waiting[5];
  for (Job &job : waiting) {
    const eventer_t e = job.event();
    eventer_set_owner(e, owner);
    eventer_add_asynch(queue, e);
  }
  std::thread stopper(eventer_stop);
  for (Job &job : waiting) job.wait();
  one.leave();
  two.leave();
  stopper.join();
  for (Blocker *blocker : {&one, &two}) EXPECT_THAT(blocker->job().phases, ElementsAre(kWork, kComplete));
  for (Job &job : waiting) {
    EXPECT_THAT(job.phases, ElementsAre(kCancel));
    EXPECT_TRUE(pthread_equal(job.threads[0], owner));
  }
  EXPECT_EQ(eventer_jobq_by_name("jobq/stopped"), queue) << "closed, not gone";
  EXPECT_EQ(eventer_jobq_inflight(queue), 0U);
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, AClosedQueueCancelsAtOnceAndOpensWithTheNextStart) {
  start(1);
  eventer_jobq_t *const queue = create("jobq/reopened", 1);
  eventer_stop();
  Job refused;
  eventer_add_asynch(queue, refused.event());
  EXPECT_THAT(refused.phases, ElementsAre(kCancel));
  EXPECT_EQ(refused.threads[0], pthread_self());
  start(1);
  Job job;
  eventer_add_asynch(queue, job.event());
  job.wait();
  EXPECT_THAT(job.phases, ElementsAre(kWork, kComplete));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, WhatACompletionAddsWhileItStopsIsCancelled) {
  start(2);
  eventer_jobq_t *const queue = create("jobq/last", 1);
  Job last, cancelled;
  Blocker blocker(queue);
  // Behind the closing: it waits in the queue, and is cancelled by it.
  Job waiting([&](eventer_t, int phase) {
    EXPECT_EQ(phase, kCancel);
    eventer_add_asynch(queue, cancelled.event());
  });
  eventer_add_asynch(queue, waiting.event());
  std::thread stopper(eventer_stop);
  cancelled.wait();
  blocker.leave();
  stopper.join();
  EXPECT_THAT(cancelled.phases, ElementsAre(kCancel));
  eventer_jobq_destroy(queue);
}

TEST_F(EventerJobq, ManyRoundsOfStoppingLoseNoJob) {
  for (unsigned round = 0; round < 30; ++round) {
    start(1 + round % 3);
    std::atomic<int> over = 0;
    int added = 0;
    Handler handler([&](eventer_t, int phase, const struct timeval &) {
      if (phase != kWork) ++over;
      return 0;
    });
    eventer_jobq_t *const queue = create("jobq/rounds", 1 + round % 4);
    for (; added < 100; ++added) eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
    std::thread adder([&] {
      for (int i = 0; i < 100; ++i) eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
    });
    eventer_stop();
    adder.join();
    eventer_jobq_destroy(queue);
    ASSERT_EQ(over, 200) << "each has completed or was cancelled";
  }
}

TEST_F(EventerJobq, ALoopCallbackThatAddsJobsWhileItStopsLosesNone) {
  for (int round = 0; round < 30; ++round) {
    start(2);
    eventer_jobq_t *const queue = create("jobq/feeder", 1);
    std::atomic<int> added = 0, over = 0;
    Handler job([&](eventer_t, int phase, const struct timeval &) {
      if (phase != kWork) ++over;
      return 0;
    });
    Happened running;
    Handler feeder([&](eventer_t e, int, const struct timeval &) {
      const int number = ++added;
      eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &job));
      if (number == 10) running.once();
      EXPECT_EQ(eventer_remove_timer(e), e);
      EXPECT_EQ(eventer_add(e), 0);
      return 0;
    });
    for (unsigned i = 0; i < 2; ++i) {
      const struct timeval past {};
      const eventer_t e = eventer_alloc_timer(Handler::call, &feeder, &past);
      eventer_set_owner(e, eventer_choose_owner(i));
      ASSERT_EQ(eventer_add(e), 0);
    }
    running.wait();
    eventer_stop();
    eventer_jobq_destroy(queue);
    ASSERT_EQ(added, over);
  }
}

TEST(EventerJobqDeathTest, DestroyingFromAWorkerIsFatal) {
  EXPECT_DEATH(
      {
        eventer_jobq_t *const queue = eventer_jobq_create("jobq/death", 1);
        Job job([&](eventer_t, int) { eventer_jobq_destroy(queue); });
        eventer_add_asynch(queue, job.event());
        job.wait();
      },
      "message=\"\\[FATAL\\] a job queue is destroyed from a loop or worker thread\"\n");
}

}  // namespace
