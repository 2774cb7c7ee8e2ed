#include "liborlith/util/oil_lock_private.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include "liborlith/util/metric_locator_internal.h"
#include "liborlith/util/oil.h"
#include "liborlith/util/oil_private.h"
#include "test/util/oil_support.h"

// A waiter yields after some rounds (pl_relax). A test that must know that another thread has come to wait lets
// that thread note its first yield here.
extern "C" {
int __real_sched_yield(void) noexcept;
int __wrap_sched_yield(void) noexcept;
}

static thread_local std::atomic<bool> *waiting = nullptr;

int __wrap_sched_yield(void) noexcept {
  if (waiting != nullptr) *waiting = true;
  return __real_sched_yield();
}

namespace {

using namespace liborlith;
using testing::ElementsAre;
using testing::Pair;

uint64_t now_in(const uint64_t &word) {
  return __atomic_load_n(&word, __ATOMIC_ACQUIRE);
}

// Waits, without a time limit of its own, until `holds` does.
template <typename Condition>
void await(Condition holds) {
  while (!holds()) std::this_thread::yield();
}

TEST(OilLock, EachHoldHasItsSumAndDroppingItLeavesNothing) {
  uint64_t word = 0;
  pl_take_shared(&word);
  EXPECT_EQ(word, 0x4u);
  pl_take_shared(&word);
  EXPECT_EQ(word, 0x8u);
  pl_drop_shared(&word);
  pl_drop_shared(&word);
  pl_take_seek(&word);
  EXPECT_EQ(word, 0x100000004u);
  pl_take_shared(&word);
  EXPECT_EQ(word, 0x100000008u);
  pl_drop_shared(&word);
  pl_take_upgrade(&word);
  EXPECT_EQ(word, 0x500000004u);
  pl_drop_upgrade(&word);
  EXPECT_EQ(word, 0x100000004u);
  pl_drop_seek(&word);
  EXPECT_EQ(word, 0u);
  pl_take_write(&word);
  EXPECT_EQ(word, 0x500000004u);
  pl_drop_write(&word);
  EXPECT_EQ(word, 0u);
}

TEST(OilLock, ReadersGetInBesideASeeker) {
  uint64_t word = 0;
  pl_take_seek(&word);
  std::thread reader([&] {
    pl_take_shared(&word);
    pl_drop_shared(&word);
  });
  reader.join();
  EXPECT_EQ(word, 0x100000004u);
}

TEST(OilLock, AnUpgradeWaitsForTheLastReaderAndHoldsNewOnesOff) {
  uint64_t word = 0;
  std::atomic<bool> upgraded{false}, read_again{false};
  pl_take_shared(&word);
  std::thread writer([&] {
    pl_take_seek(&word);
    pl_take_upgrade(&word);
    upgraded = true;
    EXPECT_FALSE(read_again);
    pl_drop_upgrade(&word);
    pl_drop_seek(&word);
  });
  await([&] { return now_in(word) == 0x500000008u; });
  EXPECT_FALSE(upgraded);
  std::thread late_reader([&] {
    pl_take_shared(&word);
    read_again = true;
    EXPECT_TRUE(upgraded);
    pl_drop_shared(&word);
  });
  EXPECT_FALSE(read_again);
  pl_drop_shared(&word);
  writer.join();
  late_reader.join();
  EXPECT_EQ(word, 0u);
}

TEST(OilLock, ADirectWriterWaitsForReadersAndForASeeker) {
  uint64_t word = 0;
  std::atomic<bool> wrote{false};
  pl_take_shared(&word);
  std::thread writer([&] {
    pl_take_write(&word);
    wrote = true;
    pl_drop_write(&word);
  });
  await([&] { return now_in(word) == 0x500000008u; });
  EXPECT_FALSE(wrote);
  pl_drop_shared(&word);
  writer.join();
  EXPECT_TRUE(wrote);

  wrote = false;
  pl_take_seek(&word);
  std::thread second([&] {
    pl_take_write(&word);
    wrote = true;
    pl_drop_write(&word);
  });
  EXPECT_FALSE(wrote);
  pl_drop_seek(&word);
  second.join();
  EXPECT_TRUE(wrote);
  EXPECT_EQ(word, 0u);
}

// Every kind of holder at once: writers change two plain words together, everyone else must see them equal; the
// thread sanitizer sees an access that the lock does not order.
TEST(OilLock, KeepsItsPromisesUnderContention) {
  uint64_t word = 0;
  uint64_t left = 0, right = 0;
  uint64_t sought = 0;  // only seekers and writers touch it
  constexpr int rounds = 4000;
  const auto reader = [&] {
    for (int i = 0; i < rounds; ++i) {
      const SharedHold hold(&word);
      ASSERT_EQ(left, right);
    }
  };
  const auto seeker = [&] {
    for (int i = 0; i < rounds; ++i) {
      pl_take_seek(&word);
      ++sought;
      if (i % 3 == 0) {
        pl_take_upgrade(&word);
        ++left;
        ++right;
        pl_drop_upgrade(&word);
      }
      pl_drop_seek(&word);
    }
  };
  const auto writer = [&] {
    for (int i = 0; i < rounds; ++i) {
      pl_take_write(&word);
      ++sought;
      ++left;
      ++right;
      pl_drop_write(&word);
    }
  };
  std::vector<std::thread> threads;
  for (int i = 0; i < 2; ++i) {
    threads.emplace_back(reader);
    threads.emplace_back(seeker);
    threads.emplace_back(writer);
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(word, 0u);
  EXPECT_EQ(left, 2u * (rounds + (rounds + 2) / 3));
  EXPECT_EQ(sought, 4u * rounds);
}

// Runs `call` on a thread of its own while `held` says how this one holds the lock; it must come to wait. Then
// does `meanwhile`, lets go and joins.
enum class Held { shared, seek, write };
template <typename Call, typename Meanwhile>
void expect_waits(uint64_t *lock, Held held, Call call, Meanwhile meanwhile) {
  const auto take = held == Held::shared ? pl_take_shared : held == Held::seek ? pl_take_seek : pl_take_write;
  const auto drop = held == Held::shared ? pl_drop_shared : held == Held::seek ? pl_drop_seek : pl_drop_write;
  take(lock);
  std::atomic<bool> waits{false}, done{false};
  std::thread other([&] {
    waiting = &waits;
    call();
    waiting = nullptr;
    done = true;
  });
  await([&] { return waits.load(); });
  EXPECT_FALSE(done);
  meanwhile();
  drop(lock);
  other.join();
}
template <typename Call>
void expect_waits(uint64_t *lock, Held held, Call call) {
  expect_waits(lock, held, call, [] {});
}

TEST(OilLocking, EveryReaderWaitsForAWriter) {
  const OilPtr oil = raw_list({{10, 20}, {400, 500}});
  const OilPtr other = raw_list({{10, 20}, {400, 500}});
  uint64_t *lock = &oil->lock;
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_size(oil.get()), 2u); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_capacity(oil.get()), 2u); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_epoch_apoc(oil.get(), nullptr, nullptr), 1); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_find(oil.get(), 15, nullptr), 1); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_range_contains(oil.get(), 1, 10, nullptr), 1); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_exact_match(oil.get(), other.get()), 1); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_exact_match(other.get(), oil.get()), 1); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_valid(oil.get()), 1); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(contents(oil.get()).size(), 2u); });
  expect_waits(lock, Held::write, [&] { EXPECT_EQ(oil_print(oil.get(), nullptr, 0), 19u); });
  EXPECT_EQ(oil->lock, 0u);
  EXPECT_EQ(other->lock, 0u);
}

