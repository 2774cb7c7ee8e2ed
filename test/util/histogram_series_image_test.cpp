// The image of a series: its bytes, and what becomes of images that are none.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <random>

#include "ruxo/lz4f.h"
#include "test/support/faults.h"
#include "test/util/histogram_series_support.h"

using testing::ElementsAre;

namespace {

constexpr uint32_t kWhole = 0, kDifference = 2;

const Counts kOne = {{{10, 0}, 1}};

// Cumulative histograms with a few buckets touched in each; counts stay below 2^32, so that none loses bits.
Model random_model(std::mt19937 &random, uint32_t entries) {
  Model model;
  Counts counts;
  uint32_t offset = 0;
  for (uint32_t i = 0; i < entries; ++i) {
    if (random() % 40 == 0) counts.clear();
    for (auto n = random() % 12; n > 0; --n) {
      const int sign = random() % 5 == 0 ? -1 : 1;
      Bucket bucket = {sign * static_cast<int>(10 + random() % 90), static_cast<int>(random() % 4) - 2};
      if (random() % 60 == 0) bucket = {0, 0};
      if (random() % 60 == 0) bucket = {-1, 0};
      counts[bucket] += static_cast<int64_t>(1 + random() % (random() % 10 == 0 ? 70000 : 20));
    }
    if (random() % 10 == 0 && !counts.empty()) counts.erase(counts.begin());
    offset += static_cast<uint32_t>(1 + random() % 100);
    model[offset] = counts;
  }
  return model;
}

std::vector<uint32_t> encodings_of(const Bytes &image) {
  const uint32_t n = image[12] | static_cast<uint32_t>(image[13]) << 8;
  std::vector<uint32_t> result;
  for (uint32_t i = 0; i < n; ++i) result.push_back(image[16 + 4 * n + 4 * i + 3] >> 6);
  return result;
}

// Whether entry i is there, and not damaged; the entry is decoded.
bool is_sound(const Series &hs, uint32_t i) {
  histogram_series_populate(hs.get(), i);
  return hs->histograms[i] != nullptr;
}

// Decodes everything, whatever it is, and serializes what is sound.
void exercise(const Series &hs) {
  if (hs == nullptr) return;
  bool sound = true;
  for (uint32_t i = hs->n_entries; i-- > 0;) sound &= is_sound(hs, i);
  Bytes out(histogram_series_serialize_maxsize(hs.get()));
  size_t size = 1;
  EXPECT_EQ(histogram_series_serialize(hs.get(), out.data(), out.size(), &size), sound);
  if (!sound) {
    EXPECT_EQ(size, 0U);
  }
}

}  // namespace

// ---- Bytes

TEST(HistogramSeriesImage, IsTheseBytes) {
  // 1 once, 1.5 twice, 2000 300 times; then the same and 1.5 once more, 2000 no more; then -1 and 0.
  const Model model = {{7, {{{10, 0}, 1}, {{15, 0}, 2}, {{20, 3}, 300}}},
                       {10, {{{10, 0}, 1}, {{15, 0}, 3}, {{20, 3}, 290}}},
                       {1000, {{{-10, 0}, 1}, {{0, 0}, 0x10000}}}};
  const Series hs = series_of(model, 3000, 1000);
  const Bytes expected = {
      0xb8, 0x0b, 0,    0,    0,    0,    0, 0,  // base 3000
      0xe8, 0x03, 0,    0,                       // window 1000
      3,    0,    0,    0,                       // entries
      7,    0,    0,    0,    3,    0,    0, 0,    0xde, 0x03, 0,
      0,  // 7, 3 later, 990 later
      13,   0,    0,    0,    21,   0,    0, 0x80, 32,   0,    0,
      0,                                         // whole to 13, difference to 21, whole to 32
      0,    0,    3,                             // exponents
      10,   5,    20,                            // mantissas: 10, 10 + 5, 20 with another exponent
      0x10, 0x20, 0x01, 0x2c, 0x01,              // 1, 2, 300
      3,    0,                                   // buckets
      0,    3,    15,   20,   0x10, 0x98, 2, 0,  // (15, 0) 1 more, (20, 3) 10 less: the complement is 9
      0,    0,    0xf6, 10,   0x10, 0x02, 0, 0,    1,    2,    0,  // -10; 0 - -10; 1, 65536
  };
  EXPECT_EQ(decompressed(serialized(hs.get())), expected);
  EXPECT_EQ(model_image(model, 3000, 1000), expected);
}

