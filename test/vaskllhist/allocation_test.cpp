// What the library takes from the heap, and what it does when there is none left: every histogram stays as it was.
#include <gtest/gtest.h>

#include <cstddef>
#include <functional>
#include <new>
#include <vector>

#include "test/vaskllhist/histogram_support.h"

// operator new in its forms, as this executable's objects call them (see test/CMakeLists.txt).
extern "C" {
void *__real__Znwm(size_t size);
void *__wrap__Znwm(size_t size);
void *__real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &);
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &);
void *__real__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &);
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &);
}

namespace {

bool counting = false;
int allocations = 0;
int refuse_from = 0;  // the number of the first allocation that fails; 0 for none
size_t bytes_taken = 0;

bool is_refused(size_t size) {
  if (!counting) return false;
  bytes_taken += size;
  return ++allocations >= refuse_from && refuse_from != 0;
}

}  // namespace

void *__wrap__Znwm(size_t size) {
  if (is_refused(size)) throw std::bad_alloc();
  return __real__Znwm(size);
}
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &nothrow) {
  return is_refused(size) ? nullptr : __real__ZnwmRKSt9nothrow_t(size, nothrow);
}
void *__wrap__ZnamRKSt9nothrow_t(size_t size, const std::nothrow_t &nothrow) {
  return is_refused(size) ? nullptr : __real__ZnamRKSt9nothrow_t(size, nothrow);
}

