// Threads against each other: adding, taking out, changing and waking the same events.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <deque>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "ruxo/eventer.h"
#include "test/support/child_process.h"
#include "test/support/event_loops.h"
#include "test/support/socket_pair.h"

namespace {

// As many as the system lets a test have, at most a thousand.
size_t pair_count() {
  struct rlimit limit {};
  getrlimit(RLIMIT_NOFILE, &limit);
  const size_t room = static_cast<size_t>(limit.rlim_cur) / 2 - 64;
  return std::min<size_t>(room, child_process::built_for_thread_sanitizer() ? 200 : 1000);
}

TEST(EventerStress, ManyDescriptorsEachGetTheirOwn) {
  std::deque<SocketPair> pairs(pair_count());
  const size_t count = pairs.size();
  std::vector<std::string> received(static_cast<size_t>(pairs.back().far()) + 1);
  Happened happened;
  Handler handler([&](eventer_t e, int mask, const struct timeval &) {
    EXPECT_EQ(mask, EVENTER_READ);
    EXPECT_TRUE(eventer_is_owner(e));
    received[static_cast<size_t>(eventer_get_fd(e))] += SocketPair::receive(eventer_get_fd(e));
    happened.once();
    return EVENTER_READ;
  });
  {
    const EventLoops loops(4);
    for (const SocketPair &pair : pairs) {
      ASSERT_EQ(eventer_add(eventer_alloc_fd(Handler::call, &handler, pair.near(), EVENTER_READ)), 0);
    }
    for (const char *round : {"a", "b", "c"}) {
      for (const SocketPair &pair : pairs) {
        ASSERT_TRUE(pair.send_far(std::to_string(pair.near()) + round));
      }
      happened.wait(static_cast<int>(count));
    }
  }
  for (const SocketPair &pair : pairs) {
    const std::string number = std::to_string(pair.near());
    ASSERT_EQ(received[static_cast<size_t>(pair.near())], number + "a" + number + "b" + number + "c");
  }
}

// Every byte that is sent is received once, although the events come and go all the time and wander between owners.
TEST(EventerStress, NothingIsLostWhileEventsComeAndGo) {
  constexpr size_t kPairs = 4;
  constexpr int kBytesEach = 400;
  std::deque<SocketPair> pairs(kPairs);
  std::atomic<int> received = 0;
  std::atomic<int> inside[kPairs] = {};
  Happened all;
  struct Closure {
    std::atomic<int> *received, *inside;
    Happened *all;
  };
  std::vector<Closure> closures;
  for (auto &one : inside) closures.push_back({&received, &one, &all});
  const eventer_func_t count = [](eventer_t e, int, void *closure, struct timeval *) -> int {
    auto *c = static_cast<Closure *>(closure);
    EXPECT_EQ(++*c->inside, 1) << "one call at a time";
    char byte;
    while (read(eventer_get_fd(e), &byte, 1) == 1) {
      if (++*c->received == static_cast<int>(kPairs) * kBytesEach) c->all->once();
    }
    --*c->inside;
    return EVENTER_READ;
  };
  const EventLoops loops(2);
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  for (size_t i = 0; i < kPairs; ++i) {
    ASSERT_EQ(eventer_add(eventer_alloc_fd(count, &closures[i], pairs[i].near(), EVENTER_READ)), 0);
    threads.emplace_back([&, i] {
      for (int sent = 0; sent < kBytesEach;) {
        if (pairs[i].send_far("x")) ++sent;
        std::this_thread::yield();
      }
    });
  }
  for (int mover = 0; mover < 2; ++mover) {
    threads.emplace_back([&, mover] {
      std::minstd_rand random(static_cast<unsigned>(mover) + 1);
      while (!over) {
        const int fd = pairs[random() % kPairs].near();
        const eventer_t e = eventer_remove_fd(fd);
        if (e == nullptr) continue;
        if (random() % 2 == 0) eventer_set_owner(e, eventer_choose_owner(static_cast<unsigned>(random())));
        ASSERT_EQ(eventer_add(e), 0);
      }
    });
  }
  all.wait();
  over = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(received, static_cast<int>(kPairs) * kBytesEach);
}

TEST(EventerStress, UpdatesAndWakeupsFromManyThreads) {
  const SocketPair sockets;
  std::atomic<int> wakeups = 0;
  Happened happened;
  Handler handler([&](eventer_t e, int mask, const struct timeval &) {
    if ((mask & EVENTER_TIMER) != 0) {
      ++wakeups;
      happened.once();
    }
    SocketPair::receive(eventer_get_fd(e));
    return EVENTER_READ;
  });
  const EventLoops loops(2);
  const eventer_t e = eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ);
  ASSERT_EQ(eventer_add(e), 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i) {
        eventer_wakeup(e, EVENTER_TIMER);
        eventer_update(e, (i + t) % 2 == 0 ? EVENTER_READ : EVENTER_READ | EVENTER_WRITE);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  happened.wait(2000);
  EXPECT_EQ(wakeups, 2000);
}

// Connections as a server has them: made, answered, taken off the loop for a job and put back, closed by their own
// callback, their numbers in use again at once.
TEST(EventerStress, ConnectionsFloatThroughJobsAndBack) {
  constexpr int kConnections = 300;
  eventer_jobq_t *const queue = eventer_jobq_create("stress/float", 4);
  static Happened over;
  struct Connection {
    SocketPair sockets;
    eventer_t event = nullptr;
    eventer_jobq_t *queue = nullptr;

    static int on_job(eventer_t, int phase, void *closure, struct timeval *) {
      auto *const self = static_cast<Connection *>(closure);
      if (phase == EVENTER_ASYNCH_COMPLETE) {
        EXPECT_EQ(eventer_get_owner(self->event), pthread_self());
        EXPECT_EQ(eventer_add(self->event), 0);
        EXPECT_TRUE(self->sockets.send_far("end"));
      }
      return 0;
    }
    static int on_ready(eventer_t e, int, void *closure, struct timeval *) {
      auto *const self = static_cast<Connection *>(closure);
      EXPECT_EQ(eventer_remove_fd(eventer_get_fd(e)), e);
      if (SocketPair::receive(self->sockets.near()) == "end") {
        delete self;
        eventer_free(e);
        over.once();
        return 0;
      }
      const eventer_t job = eventer_alloc_asynch(on_job, self);
      eventer_set_owner(job, eventer_get_owner(e));
      eventer_add_asynch(self->queue, job);
      return 0;
    }
  };
  {
    const EventLoops loops(2);
    for (int i = 0; i < kConnections; ++i) {
      auto *const connection = new Connection;
      connection->queue = queue;
      connection->event =
          eventer_alloc_fd(Connection::on_ready, connection, connection->sockets.near(), EVENTER_READ);
      ASSERT_TRUE(connection->sockets.send_far("begin"));
      ASSERT_EQ(eventer_add(connection->event), 0);
      if (i >= 20) over.wait();  // a few at a time
    }
    over.wait(20);
  }
  eventer_jobq_destroy(queue);
}

TEST(EventerStress, TimersComeAndGo) {
  const EventLoops loops(2);
  std::atomic<int> ran = 0;
  std::atomic<int> taken = 0;
  Happened happened;
  Handler handler([&](eventer_t, int, const struct timeval &) {
    ++ran;
    happened.once();
    return 0;
  });
  constexpr int kRounds = 500;
  std::vector<std::thread> threads;
  for (unsigned t = 0; t < 2; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kRounds; ++i) {
        on_loop(eventer_choose_owner(t), [&] {
          const eventer_t e =
              eventer_add_in_s_us(Handler::call, &handler, 0, static_cast<unsigned long>(i % 5));
          if (i % 2 == 0 && eventer_remove_timer(e) == e) {
            eventer_free(e);
            ++taken;
          }
        });
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
  happened.wait(kRounds);
  EXPECT_EQ(ran, kRounds);
  EXPECT_EQ(taken, kRounds);
}

}  // namespace