TEST(HistogramSeriesImage, OfAnEmptySeriesIsItsCompressedHeader) {
  const Series hs(histogram_series_alloc(3000, 1000));
  const Bytes frame = serialized(hs.get());
  EXPECT_EQ(decompressed(frame), (Bytes{0xb8, 0x0b, 0, 0, 0, 0, 0, 0, 0xe8, 0x03, 0, 0, 0, 0, 0, 0}));
  const Series back = read(frame);
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(back->base_ms, 3000U);
  EXPECT_EQ(back->window_ms, 1000U);
  EXPECT_EQ(back->n_entries, 0U);
  EXPECT_TRUE(histogram_series_add(back.get(), 3000, histogram_of(kOne), true));
}

TEST(HistogramSeriesImage, AgreesWithAnIndependentEncoder) {
  const unsigned seed = 20260404;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (int round = 0; round < 60; ++round) {
    const Model model = random_model(random, static_cast<uint32_t>(random() % 150));
    const Series hs = series_of(model, 2000000, 1000000);
    EXPECT_EQ(decompressed(serialized(hs.get())), model_image(model, 2000000, 1000000));
  }
}

TEST(HistogramSeriesImage, The62ndSimilarHistogramIsWholeAgain) {
  Model model;
  Counts counts;
  for (int val = 10; val < 40; ++val) counts[{val, 0}] = 7;
  for (uint32_t i = 0; i < 130; ++i) {
    ++counts[{20, 0}];
    model[i] = counts;
  }
  const std::vector<uint32_t> encodings = encodings_of(decompressed(serialized(series_of(model).get())));
  for (uint32_t i = 0; i < 130; ++i) EXPECT_EQ(encodings[i], i % 61 == 0 ? kWhole : kDifference) << i;
}

TEST(HistogramSeriesImage, AWholeHistogramInBetweenBeginsANewChain) {
  Model model;
  Counts counts;
  for (int val = 10; val < 40; ++val) counts[{val, 0}] = 7;
  for (uint32_t i = 0; i < 100; ++i) {
    ++counts[{20, 0}];
    model[i] = i == 30 ? kOne : counts;
  }
  const std::vector<uint32_t> encodings = encodings_of(decompressed(serialized(series_of(model).get())));
  for (uint32_t i = 0; i < 100; ++i) {
    const bool whole = i == 0 || i == 30 || i == 31 || i == 31 + 61;
    EXPECT_EQ(encodings[i], whole ? kWhole : kDifference) << i;
  }
}

TEST(HistogramSeriesImage, ADifferenceWithAsManyBucketsIsNotUsed) {
  const Model model = {{0, {{{10, 0}, 1}, {{20, 0}, 1}}}, {1, {{{10, 0}, 2}, {{20, 0}, 2}}}};
  EXPECT_THAT(encodings_of(decompressed(serialized(series_of(model).get()))), ElementsAre(kWhole, kWhole));
}

TEST(HistogramSeriesImage, EqualHistogramsAreAnEmptyDifference) {
  const Model model = {{0, kOne}, {1, kOne}};
  const Bytes image = decompressed(serialized(series_of(model).get()));
  EXPECT_THAT(encodings_of(image), ElementsAre(kWhole, kDifference));
  EXPECT_EQ(image.size(), 16U + 16 + 5 + 2);
  const Series back = read_image(image);
  histogram_series_populate(back.get(), 1);
  EXPECT_EQ(counts_of(back->histograms[1]), kOne);
}