TEST(OilLocking, ExactMatchHoldsTheFirstListWhileItWaitsForTheSecond) {
  const OilPtr a = raw_list({{10, 20}});
  const OilPtr b = raw_list({{10, 20}});
  expect_waits(
      &b->lock, Held::write, [&] { EXPECT_EQ(oil_exact_match(a.get(), b.get()), 1); },
      [&] { EXPECT_EQ(now_in(a->lock), 4u); });
  expect_waits(
      &b->lock, Held::write, [&] { EXPECT_EQ(oil_exact_match(b.get(), a.get()), 1); },
      [&] { EXPECT_EQ(now_in(a->lock), 0u); });
}

// Readers are held up only when entries move: here this thread itself is the reader.
TEST(OilLocking, StretchingIntervalsDoesNotWaitForReaders) {
  const OilPtr oil = raw_list({{100, 200}, {1000, 1100}, {2000, 2100}});
  pl_take_shared(&oil->lock);
  EXPECT_EQ(oil_put(oil.get(), 2050, 2200), 1) << "the last interval, from inside";
  EXPECT_EQ(oil_put(oil.get(), 2250, 2300), 1) << "the last interval, over a small gap";
  EXPECT_EQ(oil_put(oil.get(), 150, 1050), 1) << "a gap between two";
  EXPECT_EQ(oil_put(oil.get(), 50, 150), 1) << "the first interval, downwards";
  EXPECT_EQ(oil_put(oil.get(), 60, 70), 0) << "nothing";
  pl_drop_shared(&oil->lock);
  EXPECT_THAT(contents(oil.get()), ElementsAre(Pair(50, 200), Pair(201, 1100), Pair(2000, 2300)));
}

TEST(OilLocking, AppendsAndInsertionsWaitForReaders) {
  const OilPtr oil(oil_alloc());
  for (const uint32_t t : {1000u, 5000u, 100u, 3000u})
    expect_waits(&oil->lock, Held::shared, [&] { EXPECT_EQ(oil_put(oil.get(), t, t), 1); });
  EXPECT_EQ(contents(oil.get()).size(), 4u);
  expect_waits(&oil->lock, Held::seek, [&] { EXPECT_EQ(oil_put(oil.get(), 1000, 1000), 0); });
}

