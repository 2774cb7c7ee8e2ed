// What the library takes from the heap, and what it does when there is none left.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdlib>
#include <new>
#include <string>

#include "pobe/pobe.h"
#include "test/pobe/naive_metric_name.h"
#include "test/pobe/random_names.h"

// malloc, operator new and operator new(nothrow), as this executable's objects call them (see test/CMakeLists.txt).
extern "C" {
void *__real_malloc(size_t size);
void *__wrap_malloc(size_t size);
void *__real__Znwm(size_t size);
void *__wrap__Znwm(size_t size);
void *__real__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &);
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &);
}

static int allocations = 0;
static bool refuse = false;

void *__wrap_malloc(size_t size) {
  ++allocations;
  return refuse ? nullptr : __real_malloc(size);
}
void *__wrap__Znwm(size_t size) {
  ++allocations;
  return __real__Znwm(size);
}
void *__wrap__ZnwmRKSt9nothrow_t(size_t size, const std::nothrow_t &nothrow) {
  ++allocations;
  return refuse ? nullptr : __real__ZnwmRKSt9nothrow_t(size, nothrow);
}

namespace {

template <typename Call>
int allocations_in(Call call) {
  allocations = 0;
  call();
  return allocations;
}

// Otherwise a count of none would mean nothing. Of malloc, the array of a tag set below shows it.
TEST(Allocation, OperatorNewIsCounted) {
  void *bytes = nullptr;
  EXPECT_EQ(allocations_in([&] { bytes = ::operator new(1); }), 1);
  ::operator delete(bytes);
  pobe_metric_tagset_context_t *ctx = nullptr;
  EXPECT_EQ(allocations_in([&] { ctx = pobe_metric_tagset_context_alloc(); }), 1);
  pobe_metric_tagset_context_free(ctx);
}

TEST(Allocation, CanonicalisingNeverAllocates) {
  char out[4096];
  for (uint32_t seed = 1; seed <= 2000; ++seed) {
    SCOPED_TRACE(seed);
    const std::string name = RandomNames(seed).next();
    ASSERT_EQ(allocations_in([&] {
                pobe_metric_canonicalize_ex(name.data(), name.size(), out, sizeof(out), true, true,
                                            seed % 2 == 0);
              }),
              0);
  }
}

TEST(Allocation, TagsetTakesOneArray) {
  pobe_metric_tagset_t set;
  const auto parse = [&](const std::string &text) {
    return allocations_in([&] { pobe_metric_tagset_init(&set, text.data(), text.size()); });
  };
  for (const std::string text : {"a:1", "b:1,a:1,a:1", "b\"YQ==\":b\"LA==\",x:1"}) {
    EXPECT_EQ(parse(text), 1) << text;
    pobe_metric_tagset_cleanup(&set);
  }
  EXPECT_EQ(parse(""), 0);
  EXPECT_EQ(parse("a:1,b"), 0);
}

TEST(Allocation, TagsetWithoutMemoryIsRefusedAndEmpty) {
  pobe_metric_tagset_t set{reinterpret_cast<pobe_metric_tag_t *>(8), 7, 9};
  refuse = true;
  const int code = pobe_metric_tagset_init(&set, "a:1", 3);
  refuse = false;
  EXPECT_EQ(code, POBE_E_MEMORY);
  EXPECT_EQ(set.tags, nullptr);
  EXPECT_EQ(set.tag_count, 0);
  EXPECT_EQ(set.canonical_size, 0u);
}

TEST(Allocation, ContextWithoutMemoryIsNullAndHarmless) {
  refuse = true;
  pobe_metric_tagset_context_t *ctx = pobe_metric_tagset_context_alloc();
  refuse = false;
  EXPECT_EQ(ctx, nullptr);
  pobe_metric_tagset_context_set_validate_function(ctx, nullptr);
  pobe_metric_tagset_context_free(ctx);
}

}  // namespace