TEST(HistogramSeriesImage, ZeroBucketsAreRemovedFromHistogramsWithoutAPrior) {
  const Counts with_zero = {{{10, 0}, 1}, {{20, 0}, 0}};
  const Series hs = series_of({{0, with_zero}});
  EXPECT_EQ(decompressed(serialized(hs.get())), model_image({{0, kOne}}));
  EXPECT_EQ(counts_of(hs->histograms[0]), kOne) << "in place";
  // A whole histogram that had a prior keeps them.
  const Series second = series_of({{0, {{{50, 0}, 9}}}, {1, with_zero}});
  EXPECT_EQ(decompressed(serialized(second.get())), model_image({{0, {{{50, 0}, 9}}}, {1, with_zero}}));
}

TEST(HistogramSeriesImage, CountsThatLoseBitsComeBackWithoutThem) {
  const Series hs = series_of({{0, {{{10, 0}, 0xA12345678}, {{11, 0}, 5}}}});
  const Series back = read(serialized(hs.get()));
  EXPECT_EQ(counts_of(histogram_series_at(back.get(), 0)), (Counts{{{10, 0}, 0x12345678}, {{11, 0}, 5}}));
}

TEST(HistogramSeriesImage, CountsOfDifferencesAreSigned) {
  // A histogram that hist_subtract_as_int64() made: (10, 0) -3, (20, 0) 4, (30, 0) 1.
  const auto negative = [] {
    histogram_t *h = histogram_of({{{10, 0}, 2}, {{20, 0}, 5}, {{30, 0}, 2}});
    histogram_t *less = histogram_of({{{10, 0}, 5}, {{20, 0}, 1}, {{30, 0}, 1}});
    EXPECT_EQ(hist_subtract_as_int64(h, &less, 1), 0);
    hist_free(less);
    return h;
  };
  const Counts signed_counts = {{{10, 0}, -3}, {{20, 0}, 4}, {{30, 0}, 1}};
  const Counts plain = {{{10, 0}, 2}, {{20, 0}, 4}, {{30, 0}, 1}};
  const Series hs(histogram_series_alloc(0, 1000000));
  histogram_series_add(hs.get(), 0, histogram_of(plain), true);
  histogram_series_add(hs.get(), 1, negative(), true);
  histogram_series_add(hs.get(), 2, negative(), true);
  histogram_series_add(hs.get(), 3, histogram_of(plain), true);
  const Bytes image = decompressed(serialized(hs.get()));
  EXPECT_EQ(image, model_image({{0, plain}, {1, signed_counts}, {2, signed_counts}, {3, plain}}));
  EXPECT_THAT(encodings_of(image), ElementsAre(kWhole, kDifference, kDifference, kDifference));
}

TEST(HistogramSeriesImage, ADifferenceBeyond64SignedBitsIsNotUsed) {
  const Counts small = {{{10, 0}, 1}, {{20, 0}, 1}};
  const Counts large = {{{10, 0}, -1}, {{20, 0}, 1}};  // 2^64 - 1 of them
  const Series hs = series_of({{0, small}, {1, large}, {2, small}});
  const Bytes image = decompressed(serialized(hs.get()));
  EXPECT_THAT(encodings_of(image), ElementsAre(kWhole, kWhole, kWhole));
  const Series back = read_image(image);
  EXPECT_EQ(counts_of(histogram_series_at(back.get(), 1)), large);
}

TEST(HistogramSeriesImage, EveryBucketThereIsComesBack) {
  Counts counts;
  for (int exp = -128; exp <= 127; ++exp)
    for (int val = 10; val <= 99; ++val) counts[{val, exp}] = counts[{-val, exp}] = val;
  counts[{0, 0}] = counts[{-1, 0}] = 7;
  ASSERT_EQ(counts.size(), size_t{HIST_MAX_BUCKETS});
  Model model = {{0, counts}};
  ++counts[{-1, 0}];
  model[1] = counts;
  counts.erase({0, 0});
  model[2] = counts;
  const Bytes image = decompressed(serialized(series_of(model).get()));
  EXPECT_EQ(image, model_image(model));
  EXPECT_THAT(encodings_of(image), ElementsAre(kWhole, kDifference, kDifference));
  const Series back = read_image(image);
  for (const auto &[offset, expected] : model) {
    EXPECT_EQ(counts_of(histogram_series_at(back.get(), offset)), expected);
  }
}

