// Deferred reclamation under contention: who is held up by whom, and when memory comes back. The figures of the heap
// are looked at only where its own allocator is in place; the sanitizers, which replace it, see misuse instead.
#include <gtest/gtest.h>
#include <malloc.h>
#include <string.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "ruxo/memory.h"
#include "test/support/child_process.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kMallocIsReplaced = true;
#else
constexpr bool kMallocIsReplaced = false;
#endif

constexpr size_t kBlock = 100000;

class Section {
 public:
  Section() { ruxo_memory_begin(); }
  ~Section() { ruxo_memory_end(); }
};

// A thread that does what it is told, one thing after the other, and otherwise sleeps.
class Worker {
 public:
  Worker() : thread_([this] { run(); }) {}
  ~Worker() {
    tell(nullptr);
    thread_.join();
  }
  void operator()(std::function<void()> work) {
    tell(std::move(work));
    std::unique_lock lock(lock_);
    changed_.wait(lock, [this] { return !told_; });
  }

 private:
  void tell(std::function<void()> work) {
    const std::lock_guard lock(lock_);
    work_ = std::move(work);
    told_ = true;
    changed_.notify_all();
  }
  void run() {
    std::unique_lock lock(lock_);
    for (;;) {
      changed_.wait(lock, [this] { return told_; });
      if (work_ == nullptr) return;
      work_();
      told_ = false;
      changed_.notify_all();
    }
  }

  std::mutex lock_;
  std::condition_variable changed_;
  std::function<void()> work_;
  bool told_ = false;
  std::thread thread_;
};

size_t heap_bytes() {
  const auto info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

// Blocks of kBlock that have been added to the heap since the start, rounded.
class Heap {
 public:
  Heap() : before_((ruxo_memory_synchronize(), heap_bytes())) {}
  void expect_blocks(size_t least, size_t most) const {
    if (kMallocIsReplaced) return;
    const size_t now = heap_bytes();
    const size_t blocks = now < before_ ? 0 : (now - before_ + kBlock / 2) / kBlock;
    EXPECT_GE(blocks, least);
    EXPECT_LE(blocks, most);
  }

 private:
  size_t before_;
};

void free_blocks(int count) {
  for (int i = 0; i < count; ++i) ruxo_memory_safe_free(ruxo_memory_safe_malloc(kBlock));
}

}  // namespace

TEST(MemoryStress, WithoutSectionsAFreeIsCarriedOutAtOnce) {
  const Heap heap;
  free_blocks(1);
  heap.expect_blocks(0, 0);
  free_blocks(1000);
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, ALeavingReaderGivesBackWhatSleepingWritersFreed) {
  const Heap heap;
  for (const int count : {1, 2, 5, 63, 64, 65, 200}) {
    Worker reader, first_writer, second_writer;
    reader([] { ruxo_memory_begin(); });
    first_writer([=] { free_blocks(count); });
    second_writer([=] { free_blocks(count); });
    heap.expect_blocks(2 * static_cast<size_t>(count), 2 * static_cast<size_t>(count));
    reader([] { ruxo_memory_end(); });
    heap.expect_blocks(0, 0);
  }
}

TEST(MemoryStress, TheLastOfSeveralReadersGivesBack) {
  const Heap heap;
  Worker first, second, third, writer;
  first([] { ruxo_memory_begin(); });
  writer([] { free_blocks(10); });
  second([] { ruxo_memory_begin(); });
  writer([] { free_blocks(10); });
  third([] { ruxo_memory_begin(); });
  writer([] { free_blocks(10); });
  heap.expect_blocks(30, 30);
  second([] { ruxo_memory_end(); });
  heap.expect_blocks(10, 30);
  first([] { ruxo_memory_end(); });
  third([] { ruxo_memory_end(); });
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, OnlyTheOutermostOfNestedSectionsGivesBack) {
  const Heap heap;
  Worker reader, writer;
  reader([] {
    for (int i = 0; i < 5; ++i) ruxo_memory_begin();
  });
  writer([] { free_blocks(10); });
  for (int i = 0; i < 4; ++i) {
    reader([] { ruxo_memory_end(); });
    heap.expect_blocks(10, 10);
  }
  reader([] { ruxo_memory_end(); });
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, ASectionGivesBackWhatItFreedItself) {
  const Heap heap;
  for (int i = 0; i < 100; ++i) {
    const Section section;
    free_blocks(3);
  }
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, ASectionHoldsBackWhatWaitedAsItOpenedAndWhatIsFreedMeanwhile) {
  const Heap heap;
  Worker early, late, writer;
  early([] { ruxo_memory_begin(); });
  writer([] { free_blocks(200); });
  late([] { ruxo_memory_begin(); });
  heap.expect_blocks(200, 200);
  early([] { ruxo_memory_end(); });
  heap.expect_blocks(0, 200);
  writer([] { free_blocks(100); });
  heap.expect_blocks(100, 300);
  late([] { ruxo_memory_end(); });
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, ReadersThatComeAndGoHoldBackLittle) {
  const Heap heap;
  std::atomic<bool> done{false};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; ++r) {
    readers.emplace_back([&] {
      while (!done) const Section section;
    });
  }
  for (int i = 0; i < 100; ++i) free_blocks(1000);
  // A reader that the scheduler keeps from running inside its section holds back a time slice's worth.
  done = true;
  for (std::thread &reader : readers) reader.join();
  ruxo_memory_synchronize();
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, AReaderThatEndsInsideItsSectionGivesBack) {
  const Heap heap;
  Worker writer;
  {
    Worker reader;
    reader([] { ruxo_memory_begin(); });
    writer([] { free_blocks(100); });
    heap.expect_blocks(100, 100);
  }
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, RecordsOfThreadsThatEndedAreUsedAgain) {
  std::thread([] { const Section section; }).join();
  const Heap heap;
  for (int i = 0; i < 1000; ++i) {
    std::thread([] {
      const Section section;
      free_blocks(1);
    }).join();
  }
  heap.expect_blocks(0, 0);  // a record is 256 bytes
}