TEST(OilLocking, AMergeReadsItsSourceAndWritesTheLocatorsList) {
  orlith_metric_locator locator{};
  locator.activity_oil = oil_alloc();
  const OilPtr src = raw_list({{10, 20}});
  expect_waits(&src->lock, Held::write, [&] { EXPECT_EQ(oil_merge_inplace(&locator, src.get()), 1); });
  expect_waits(
      &locator.activity_oil->lock, Held::shared,
      [&] { EXPECT_EQ(oil_merge_inplace(&locator, src.get()), 0); },
      [&] {
        EXPECT_EQ(now_in(src->lock), 4u);
        EXPECT_EQ(now_in(locator.activity_oil->lock), 0x500000008u);
      });
  oil_free(locator.activity_oil);
}

TEST(OilLocking, AFreeWaitsForTheWriterThatIsStillAtWork) {
  oil_list_t *oil = oil_alloc();
  pl_take_write(&oil->lock);
  std::atomic<bool> waits{false};
  std::thread other([&] {
    waiting = &waits;
    oil_free(oil);
    waiting = nullptr;
  });
  await([&] { return waits.load(); });
  oil_append_after_locked(oil, 1, 2);
  pl_drop_write(&oil->lock);
  other.join();
}

// The clone has made room for one interval by the time it waits, and finds three.
TEST(OilLocking, ACloneOfAListThatHasGrownMeanwhileHoldsAllOfIt) {
  const OilPtr oil = raw_list({{10, 20}});
  OilPtr clone;
  expect_waits(
      &oil->lock, Held::write, [&] { clone.reset(oil_clone(oil.get())); },
      [&] {
        oil_append_after_locked(oil.get(), 400, 500);
        oil_append_after_locked(oil.get(), 600, 700);
      });
  EXPECT_EQ(oil_capacity(clone.get()), 3u);
  EXPECT_THAT(contents(clone.get()), ElementsAre(Pair(10, 20), Pair(400, 500), Pair(600, 700)));
}

// Readers over a list that several writers extend, insert into and merge into, all at once.
TEST(OilStress, ReadersSeeAValidListWhileOthersWrite) {
  orlith_metric_locator locator{};
  locator.activity_oil = oil_alloc();
  oil_list_t *oil = locator.activity_oil;
  oil_put(oil, 1000000, 1000000);
  constexpr uint32_t rounds = 1500;
  constexpr uint32_t writer_count = 3;
  std::atomic<uint32_t> writing{writer_count + 1};

  std::vector<std::thread> threads;
  for (uint32_t w = 0; w < writer_count; ++w) {
    threads.emplace_back([&, w] {
      std::mt19937 random(w + 1);
      for (uint32_t i = 0; i < rounds; ++i) {
        const uint32_t span = i % 50 == 0 ? 3000 : 40;
        const uint32_t first = static_cast<uint32_t>(random() % 1000000);
        oil_put(oil, first, first + static_cast<uint32_t>(random() % span));
        oil_put(oil, 1000000 + i, 1000000 + i);  // the steady extension
      }
      --writing;
    });
  }
  threads.emplace_back([&] {
    const OilPtr src(oil_alloc());
    for (uint32_t i = 0; i < 200; ++i) {
      oil_put(src.get(), i * 5000 + 1, i * 5000 + 10);
      oil_merge_inplace(&locator, src.get());
    }
    --writing;
  });
  for (uint32_t r = 0; r < 3; ++r) {
    threads.emplace_back([&, r] {
      std::mt19937 random(r + 100);
      uint32_t seen_apocalypse = 0;
      while (writing > 0) {
        ASSERT_EQ(oil_valid(oil), 1);
        uint32_t epoch = 0, apocalypse = 0;
        ASSERT_EQ(oil_epoch_apoc(oil, &epoch, &apocalypse), 1);
        ASSERT_GE(apocalypse, seen_apocalypse) << "activity is never taken back";
        seen_apocalypse = apocalypse;
        ASSERT_EQ(oil_find(oil, 1000000, nullptr), 1);
        const uint32_t t = static_cast<uint32_t>(random() % 1000000);
        oil_range_contains(oil, t, t + 100, nullptr);
        const OilPtr clone(oil_clone(oil));
        ASSERT_EQ(oil_valid(clone.get()), 1);
        char text[64];
        oil_print(oil, text, sizeof text);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(oil->lock, 0u);
  EXPECT_EQ(oil_valid(oil), 1);
  for (uint32_t i = 0; i < rounds; ++i) ASSERT_EQ(oil_find(oil, 1000000 + i, nullptr), 1);
  for (uint32_t i = 0; i < 200; ++i) ASSERT_EQ(oil_find(oil, i * 5000 + 5, nullptr), 1);
  // Whatever the interleaving was, everything that was put is covered.
  for (uint32_t w = 0; w < writer_count; ++w) {
    std::mt19937 random(w + 1);
    for (uint32_t i = 0; i < rounds; ++i) {
      const uint32_t span = i % 50 == 0 ? 3000 : 40;
      const uint32_t first = static_cast<uint32_t>(random() % 1000000);
      const uint32_t last = first + static_cast<uint32_t>(random() % span);
      for (uint32_t t : {first, last}) ASSERT_EQ(oil_find(oil, t, nullptr), 1) << t;
    }
  }
  oil_free(oil);
}

}  // namespace