// ---- Buffers

TEST(HistogramSeriesSerialize, MaxsizeIsTheBoundOfTheLargestImage) {
  EXPECT_EQ(histogram_series_serialize_maxsize(Series(histogram_series_alloc(0, 1)).get()),
            ruxo_lz4f_compress_bound(16));
  const Series hs = series_of({{0, kOne}, {5, {{{10, 0}, 1}, {{11, 0}, 1}}}});
  EXPECT_EQ(histogram_series_serialize_maxsize(hs.get()), ruxo_lz4f_compress_bound(16 + 10 * 2 + 11 * 3));
  const Series back = read(serialized(hs.get()));
  EXPECT_EQ(histogram_series_serialize_maxsize(back.get()), histogram_series_serialize_maxsize(hs.get()))
      << "entries are decoded for it";
}

TEST(HistogramSeriesSerialize, ABufferBelowTheImageIsRefusedAndNeverOverrun) {
  std::mt19937 random(1);
  const Series hs = series_of(random_model(random, 20));
  const size_t max_size = histogram_series_serialize_maxsize(hs.get());
  const size_t image_size = decompressed(serialized(hs.get())).size();
  for (size_t len = 0; len < image_size; ++len) {
    const std::unique_ptr<uint8_t[]> exact(new uint8_t[len]);
    size_t size = 0;
    ASSERT_FALSE(histogram_series_serialize(hs.get(), exact.get(), len, &size)) << len;
    ASSERT_EQ(size, max_size);
  }
  Bytes out(image_size);
  size_t size = 0;
  EXPECT_TRUE(histogram_series_serialize(hs.get(), out.data(), out.size(), &size));
  EXPECT_LT(size, max_size);
}

TEST(HistogramSeriesSerialize, ATrueResultMayAskForALargerBuffer) {
  const Series hs(histogram_series_alloc(0, 1000));
  Bytes out(16);
  size_t size = 0;
  EXPECT_TRUE(histogram_series_serialize(hs.get(), out.data(), out.size(), &size));
  EXPECT_GT(size, out.size());
  EXPECT_EQ(out, model_image({}, 0, 1000)) << "the image as it was built, not a piece of the frame";
  out.resize(size);
  EXPECT_TRUE(histogram_series_serialize(hs.get(), out.data(), out.size(), &size));
  EXPECT_EQ(decompressed(out), model_image({}, 0, 1000));
}

TEST(HistogramSeriesSerialize, RunningOutOfMemoryForTheFrameIsAFailureWithSize0) {
  const Series hs = series_of({{0, kOne}});
  Bytes out(1000);
  for (int nth = 1;; ++nth) {
    const faults::Fail fail(faults::Call::malloc, ENOMEM, nth, 1);
    size_t size = 1;
    const bool done = histogram_series_serialize(hs.get(), out.data(), out.size(), &size);
    if (!fail.hit()) break;
    if (!done) {
      EXPECT_EQ(size, 0U);
    }
  }
  EXPECT_EQ(counts_of(hs->histograms[0]), kOne);
}

// ---- Reading lazily

TEST(HistogramSeriesRead, TenThousandInRandomOrderAsTheModel) {
  const unsigned seed = 20260405;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const Model model = random_model(random, 10000);
  const Series hs = read(serialized(series_of(model, 0, 2000000).get()));
  ASSERT_EQ(hs->n_entries, 10000U);
  std::vector<uint32_t> offsets;
  for (const auto &entry : model) offsets.push_back(entry.first);
  EXPECT_EQ(std::vector<uint32_t>(hs->offsets_ms, hs->offsets_ms + 10000), offsets);
  std::shuffle(offsets.begin(), offsets.end(), random);
  for (const uint32_t offset : offsets)
    ASSERT_EQ(counts_of(histogram_series_at(hs.get(), offset)), model.at(offset)) << offset;
}

