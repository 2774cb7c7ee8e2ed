// Read-only views: making and releasing them.
#include <sys/mman.h>

#include <cerrno>
#include <thread>

#include "liborlith/nnt/nnt_v1.h"
#include "test/nnt/nnt_support.h"
#include "test/support/faults.h"

using namespace nnt_test;

namespace {

const std::string kImage = header(60, 6000) + record_of(uint64_value(1)) + record_of(uint64_value(2));

void *mapped(const std::string &bytes) {
  void *addr = mmap(nullptr, bytes.size(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  memcpy(addr, bytes.data(), bytes.size());
  return addr;
}

bool is_mapped(void *addr, size_t len) {
  return msync(addr, len, MS_ASYNC) == 0;
}

void expect_first_value(nnt_handle_readfast *rf, uint64_t number) {
  nnt_multitype v{};
  EXPECT_EQ(nnt_get_fast(rf, 6000, &v), 1);
  EXPECT_EQ(v.value.v_uint64, number);
}

}  // namespace

TEST(NntView, OfAHandleHasTheWholeFile) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  View rf(nnt_acquire_readfast(h.get()));
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(rf->len, kImage.size());
  EXPECT_EQ(memcmp(rf->addr, kImage.data(), kImage.size()), 0);
  EXPECT_EQ(rf->opset, &nnt_v1_opset);
  EXPECT_EQ(rf->dealloc, &nnt_handle_readfast_munmap);
  EXPECT_EQ(static_cast<v1_meta *>(rf->op_ctx)->start, 16u);
  expect_first_value(rf.get(), 1);
}

TEST(NntView, OutlivesItsHandleAndKeepsItsLength) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  View rf(nnt_acquire_readfast(h.get()));
  const nnt_multitype v = uint64_value(3);
  EXPECT_EQ(nnt_put(h.get(), 6120, &v), 1);
  h.reset();
  nnt_multitype read = filler();
  EXPECT_EQ(nnt_get_fast(rf.get(), 6120, &read), 1);
  EXPECT_TRUE(is_zero(read)) << "a slot that was added later is not in the view";
  expect_first_value(rf.get(), 1);
}

TEST(NntView, TakesTheHeaderOfTheHandle) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  const std::string other = header(60, 12000);
  ASSERT_EQ(pwrite(h->fd, other.data(), other.size(), 0), 16);
  View rf(nnt_acquire_readfast(h.get()));
  EXPECT_EQ(rf->hdr.epoch, 6000u);
}

TEST(NntView, UnmapsOnRelease) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  View rf(nnt_acquire_readfast(h.get()));
  void *addr = rf->addr;
  EXPECT_TRUE(is_mapped(addr, 1));
  rf.reset();
  EXPECT_FALSE(is_mapped(addr, 1));
}

TEST(NntView, FailuresGiveNull) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  {
    const faults::Fail fault(faults::Call::fstat, EIO);
    EXPECT_EQ(nnt_acquire_readfast(h.get()), nullptr);
  }
  {
    const faults::Fail fault(faults::Call::mmap, ENOMEM);
    EXPECT_EQ(nnt_acquire_readfast(h.get()), nullptr);
  }
  {
    const faults::Fail fault(faults::Call::calloc, ENOMEM);
    EXPECT_EQ(nnt_acquire_readfast(h.get()), nullptr);
  }
  const faults::Fail fault(faults::Call::fstat, EINTR, 1, 2);
  EXPECT_NE(View(nnt_acquire_readfast(h.get())), nullptr);
}

TEST(NntView, ReadsWithoutItsPrivateData) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  const faults::Fail fault(faults::Call::calloc, ENOMEM, 2);  // the view is made, its private data is not
  View rf(nnt_acquire_readfast(h.get()));
  ASSERT_NE(rf, nullptr);
  expect_first_value(rf.get(), 1);
}

TEST(NntView, OfAFileThatLostItsHeaderIsEmpty) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  ASSERT_EQ(truncate(dir.file("f").c_str(), 7), 0);
  View rf(nnt_acquire_readfast(h.get()));
  nnt_multitype v = filler();
  EXPECT_EQ(nnt_get_fast(rf.get(), 6000, &v), 1);
  EXPECT_TRUE(is_zero(v));
  ASSERT_EQ(truncate(dir.file("f").c_str(), 0), 0);
  EXPECT_EQ(nnt_acquire_readfast(h.get()), nullptr);
}

// ---- transient views ----

TEST(NntTransientView, OwnsAHeapImage) {
  View rf = view_of(kImage);
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(rf->len, kImage.size());
  EXPECT_EQ(rf->hdr.period, 60u);
  EXPECT_EQ(rf->hdr.epoch, 6000u);
  EXPECT_EQ(rf->dealloc, &nnt_handle_readfast_free);
  expect_first_value(rf.get(), 1);  // releasing it is what the leak checker watches
}