namespace {

using namespace hist_test;

// Makes the call with memory running out at its n-th allocation. Returns how many it made.
int with_memory_until(int n, const std::function<void()> &call) {
  allocations = 0;
  bytes_taken = 0;
  refuse_from = n;
  counting = true;
  call();
  counting = false;
  return allocations;
}

Histogram many_buckets(int from, int count) {
  Histogram h;
  for (int i = from; i < from + count; ++i) hist_insert_scaled(h.get(), 10 + i % 90, i / 90, 1);
  return h;
}

TEST(Allocation, ReservedBucketsTakeNoMore) {
  const Histogram h(hist_alloc_bins(100));
  const int made = with_memory_until(0, [&h] {
    for (int i = 0; i < 90; ++i) hist_insert_raw_end(h.get(), bucket(10 + i, 0), 1);
  });
  EXPECT_EQ(made, 0);
  EXPECT_EQ(hist_bucket_count(h.get()), 90);
}

TEST(Allocation, CountingIntoKnownBucketsTakesNone) {
  const Histogram h = many_buckets(0, 200);
  const int made = with_memory_until(0, [&h] {
    for (int i = 0; i < 200; ++i) hist_insert_scaled(h.get(), 10 + i % 90, i / 90, 1);
  });
  EXPECT_EQ(made, 0);
  EXPECT_EQ(hist_sample_count(h.get()), 400U);
}

TEST(Allocation, NewHistogramsAreNullWithoutMemory) {
  const Histogram h{{10, 0, 1}};
  const std::vector<std::function<histogram_t *()>> makers = {
      [] { return hist_alloc(); }, [] { return hist_alloc_bins(10); }, [&h] { return hist_clone(h.get()); }};
  for (const auto &make : makers) {
    int refused = 0;
    for (histogram_t *made = nullptr; made == nullptr && refused < 100;) {
      with_memory_until(refused + 1, [&] { made = make(); });
      if (made == nullptr) ++refused;
      hist_free(made);
    }
    EXPECT_GT(refused, 0);
    EXPECT_LT(refused, 10);
  }
}

// Every allocation of every call fails once; then the call says so, and nothing has changed.
TEST(Allocation, WithoutMemoryNothingChanges) {
  const Histogram small{{10, 0, 1}, {50, 7, 2}}, other = many_buckets(40, 300);
  std::vector<const histogram_t *> both = {small.get(), other.get()};
  std::vector<const histogram_t *> many(50, other.get());
  many.push_back(small.get());
  std::vector<char> bytes(hist_serialized_size(other.get())), text(hist_serialized_b64_size(other.get()));
  hist_serialize(other.get(), bytes.data(), bytes.size());
  hist_serialize_b64(other.get(), text.data(), text.size());
  const std::vector<double> q(100, 0.5);
  std::vector<double> values(100);
  const struct {
    const char *name;
    std::function<ssize_t(histogram_t *)> call;
    ssize_t refusal;
  } cases[] = {
      {"accumulate", [&](auto *h) { return hist_accumulate(h, both.data(), 2); }, HIST_E_MEMORY},
      {"accumulate many", [&](auto *h) { return hist_accumulate(h, many.data(), 51); }, HIST_E_MEMORY},
      {"subtract", [&](auto *h) { return hist_subtract_as_int64(h, both.data(), 2); }, HIST_E_MEMORY},
      {"add", [&](auto *h) { return hist_add_as_int64(h, both.data(), 2); }, HIST_E_MEMORY},
      {"deserialize", [&](auto *h) { return hist_deserialize(h, bytes.data(), bytes.size()); },
       HIST_E_MEMORY},
      {"deserialize text", [&](auto *h) { return hist_deserialize_b64(h, text.data(), text.size()); }, -1},
      {"serialize text", [&](auto *h) { return hist_serialize_b64(h, text.data(), text.size()); }, -1},
      {"quantiles", [&](auto *h) { return hist_quantiles(h, q.data(), 100, values.data()); }, HIST_E_MEMORY},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    int refused = 0;
    for (bool succeeded = false; !succeeded && refused < 100;) {
      const Histogram h{{10, 0, 1}, {11, 0, 0}, {12, 0, 5}};
      const Entries before = h.entries();
      ssize_t result = 0;
      with_memory_until(refused + 1, [&] { result = test.call(h.get()); });
      succeeded = result >= 0;
      if (succeeded) continue;
      ++refused;
      EXPECT_EQ(result, test.refusal);
      EXPECT_EQ(h.entries(), before);
      EXPECT_FALSE(hist_is_difference(h.get()));
    }
    EXPECT_GT(refused, 0);
    EXPECT_LT(refused, 100);
  }
}

// The buckets' memory is needed, that of a lookup is not.
TEST(Allocation, ARefusedInsertChangesNothing) {
  for (const int before : {0, 8, 16, 32, 64, 400}) {
    const Histogram full = many_buckets(0, before);
    int refused = 0;
    for (bool succeeded = false; !succeeded && refused < 20;) {
      const Histogram h(hist_clone(full.get()));  // has exactly the room it needs, and no lookup
      int result = 0;
      with_memory_until(refused + 1, [&] { result = hist_insert(h.get(), -1, 1); });
      succeeded = result == 0;
      if (succeeded) {
        EXPECT_EQ(hist_bucket_count(h.get()), before + 1);
        continue;
      }
      ++refused;
      EXPECT_EQ(result, HIST_E_MEMORY);
      EXPECT_EQ(h.entries(), full.entries());
    }
    EXPECT_EQ(refused, 2) << "one array and the other";
  }
}

TEST(Allocation, ANewPageOfTheLookupIsNeeded) {
  const Histogram h = many_buckets(0, 20);  // has a lookup and room for 32
  int result = 0;
  with_memory_until(1, [&] { result = hist_insert(h.get(), 1e50, 1); });
  EXPECT_EQ(result, HIST_E_MEMORY);
  EXPECT_EQ(hist_bucket_count(h.get()), 20);
  EXPECT_EQ(hist_insert(h.get(), 1e50, 1), 0);
  EXPECT_EQ(hist_insert(h.get(), 1e50, 1), 0);
  EXPECT_EQ(hist_count_at(h.get(), bucket(10, 50)), 2U);
}

// A stored form that claims more buckets than it has bytes for takes nothing for them.
TEST(Allocation, IsBoundedByTheBytesThatAreThere) {
  const Histogram h;
  std::vector<uint8_t> bytes = {0x68, 0x10, 0xff, 0xff, 0x7f, 0x0a, 0x80, 0x01};
  with_memory_until(0, [&] { hist_deserialize(h.get(), bytes.data(), bytes.size()); });
  EXPECT_EQ(bytes_taken, 0U);
  const size_t buckets = 1000;
  bytes = {0x68, 0x10, 0xe8, 0x07, 0x0a, 0x80, 0x01};
  bytes.resize(bytes.size() + 2 * (buckets - 1), 0x01);  // ends at the first step that leads to no bucket
  with_memory_until(0,
                    [&] { EXPECT_EQ(hist_deserialize(h.get(), bytes.data(), bytes.size()), HIST_E_BUCKET); });
  EXPECT_LE(bytes_taken, 10 * buckets);
}

}  // namespace