TEST(HistogramSeriesRead, WritesTheSameImageAgain) {
  std::mt19937 random(2);
  const Model model = random_model(random, 300);
  const Bytes frame = serialized(series_of(model).get());
  const Series back = read(frame);
  histogram_series_at(back.get(), std::next(model.begin(), 100)->first);
  EXPECT_EQ(serialized(back.get()), frame);
}

TEST(HistogramSeriesRead, AChainOfAnyLengthIsDecodedWithoutRecursion) {
  Image image;
  image.add(0, kWhole, entry_data(kOne));
  for (uint32_t i = 1; i < 300000; ++i) image.add(1, kDifference, entry_data({{{10, 0}, 1}}));
  const Series hs = read_image(image.bytes());
  ASSERT_NE(hs, nullptr);
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 299999)), (Counts{{{10, 0}, 300000}}));
}

// ---- Images that are none

TEST(HistogramSeriesRead, EveryTruncationOfTheFrameYieldsNull) {
  std::mt19937 random(3);
  const Bytes frame = serialized(series_of(random_model(random, 30)).get());
  for (size_t len = 0; len < frame.size(); ++len) {
    const Bytes cut(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(len));
    EXPECT_EQ(read(cut), nullptr) << len;
  }
  Bytes padded = frame;
  padded.push_back(0);
  EXPECT_EQ(read(padded), nullptr);
  EXPECT_EQ(histogram_series_deserialize(nullptr, 0), nullptr);
}

TEST(HistogramSeriesRead, EveryTruncationAndPaddingOfTheImageYieldsNull) {
  std::mt19937 random(4);
  const Bytes image = model_image(random_model(random, 30));
  ASSERT_NE(read_image(image), nullptr);
  for (size_t len = 0; len < image.size(); ++len) {
    const Bytes cut(image.begin(), image.begin() + static_cast<std::ptrdiff_t>(len));
    EXPECT_EQ(read_image(cut), nullptr) << len;
  }
  Bytes padded = image;
  padded.push_back(0);
  EXPECT_EQ(read_image(padded), nullptr);
}

TEST(HistogramSeriesRead, AWindowOf0OrABaseOffItYieldsNull) {
  Image image;
  image.window_ms = 0;
  EXPECT_EQ(read_image(image.bytes()), nullptr);
  image.window_ms = 1000;
  image.base_ms = 3001;
  EXPECT_EQ(read_image(image.bytes()), nullptr);
  image.base_ms = 3000;
  EXPECT_NE(read_image(image.bytes()), nullptr);
}

TEST(HistogramSeriesRead, MoreEntriesThanTheImageHoldsYieldNull) {
  for (const uint32_t entries : {1U, 2U, 0x1FFFFFFFU, 0x20000000U, 0xFFFFFFFFU}) {
    Bytes image = model_image({});
    for (int i = 0; i < 4; ++i) image[12 + static_cast<size_t>(i)] = static_cast<uint8_t>(entries >> (8 * i));
    EXPECT_EQ(read_image(image), nullptr) << entries;
  }
}

TEST(HistogramSeriesRead, AFirstEntryThatIsADifferenceYieldsNull) {
  Image image;
  image.add(0, kDifference, entry_data(kOne));
  EXPECT_EQ(read_image(image.bytes()), nullptr) << "it could only be fatal";
}

TEST(HistogramSeriesRead, AFrameAboveTheLimitYieldsNull) {
  // A well-formed frame of a few hundred kilobytes that stands for 260 MiB, without saying so in its header.
  LZ4F_preferences_t preferences = {};
  preferences.frameInfo.blockSizeID = LZ4F_max4MB;
  LZ4F_cctx *context = nullptr;
  LZ4F_createCompressionContext(&context, LZ4F_VERSION);
  const Bytes zeros(4 << 20);
  Bytes bomb(LZ4F_compressBound(zeros.size(), &preferences) * 66);
  size_t at = LZ4F_compressBegin(context, bomb.data(), bomb.size(), &preferences);
  for (int block = 0; block < 65; ++block) {
    at +=
        LZ4F_compressUpdate(context, bomb.data() + at, bomb.size() - at, zeros.data(), zeros.size(), nullptr);
  }
  at += LZ4F_compressEnd(context, bomb.data() + at, bomb.size() - at, nullptr);
  LZ4F_freeCompressionContext(context);
  bomb.resize(at);
  EXPECT_LT(bomb.size(), HISTOGRAM_SERIES_MAX_IMAGE_BYTES / 200);
  EXPECT_EQ(read(bomb), nullptr);
}

