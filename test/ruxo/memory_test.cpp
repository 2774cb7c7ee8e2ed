#include "ruxo/memory.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <string.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "test/support/child_process.h"

namespace {

class Section {
 public:
  Section() { ruxo_memory_begin(); }
  ~Section() { ruxo_memory_end(); }
};

// A thread that sits in a section from its construction until told to leave.
class Reader {
 public:
  Reader() : thread_([this] { run(); }) {
    while (!inside_) std::this_thread::yield();
  }
  ~Reader() { leave(); }
  void leave() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  void run() {
    const Section section;
    inside_ = true;
    while (!stop_) std::this_thread::yield();
  }
  std::atomic<bool> inside_{false};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

size_t allocated_bytes() {
  return mallinfo2().uordblks + mallinfo2().hblkhd;
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMallocIsReplaced = true;
#else
constexpr bool kMallocIsReplaced = false;
#endif

}  // namespace

TEST(Memory, KnowsWhetherTheThreadIsInASection) {
  EXPECT_FALSE(ruxo_memory_in_cs());
  ruxo_memory_begin();
  EXPECT_TRUE(ruxo_memory_in_cs());
  bool elsewhere = true;
  std::thread([&] { elsewhere = ruxo_memory_in_cs(); }).join();
  EXPECT_FALSE(elsewhere);
  ruxo_memory_end();
  EXPECT_FALSE(ruxo_memory_in_cs());
}

TEST(Memory, SectionsNest) {
  ruxo_memory_begin();
  ruxo_memory_begin();
  ruxo_memory_end();
  EXPECT_TRUE(ruxo_memory_in_cs());
  ruxo_memory_end();
  EXPECT_FALSE(ruxo_memory_in_cs());
}

TEST(Memory, BlocksAreAlignedAndUsable) {
  for (size_t size = 0; size < 100; ++size) {
    void *const block = ruxo_memory_safe_malloc(size);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
    memset(block, 0xab, size);
    ruxo_memory_safe_free(block);
  }
  ruxo_memory_safe_free(nullptr);
}

TEST(Memory, CallocClearsAndStrdupCopies) {
  auto *const numbers = static_cast<int *>(ruxo_memory_safe_calloc(100, sizeof(int)));
  for (int i = 0; i < 100; ++i) EXPECT_EQ(numbers[i], 0);
  ruxo_memory_safe_free(numbers);
  char *const copy = ruxo_memory_safe_strdup("text");
  EXPECT_STREQ(copy, "text");
  ruxo_memory_safe_free(copy);
}

TEST(Memory, RefusesSizesThatOverflow) {
  EXPECT_EQ(ruxo_memory_safe_malloc(SIZE_MAX), nullptr);
  EXPECT_EQ(ruxo_memory_safe_malloc(SIZE_MAX - 8), nullptr);
  EXPECT_EQ(ruxo_memory_safe_calloc(SIZE_MAX / 2, 3), nullptr);
}

// What the address sanitizer would report: a block used after it was given back, within a section.
TEST(Memory, ABlockOutlivesTheSectionsThatCanSeeIt) {
  std::atomic<char *> shared{ruxo_memory_safe_strdup("first")};
  ruxo_memory_begin();
  char *const seen = shared;
  std::thread([&] {
    ruxo_memory_safe_free(shared.exchange(ruxo_memory_safe_strdup("second")));
    for (int i = 0; i < 1000; ++i) ruxo_memory_safe_free(ruxo_memory_safe_strdup("noise"));
  }).join();
  for (int i = 0; i < 1000; ++i) ruxo_memory_safe_free(ruxo_memory_safe_strdup("noise"));
  EXPECT_STREQ(seen, "first");
  ruxo_memory_end();
  ruxo_memory_safe_free(shared);
}

TEST(Memory, ABlockFreedByItsOwnSectionOutlivesIt) {
  const Section section;
  char *const text = ruxo_memory_safe_strdup("text");
  ruxo_memory_safe_free(text);
  for (int i = 0; i < 1000; ++i) ruxo_memory_safe_free(ruxo_memory_safe_strdup("noise"));
  EXPECT_STREQ(text, "text");
}

TEST(Memory, SynchronizeWaitsForSections) {
  auto reader = std::make_unique<Reader>();
  std::atomic<bool> waited{false};
  std::thread writer([&] {
    ruxo_memory_safe_free(ruxo_memory_safe_strdup("text"));
    ruxo_memory_synchronize();
    waited = true;
  });
  for (int i = 0; i < 100; ++i) std::this_thread::yield();
  EXPECT_FALSE(waited);
  reader->leave();
  writer.join();
  EXPECT_TRUE(waited);
}

TEST(Memory, FreesMakeProgressWithoutAnyHelp) {
  if (kMallocIsReplaced) GTEST_SKIP() << "the sanitizers' allocators have no such counters";
  ruxo_memory_synchronize();
  const size_t before = allocated_bytes();
  for (int i = 0; i < 10000; ++i) ruxo_memory_safe_free(ruxo_memory_safe_malloc(100000));
  EXPECT_LT(allocated_bytes(), before + 200 * 100000) << "of a billion bytes, at most a few batches wait";
}

TEST(Memory, LeavingSectionsFreesWhatFewFreesLeft) {
  if (kMallocIsReplaced) GTEST_SKIP() << "the sanitizers' allocators have no such counters";
  ruxo_memory_synchronize();
  const size_t before = allocated_bytes();
  ruxo_memory_safe_free(ruxo_memory_safe_malloc(10000000));
  for (int i = 0; i < 100; ++i) {
    const Section section;
  }
  EXPECT_LT(allocated_bytes(), before + 1000000);
}

TEST(Memory, WhatAThreadLeavesBehindIsFreedByOthers) {
  if (kMallocIsReplaced) GTEST_SKIP() << "the sanitizers' allocators have no such counters";
  ruxo_memory_synchronize();
  const size_t before = allocated_bytes();
  Reader reader;
  for (int i = 0; i < 50; ++i) {
    std::thread([] { ruxo_memory_safe_free(ruxo_memory_safe_malloc(1000000)); }).join();
  }
  EXPECT_GT(allocated_bytes(), before + 49 * 1000000) << "the reader might look at all of it";
  reader.leave();
  ruxo_memory_synchronize();
  EXPECT_LT(allocated_bytes(), before + 1000000);
}

TEST(Memory, AThreadThatEndsInsideASectionHoldsNothingBack) {
  std::thread([] { ruxo_memory_begin(); }).join();
  ruxo_memory_safe_free(ruxo_memory_safe_strdup("text"));
  ruxo_memory_synchronize();
}

// Writers swap texts under readers that check them; the sanitizers see any read of a freed or half-written
// one.
TEST(Memory, ReadersNeverSeeFreedTexts) {
  constexpr int kSlots = 8;
  std::atomic<char *> slots[kSlots];
  for (auto &slot : slots) slot = ruxo_memory_safe_strdup("0000000000");
  std::atomic<int> writers_left{3};
  std::vector<std::thread> threads;
  for (int w = 0; w < 3; ++w) {
    threads.emplace_back([&, w] {
      for (int i = 0; i < 3000; ++i) {
        char text[11];
        memset(text, '0' + (i + w) % 10, 10);
        text[10] = '\0';
        ruxo_memory_safe_free(slots[(i * 7 + w) % kSlots].exchange(ruxo_memory_safe_strdup(text)));
      }
      --writers_left;
    });
  }
  std::atomic<int> torn{0};
  for (int r = 0; r < 4; ++r) {
    threads.emplace_back([&, r] {
      for (int i = r; writers_left > 0; ++i) {
        const Section outer;
        const char *const text = slots[i % kSlots];
        const Section inner;
        torn += strlen(text) != 10 || text[0] != text[9];
        // Threads come and go too.
        if (i % 500 == 0) std::thread([] { const Section section; }).join();
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
  for (auto &slot : slots) ruxo_memory_safe_free(slot);
}

TEST(Memory, AForkedChildIsNotHeldUpByThreadsOfTheParent) {
  FORKS_WITH_THREADS();
  Reader reader;
  const ChildResult child = run_in_child([] {
    ruxo_memory_safe_free(ruxo_memory_safe_strdup("text"));
    ruxo_memory_synchronize();
    const Section section;
  });
  EXPECT_TRUE(child.exited_with(0));
}

TEST(MemoryDeathTest, EndingASectionThatWasNotBegunIsFatal) {
  EXPECT_DEATH(ruxo_memory_end(), "message=\"\\[FATAL\\] a memory section is ended that was not begun\"");
}

TEST(MemoryDeathTest, WaitingInsideASectionIsFatal) {
  EXPECT_DEATH(
      {
        ruxo_memory_begin();
        ruxo_memory_synchronize();
      },
      "message=\"\\[FATAL\\] a thread inside a memory section waits for all sections to end\"");
}