TEST(NntTransientView, OwnsAMapping) {
  void *addr = mapped(kImage);
  View rf(nnt_acquire_transient_mmap(addr, kImage.size()));
  ASSERT_NE(rf, nullptr);
  EXPECT_EQ(rf->dealloc, &nnt_handle_readfast_munmap);
  expect_first_value(rf.get(), 1);
  rf.reset();
  EXPECT_FALSE(is_mapped(addr, 1));
}

TEST(NntTransientView, NeedsAHeaderOfVersion1) {
  EXPECT_EQ(view_of(kImage.substr(0, 15)), nullptr);
  EXPECT_EQ(view_of(""), nullptr);
  EXPECT_EQ(view_of("NNT2" + kImage.substr(4)), nullptr);
  EXPECT_EQ(view_of("\1NT1" + kImage.substr(4)), nullptr);
  EXPECT_NE(view_of(kImage.substr(0, 16)), nullptr);
  EXPECT_EQ(nnt_acquire_transient(nullptr, 100), nullptr);
  void *addr = mapped(kImage);
  EXPECT_EQ(nnt_acquire_transient_mmap(addr, 15), nullptr);
  EXPECT_TRUE(is_mapped(addr, 1)) << "a refused image stays with the caller";
  munmap(addr, kImage.size());
}

TEST(NntTransientView, DoesNotCheckPeriodAndEpoch) {
  EXPECT_NE(view_of(header(0, 7)), nullptr);
  EXPECT_NE(view_of(header(60, 61)), nullptr);
  EXPECT_NE(view_of(header(60, UINT64_MAX)), nullptr);
}

TEST(NntTransientView, WithoutMemoryTheImageStaysWithTheCaller) {
  std::string image = kImage;
  const faults::Fail fault(faults::Call::calloc, ENOMEM);
  EXPECT_EQ(nnt_acquire_transient(image.data(), image.size()), nullptr);
}

TEST(NntTransientView, ReadsAnImageOfAnyAlignment) {
  for (size_t shift = 1; shift < 8; ++shift) {
    std::string shifted(shift, 'x');
    shifted += kImage;
    nnt_handle_readfast *rf = nnt_acquire_transient(shifted.data() + shift, kImage.size());
    ASSERT_NE(rf, nullptr);
    expect_first_value(rf, 1);
    rf->addr = nullptr;  // not the view's to free
    nnt_release_readfast(rf);
  }
}

// ---- null, and the small questions ----

TEST(NntView, NullIsAnsweredWithAnError) {
  nnt_multitype v = filler();
  uint64_t whence = 7;
  nnt_range_raw_data data{};
  nnt_release_readfast(nullptr);
  EXPECT_EQ(nnt_get_fast(nullptr, 6000, &v), -1);
  EXPECT_EQ(nnt_get_fast_epoch(nullptr, &whence), -1);
  EXPECT_EQ(nnt_get_fast_apocalypse(nullptr, &whence), -1);
  EXPECT_EQ(nnt_get_raw_range(nullptr, 6000, 1, &data), -1);
  EXPECT_EQ(whence, 7u);
}

TEST(NntView, DeallocatorsAcceptANullImage) {
  nnt_handle_readfast rf{};
  rf.len = 100;
  nnt_handle_readfast_free(&rf);
  nnt_handle_readfast_munmap(&rf);
}

TEST(NntView, TellsItsEpoch) {
  View rf = view_of(kImage);
  uint64_t epoch = 0;
  EXPECT_EQ(nnt_get_fast_epoch(rf.get(), &epoch), 0);
  EXPECT_EQ(epoch, 6000u);
}

TEST(NntView, ManyThreadsReadOneViewWhileAHandleWrites) {
  TempDir dir;
  Handle h = open_bytes(dir, "f", kImage);
  View rf(nnt_acquire_readfast(h.get()));
  const auto read = [&] {
    for (int i = 0; i < 2000; ++i) {
      nnt_multitype v{};
      if (nnt_get_fast(rf.get(), 6060, &v) == 1) {
        EXPECT_EQ(v.value.v_uint64, 2u);
      }
      // The record being written may be seen half-done; then its checksum gives it away, or both halves agree.
      nnt_get_fast(rf.get(), 6000, &v);
    }
  };
  std::thread a(read), b(read);
  for (uint64_t i = 0; i < 2000; ++i) {
    const nnt_multitype v = uint64_value(i);
    EXPECT_EQ(nnt_put(h.get(), 6000, &v), 1);
  }
  a.join();
  b.join();
}