TEST(HistogramSeriesRead, RunningOutOfMemoryYieldsNull) {
  const Bytes frame = serialized(series_of({{0, kOne}, {1, kOne}}).get());
  for (const auto call : {faults::Call::malloc, faults::Call::calloc}) {
    for (int nth = 1;; ++nth) {
      const faults::Fail fail(call, ENOMEM, nth, 1);
      const Series hs = read(frame);
      if (!fail.hit()) {
        EXPECT_NE(hs, nullptr);
        break;
      }
    }
  }
}

// ---- Entries that are damaged

TEST(HistogramSeriesDamage, WordsThatRunBackwardsOrPastTheEndCostTheirEntries) {
  Image image;
  for (int i = 0; i < 5; ++i) image.add(1, kWhole, entry_data({{{10 + i, 0}, 1}}));
  Image backwards = image;
  backwards.words[2] = 1;
  const Series hs = read_image(backwards.bytes());
  ASSERT_NE(hs, nullptr);
  EXPECT_TRUE(is_sound(hs, 1));
  EXPECT_FALSE(is_sound(hs, 2)) << "ends before it begins";
  EXPECT_TRUE(is_sound(hs, 4));
  exercise(hs);

  Image past = image;
  past.words[2] = 1000;
  const Series far = read_image(past.bytes());
  EXPECT_FALSE(is_sound(far, 2)) << "ends behind the image";
  EXPECT_FALSE(is_sound(far, 3)) << "begins there";
  EXPECT_TRUE(is_sound(far, 4));
  past.words[2] = 0x3FFFFFFF;
  EXPECT_FALSE(is_sound(read_image(past.bytes()), 2));
}

TEST(HistogramSeriesDamage, ADamagedEntryIsNullForEveryReader) {
  Image image;
  image.add(1, kWhole, entry_data(kOne));
  image.add(1, kWhole, {10, 0, 0x10, 9, 9});
  image.add(1, kWhole, entry_data(kOne));
  const Series hs = read_image(image.bytes());
  EXPECT_EQ(histogram_series_at(hs.get(), 2), nullptr);
  std::vector<bool> present;
  EXPECT_TRUE(histogram_series_foreach(
      hs.get(),
      [](uint64_t, histogram_t *h, void *closure) {
        static_cast<std::vector<bool> *>(closure)->push_back(h != nullptr);
        return true;
      },
      &present));
  EXPECT_THAT(present, ElementsAre(true, false, true));
  exercise(hs);
}

TEST(HistogramSeriesDamage, ADifferenceFromADamagedEntryIsDamaged) {
  Image image;
  image.add(1, kWhole, {10, 0, 0x10, 9, 9});
  image.add(1, kDifference, entry_data(kOne));
  image.add(1, kDifference, entry_data(kOne));
  image.add(1, kWhole, entry_data(kOne));
  const Series hs = read_image(image.bytes());
  EXPECT_FALSE(is_sound(hs, 2));
  EXPECT_FALSE(is_sound(hs, 1));
  EXPECT_TRUE(is_sound(hs, 3));
}

TEST(HistogramSeriesDamage, EncodingsThatDoNotExistAreDamage) {
  for (const uint32_t encoding : {1U, 3U}) {
    Image image;
    image.add(1, kWhole, entry_data(kOne));
    image.add(1, encoding, entry_data(kOne));
    EXPECT_FALSE(is_sound(read_image(image.bytes()), 1));
  }
}