// Writers replace linked pairs under readers in nested sections; threads come and go meanwhile.
TEST(MemoryStress, NestedReadersOfManyThreadsNeverSeeWhatIsFreed) {
  struct Pair {
    std::atomic<uint64_t> sum{0};
    uint64_t a = 0, b = 0;
  };
  const auto make_pair = [](uint64_t a) {
    auto *const pair = new (ruxo_memory_safe_malloc(sizeof(Pair))) Pair;
    pair->a = a;
    pair->b = ~a;
    return pair;
  };
  std::array<std::atomic<Pair *>, 4> slots;
  for (auto &slot : slots) slot = make_pair(1);
  std::atomic<int> writers_left{2};
  std::atomic<int> torn{0};
  std::vector<std::thread> threads;
  for (unsigned w = 0; w < 2; ++w) {
    threads.emplace_back([&, w] {
      std::mt19937 random(w);
      for (int i = 0; i < 20000; ++i) {
        Pair *const old = slots[random() % slots.size()].exchange(make_pair(random()));
        ruxo_memory_safe_free(old);
      }
      --writers_left;
    });
  }
  for (unsigned r = 0; r < 3; ++r) {
    threads.emplace_back([&, r] {
      std::mt19937 random(100 + r);
      const auto look = [&](auto &&deeper, int depth) -> void {
        const Section section;
        const Pair *const pair = slots[random() % slots.size()].load();
        if (depth > 0) deeper(deeper, depth - 1);
        torn += pair->a != ~pair->b;
      };
      for (int i = 1; writers_left > 0; ++i) {
        look(look, static_cast<int>(random() % 4));
        if (i % 1000 == 0) std::thread([&] { look(look, 2); }).join();
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(torn, 0);
  for (auto &slot : slots) ruxo_memory_safe_free(slot.load());
}

TEST(MemoryStress, AForkedChildFreesWhatThreadsOfTheParentLeftWaiting) {
  FORKS_WITH_THREADS();
  const Heap heap;
  Worker reader, writer;
  reader([] { ruxo_memory_begin(); });
  writer([] { free_blocks(100); });
  const ChildResult child = run_in_child([&] {
    const size_t before = heap_bytes();
    ruxo_memory_synchronize();
    if (!kMallocIsReplaced && heap_bytes() + 99 * kBlock > before) _exit(1);
  });
  EXPECT_TRUE(child.exited_with(0));
  heap.expect_blocks(100, 100);
  reader([] { ruxo_memory_end(); });
  heap.expect_blocks(0, 0);
}

TEST(MemoryStress, ForksInTheMidstOfFreesFindEverythingInOrder) {
  FORKS_WITH_THREADS();
  // The address sanitizer's allocator does not hand its locks over to a child: one that another thread held at the
  // fork is held for ever.
  if (kMallocIsReplaced) GTEST_SKIP() << "the sanitizer's allocator does not survive a fork amid allocations";
  std::atomic<bool> done{false};
  std::vector<std::thread> threads;
  for (int t = 0; t < 3; ++t) {
    threads.emplace_back([&] {
      while (!done) {
        {
          const Section section;
          free_blocks(2);
        }
        free_blocks(2);
        std::thread([] { free_blocks(1); }).join();
      }
    });
  }
  for (int i = 0; i < 50; ++i) {
    const ChildResult child = run_in_child([] {
      const Heap heap;
      {
        const Section section;
        free_blocks(100);
      }
      std::thread([] { free_blocks(10); }).join();
      ruxo_memory_synchronize();
    });
    EXPECT_TRUE(child.exited_with(0)) << child.stderr_text;
  }
  done = true;
  for (std::thread &thread : threads) thread.join();
}
