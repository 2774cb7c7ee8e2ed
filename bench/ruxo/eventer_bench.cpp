// The event loop. Goal: handing a job to a queue and having its completion back on the owner takes at most 3 times a
// bare round trip between two threads over condition variables. Neighbours: that; and for descriptors and timers what
// the system's calls cost without a loop.
#include "ruxo/eventer.h"

#include <benchmark/benchmark.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "test/support/event_loops.h"
#include "test/support/socket_pair.h"

namespace {

// Two threads that wake each other.
void neighbour_condition_variable_round_trip(benchmark::State &state) {
  std::mutex lock;
  std::condition_variable changed;
  enum class Turn { ours, theirs, over } turn = Turn::ours;
  std::thread other([&] {
    std::unique_lock guard(lock);
    for (;;) {
      changed.wait(guard, [&] { return turn != Turn::ours; });
      if (turn == Turn::over) return;
      turn = Turn::ours;
      changed.notify_one();
    }
  });
  for (auto _ : state) {
    std::unique_lock guard(lock);
    turn = Turn::theirs;
    changed.notify_one();
    changed.wait(guard, [&] { return turn == Turn::ours; });
  }
  {
    const std::lock_guard guard(lock);
    turn = Turn::over;
    changed.notify_one();
  }
  other.join();
}
BENCHMARK(neighbour_condition_variable_round_trip)->UseRealTime();

// From the owner's thread to a worker, and back on the owner's thread, as many times as the benchmark asks: each
// completion hands over the next job.
struct RoundTrips {
  eventer_jobq_t *queue;
  int64_t left;
  Happened over;

  void next() { eventer_add_asynch(queue, eventer_alloc_asynch(step, this)); }
  static int step(eventer_t, int phase, void *closure, struct timeval *) {
    auto *const self = static_cast<RoundTrips *>(closure);
    if (phase != EVENTER_ASYNCH_COMPLETE) return 0;
    if (--self->left > 0) {
      self->next();
    } else {
      self->over.once();
    }
    return 0;
  }
};

void job_round_trip(benchmark::State &state) {
  const EventLoops loops(1);
  eventer_jobq_t *const queue = eventer_jobq_create("bench", static_cast<unsigned>(state.range(0)));
  constexpr int64_t batch = 100;
  for (auto _ : state) {
    RoundTrips trips{queue, batch, {}};
    on_loop(eventer_choose_owner(0), [&] { trips.next(); });
    trips.over.wait();
  }
  state.SetItemsProcessed(state.iterations() * batch);
  state.counters["each"] = benchmark::Counter(static_cast<double>(state.iterations() * batch),
                                              benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
  eventer_jobq_destroy(queue);
}
BENCHMARK(job_round_trip)->Arg(1)->Arg(8)->UseRealTime();

// Without waiting for each: what a job costs when there is always another.
void job_throughput(benchmark::State &state) {
  const EventLoops loops(1);
  eventer_jobq_t *const queue = eventer_jobq_create("bench", 1);
  constexpr int64_t batch = 1000;
  for (auto _ : state) {
    Happened over;
    std::atomic<int64_t> left = batch;
    Handler handler([&](eventer_t, int phase, const struct timeval &) {
      if (phase == EVENTER_ASYNCH_COMPLETE && --left == 0) over.once();
      return 0;
    });
    for (int64_t i = 0; i < batch; ++i)
      eventer_add_asynch(queue, eventer_alloc_asynch(Handler::call, &handler));
    over.wait();
  }
  state.SetItemsProcessed(state.iterations() * batch);
  eventer_jobq_destroy(queue);
}
BENCHMARK(job_throughput)->UseRealTime();

// A byte to a thread that waits with the system's call, and one back.
void neighbour_epoll_round_trip(benchmark::State &state) {
  const SocketPair sockets;
  std::thread other([&] {
    const int waiter = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    epoll_ctl(waiter, EPOLL_CTL_ADD, sockets.near(), &event);
    for (char byte = 'x'; byte == 'x';) {
      epoll_wait(waiter, &event, 1, -1);
      if (read(sockets.near(), &byte, 1) != 1 || write(sockets.near(), &byte, 1) != 1) break;
    }
    close(waiter);
  });
  const int waiter = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  epoll_ctl(waiter, EPOLL_CTL_ADD, sockets.far(), &event);
  const auto exchange = [&](char byte) {
    if (write(sockets.far(), &byte, 1) != 1) return;
    epoll_wait(waiter, &event, 1, -1);
    benchmark::DoNotOptimize(read(sockets.far(), &byte, 1));
  };
  for (auto _ : state) exchange('x');
  exchange('e');
  other.join();
  close(waiter);
}
BENCHMARK(neighbour_epoll_round_trip)->UseRealTime();

// The same to a loop thread.
void descriptor_round_trip(benchmark::State &state) {
  const SocketPair sockets;
  Handler handler([&](eventer_t, int, const struct timeval &) {
    char byte;
    if (read(sockets.near(), &byte, 1) == 1) benchmark::DoNotOptimize(write(sockets.near(), &byte, 1));
    return EVENTER_READ;
  });
  const EventLoops loops(1);
  eventer_add(eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ));
  const int waiter = epoll_create1(EPOLL_CLOEXEC);
  epoll_event event{};
  event.events = EPOLLIN;
  epoll_ctl(waiter, EPOLL_CTL_ADD, sockets.far(), &event);
  for (auto _ : state) {
    char byte = 'x';
    if (write(sockets.far(), &byte, 1) != 1) break;
    epoll_wait(waiter, &event, 1, -1);
    benchmark::DoNotOptimize(read(sockets.far(), &byte, 1));
  }
  close(waiter);
}
BENCHMARK(descriptor_round_trip)->UseRealTime();

// Taking a connection off the loop and putting it back, on its thread.
void float_and_return(benchmark::State &state) {
  const SocketPair sockets;
  Handler handler([](eventer_t, int, const struct timeval &) { return EVENTER_READ; });
  const EventLoops loops(1);
  const eventer_t e = eventer_alloc_fd(Handler::call, &handler, sockets.near(), EVENTER_READ);
  eventer_add(e);
  on_loop(eventer_choose_owner(0), [&] {
    for (auto _ : state) {
      eventer_remove_fd(sockets.near());
      eventer_add(e);
    }
  });
}
BENCHMARK(float_and_return);

// A deadline that is set and taken back, as each phase of a request does.
void timer_set_and_taken_back(benchmark::State &state) {
  Handler handler([](eventer_t, int, const struct timeval &) { return 0; });
  const EventLoops loops(1);
  on_loop(eventer_choose_owner(0), [&] {
    for (auto _ : state) {
      const eventer_t e = eventer_add_in_s_us(Handler::call, &handler, 10, 0);
      eventer_free(eventer_remove_timer(e));
    }
  });
}
BENCHMARK(timer_set_and_taken_back);

}  // namespace