TEST(HistogramSeriesDamage, DataThatIsNoHistogramIsDamage) {
  const Bytes broken[] = {
      {},                                  // no bucket count
      {1},                                 // half of it
      {1, 0},                              // a bucket, and no columns
      {0, 10, 0x10, 0xFF, 0xFF},           // more buckets than bytes
      {0, 10, 0x01, 1, 0},                 // a count that ends behind the counts
      {0, 10, 0x10, 0x10, 1, 0},           // a count too many
      {0, 5, 0x10, 1, 0},                  // a mantissa that does not exist
      {0, 0, 20, 0xF6, 0x10, 0x10, 2, 0},  // 20 and then 10
      {0, 0, 20, 0, 0x10, 0x10, 2, 0},     // the same bucket twice
      {1, 0, 0x10, 1, 0},                  // zero with an exponent
  };
  for (const Bytes &data : broken) {
    Image image;
    image.add(1, kWhole, data);
    const Series hs = read_image(image.bytes());
    ASSERT_NE(hs, nullptr);
    EXPECT_FALSE(is_sound(hs, 0)) << testing::PrintToString(data);
    exercise(hs);
  }
}

TEST(HistogramSeriesDamage, ADifferenceBelowZeroIsDamage) {
  Image image;
  image.add(1, kWhole, entry_data(kOne));
  image.add(1, kDifference, entry_data({{{10, 0}, -1}}));
  image.add(1, kDifference, entry_data({{{10, 0}, -1}}));
  const Series hs = read_image(image.bytes());
  EXPECT_TRUE(is_sound(hs, 1));
  EXPECT_EQ(hist_bucket_count(hs->histograms[1]), 0) << "the bucket that became zero is removed";
  EXPECT_FALSE(is_sound(hs, 2));
}

TEST(HistogramSeriesDamage, ADifferenceMayBringNewBucketsAndTakeAllAway) {
  Image image;
  image.add(1, kWhole, entry_data({{{20, 0}, 1}, {{40, 0}, 1}}));
  image.add(1, kDifference, entry_data({{{10, 0}, 1}, {{30, 0}, 2}, {{40, 0}, -1}, {{50, 0}, 3}}));
  image.add(1, kDifference, entry_data({{{10, 0}, -1}, {{20, 0}, -1}, {{30, 0}, -2}, {{50, 0}, -3}}));
  image.add(1, kDifference, entry_data({{{10, 0}, 0}, {{11, 0}, 5}}));
  image.add(1, kDifference, entry_data({{{99, 0}, -1}}));
  const Series hs = read_image(image.bytes());
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 2)),
            (Counts{{{10, 0}, 1}, {{20, 0}, 1}, {{30, 0}, 2}, {{50, 0}, 3}}));
  EXPECT_TRUE(is_sound(hs, 2));
  EXPECT_EQ(hist_bucket_count(hs->histograms[2]), 0);
  EXPECT_EQ(counts_of(histogram_series_at(hs.get(), 4)), (Counts{{{11, 0}, 5}}));
  EXPECT_FALSE(is_sound(hs, 4)) << "less than nothing";
}

TEST(HistogramSeriesDamage, OffsetsThatDoNotAscendAreFoundOrNot) {
  Image image;
  for (const uint32_t step : {5U, 0U, 0xFFFFFFFEU, 100U}) image.add(step, kWhole, entry_data(kOne));
  const Series hs = read_image(image.bytes());
  ASSERT_NE(hs, nullptr);
  for (uint64_t time = 0; time < 110; ++time) histogram_series_at(hs.get(), time);
  exercise(hs);
}

TEST(HistogramSeriesDamage, AnyChangedByteIsSurvived) {
  const unsigned seed = 20260406;
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  const Bytes image = model_image(random_model(random, 40));
  int accepted = 0;
  for (int round = 0; round < 3000; ++round) {
    Bytes changed = image;
    for (auto n = 1 + random() % 3; n > 0; --n) {
      const size_t at = random() % 4 == 0 ? random() % (16 + 8 * 40) : random() % image.size();
      changed[at] = static_cast<uint8_t>(random());
    }
    const Series hs = read_image(changed);
    accepted += hs != nullptr;
    exercise(hs);
  }
  EXPECT_GT(accepted, 1000);
}
