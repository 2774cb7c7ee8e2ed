// The stored form, by literal bytes and by an independent writer; and what is refused.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "test/vaskllhist/histogram_support.h"

namespace {

using namespace hist_test;
using Bytes = std::vector<uint8_t>;

Bytes stored(const Histogram &h) {
  Bytes bytes(hist_serialized_size(h.get()));
  EXPECT_EQ(hist_serialize(h.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  return bytes;
}

std::string text_of(const Histogram &h) {
  std::string text(hist_serialized_b64_size(h.get()), '#');
  EXPECT_EQ(hist_serialize_b64(h.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  return text;
}

// From an exact heap copy, so that the address sanitizer sees a byte too many.
ssize_t read(const Histogram &h, const Bytes &bytes) {
  const Bytes exact(bytes);
  return hist_deserialize(h.get(), exact.data(), exact.size());
}

ssize_t read_text(const Histogram &h, const std::string &text) {
  const std::vector<char> exact(text.begin(), text.end());
  return hist_deserialize_b64(h.get(), exact.data(), exact.size());
}

struct Case {
  const char *name;
  Histogram h;
  Bytes bytes;
  const char *text;
};

// The bytes follow from doc/histogram.md by hand; the texts are those of a base64 program for these bytes.
std::vector<Case> cases() {
  std::vector<Case> all;
  all.push_back({"empty", {}, {0x68, 0x10, 0x00}, "aBAA"});
  all.push_back({"zero once", {{0, 0, 1}}, {0x68, 0x10, 0x01, 0x00, 0x80, 0x01}, "aBABAIAB"});
  all.push_back({"no number", {{-1, 0, 128}}, {0x68, 0x10, 0x01, 0xff, 0xff, 0x80, 0x01}, "aBAB//+AAQ=="});
  all.push_back({"a zero count", {{10, -128, 0}}, {0x68, 0x10, 0x01, 0x0a, 0x80, 0x00}, "aBABCoAA"});
  all.push_back(
      {"the example of the document",
       {{-10, 0, 1}, {10, 0, 2}, {15, 0, 3}, {25, 2, 300}},
       {0x68, 0x10, 0x04, 0xf5, 0x3f, 0x01, 0x95, 0x80, 0x02, 0x02, 0x05, 0x03, 0x8a, 0x02, 0xac, 0x02},
       "aBAE9T8BlYACAgUDigKsAg=="});
  all.push_back({"the two ends",
                 {{-99, 127, 1}, {99, 127, UINT64_MAX}},
                 {0x68, 0x10, 0x02, 0x1c, 0x00, 0x01, 0xc7, 0xff, 0x03, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
                  0xff, 0xff, 0xff, 0x01},
                 "aBACHAABx/8D////////////AQ=="});
  Histogram difference{{10, 0, 1}, {11, 0, 7}, {12, 0, INT64_MAX}};
  const Histogram less{{10, 0, 2}, {11, 0, 4}, {13, 0, uint64_t{1} << 63}};
  EXPECT_EQ(subtract(difference, {less.get()}), 0);
  all.push_back({"a difference",
                 std::move(difference),
                 {0x68, 0x11, 0x04, 0x0a, 0xc0, 0x01,                                 // -1
                  0x01, 0x06,                                                         // 3
                  0x01, 0xfe, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01,   // the largest
                  0x01, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01},  // the smallest
                 "aBEECsABAQYB/v//////////AQH///////////8B"});
  return all;
}

TEST(Serialize, WritesTheDocumentedBytes) {
  for (const Case &test : cases()) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(stored(test.h), test.bytes);
    EXPECT_EQ(text_of(test.h), test.text);
  }
}

TEST(Serialize, ReadsThemBack) {
  for (const Case &test : cases()) {
    SCOPED_TRACE(test.name);
    const Histogram from_bytes{{77, 7, 7}}, from_text{{77, 7, 7}};
    EXPECT_EQ(read(from_bytes, test.bytes), static_cast<ssize_t>(test.bytes.size()));
    EXPECT_EQ(read_text(from_text, test.text), static_cast<ssize_t>(std::strlen(test.text)));
    for (const Histogram *result : {&from_bytes, &from_text}) {
      EXPECT_EQ(result->entries(), test.h.entries());
      EXPECT_EQ(hist_is_difference(result->get()), hist_is_difference(test.h.get()));
    }
  }
}

TEST(Serialize, NullIsAnEmptyHistogram) {
  char bytes[3], text[4];
  EXPECT_EQ(hist_serialized_size(nullptr), 3U);
  EXPECT_EQ(hist_serialized_b64_size(nullptr), 4U);
  EXPECT_EQ(hist_serialize(nullptr, bytes, 3), 3);
  EXPECT_EQ(hist_serialize_b64(nullptr, text, 4), 4);
  EXPECT_EQ(std::string(text, 4), "aBAA");
}

TEST(Serialize, NeverWritesMoreThanItHasRoomFor) {
  for (const Case &test : cases()) {
    SCOPED_TRACE(test.name);
    for (size_t room = 0; room < test.bytes.size(); ++room) {
      Bytes out(room, '#');
      EXPECT_EQ(hist_serialize(test.h.get(),
                               out.data() == nullptr ? reinterpret_cast<uint8_t *>(&out) : out.data(), room),
                HIST_E_ROOM);
      EXPECT_EQ(out, Bytes(room, '#'));
    }
    const size_t length = std::strlen(test.text);
    for (size_t room = 0; room < length; ++room) {
      std::string out(room, '#');
      EXPECT_EQ(hist_serialize_b64(test.h.get(), out.data(), room), -1);
      EXPECT_EQ(out, std::string(room, '#'));
    }
    std::string out(length + 2, '#');
    EXPECT_EQ(hist_serialize_b64(test.h.get(), out.data(), length + 2), static_cast<ssize_t>(length));
    EXPECT_EQ(out, std::string(test.text) + std::string("\0#", 2)) << "a NUL where there is room";
  }
  EXPECT_EQ(hist_serialize(nullptr, nullptr, 100), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_serialize_b64(nullptr, nullptr, 100), -1);
}

TEST(Deserialize, EveryTruncationIsRefused) {
  for (const Case &test : cases()) {
    SCOPED_TRACE(test.name);
    for (size_t size = 0; size < test.bytes.size(); ++size) {
      const Histogram h{{77, 7, 7}};
      EXPECT_EQ(read(h, Bytes(test.bytes.begin(), test.bytes.begin() + static_cast<std::ptrdiff_t>(size))),
                HIST_E_TRUNCATED)
          << size;
      EXPECT_EQ(h.entries(), (Entries{{77, 7, 7}})) << "left as it was";
    }
  }
}

TEST(Deserialize, EveryFaultHasItsCode) {
  const struct {
    const char *name;
    Bytes bytes;
    int code;
  } faults[] = {
      {"another mark", {0x69, 0x10, 0x00}, HIST_E_VERSION},
      {"another version", {0x68, 0x20, 0x00}, HIST_E_VERSION},
      {"version 0", {0x68, 0x00, 0x00}, HIST_E_VERSION},
      {"an unknown flag", {0x68, 0x12, 0x00}, HIST_E_VERSION},
      {"a byte behind", {0x68, 0x10, 0x00, 0x00}, HIST_E_TRAILING},
      {"a bucket behind", {0x68, 0x10, 0x01, 0x00, 0x80, 0x01, 0x0a, 0x01}, HIST_E_TRAILING},
      {"a number of buckets beyond the bytes", {0x68, 0x10, 0x02, 0x00, 0x80, 0x01}, HIST_E_TRUNCATED},
      {"a giant number of buckets",
       {0x68, 0x10, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x01, 0x00},
       HIST_E_TRUNCATED},
      {"a long number of buckets", {0x68, 0x10, 0x80, 0x00}, HIST_E_NUMBER},
      {"a long count", {0x68, 0x10, 0x01, 0x00, 0x80, 0x81, 0x00}, HIST_E_NUMBER},
      {"a count of 65 bits",
       {0x68, 0x10, 0x01, 0x00, 0x80, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x02},
       HIST_E_NUMBER},
      {"a count of 11 bytes",
       {0x68, 0x10, 0x01, 0x00, 0x80, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x81, 0x00},
       HIST_E_NUMBER},
      {"a first code that is no bucket", {0x68, 0x10, 0x01, 0x09, 0xc0, 0x01}, HIST_E_BUCKET},
      {"a negative one", {0x68, 0x10, 0x01, 0xff, 0x7f, 0x01}, HIST_E_BUCKET},
      {"a step to no bucket", {0x68, 0x10, 0x02, 0x63, 0xc0, 0x01, 0x01, 0x01}, HIST_E_BUCKET},
      {"a step of nothing", {0x68, 0x10, 0x02, 0x0a, 0xc0, 0x01, 0x00, 0x01}, HIST_E_BUCKET},
      {"a step beyond the codes",
       {0x68, 0x10, 0x02, 0x0a, 0xc0, 0x01, 0x80, 0x80, 0x04, 0x01},
       HIST_E_BUCKET},
      {"a step around the codes",
       {0x68, 0x10, 0x02, 0x0a, 0xc0, 0x01, 0x81, 0x80, 0x04, 0x01},
       HIST_E_BUCKET},
      {"a step behind the last code", {0x68, 0x10, 0x02, 0xff, 0xff, 0x01, 0x01, 0x01}, HIST_E_BUCKET},
  };
  for (const auto &[name, bytes, code] : faults) {
    const Histogram h{{77, 7, 7}};
    EXPECT_EQ(read(h, bytes), code) << name;
    EXPECT_EQ(h.entries(), (Entries{{77, 7, 7}})) << name;
  }
}

TEST(Deserialize, MoreBucketsThanThereAreIsRefused) {
  Bytes bytes = {0x68, 0x10, 0x83, 0xe8, 0x02};  // 46083
  bytes.resize(bytes.size() + 2 * 46083 + 1, 0x01);
  const Histogram h;
  EXPECT_EQ(read(h, bytes), HIST_E_NUMBER);
}

TEST(Deserialize, RefusesWhatIsNoArgument) {
  const Histogram h;
  EXPECT_EQ(hist_deserialize(nullptr, "h", 1), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_deserialize(h.get(), nullptr, 1), HIST_E_ARGUMENT);
  EXPECT_EQ(hist_deserialize(h.get(), nullptr, 0), HIST_E_TRUNCATED);
  EXPECT_EQ(hist_deserialize_b64(h.get(), nullptr, 4), -1);
  EXPECT_EQ(hist_deserialize_b64(nullptr, "aBAA", 4), -1);
}

TEST(Deserialize, TextIsStrict) {
  for (const std::string text :
       {"", "a", "aBA", "aBAA\n", " aBAA", "aBAAA", "aBAA====", "aBA=", "a===", "====", "=BAA", "aB=A",
        "aBAB//+AAR==", "aBAB//+AAQ=", "aBAB__-AAQ==", "aBAB//+AAQ==aBAA", "aBAAaBAA"}) {
    const Histogram h{{77, 7, 7}};
    EXPECT_EQ(read_text(h, text), -1) << text;
    EXPECT_EQ(h.entries(), (Entries{{77, 7, 7}})) << text;
  }
  for (int byte = 0; byte < 256; ++byte) {
    const std::string text = {'a', 'B', 'A', static_cast<char>(byte)};
    const Histogram h;
    EXPECT_EQ(read_text(h, text), byte == 'A' ? 4 : -1) << byte;
  }
}

// A second writer, from the document and with numbers of its own.
Bytes naive_bytes(const Entries &entries, bool is_difference) {
  Bytes out = {'h', static_cast<uint8_t>(is_difference ? 0x11 : 0x10)};
  const auto varint = [&out](unsigned long long number) {
    for (; number >= 128; number /= 128) out.push_back(static_cast<uint8_t>(128 + number % 128));
    out.push_back(static_cast<uint8_t>(number));
  };
  varint(entries.size());
  int before = 0;
  for (const Entry &entry : entries) {
    const int mirror = 32768 + 128 * (entry.exp + 128) + std::abs(entry.val);
    const int code = entry.val == 0    ? 32768
                     : entry.val == -1 ? 65535
                     : entry.val > 0   ? mirror
                                       : 65535 - mirror;
    if (before == 0) {  // the first; no code is 0
      out.push_back(static_cast<uint8_t>(code % 256));
      out.push_back(static_cast<uint8_t>(code / 256));
    } else {
      varint(static_cast<unsigned long long>(code - before));
    }
    before = code;
    const auto count = static_cast<int64_t>(entry.count);
    if (!is_difference) {
      varint(entry.count);
    } else {
      varint(count >= 0 ? 2 * entry.count : 2 * static_cast<uint64_t>(-(count + 1)) + 1);
    }
  }
  return out;
}

TEST(Serialize, AgreesWithASecondWriterAndIsReadBack) {
  for (unsigned seed = 1; seed <= 300; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937_64 random(seed);
    Histogram h, empty;
    if (seed % 3 == 0) {
      ASSERT_EQ(subtract(h, {empty.get()}), 0);
    }
    for (size_t i = random() % 300; i > 0; --i) {
      const int val = static_cast<int>(10 + random() % 90);
      const int exp = static_cast<int>(random() % (seed % 2 == 0 ? 256 : 3)) - (seed % 2 == 0 ? 128 : 0);
      hist_insert_raw(h.get(), bucket(random() % 4 == 0 ? -val : val, exp), random() >> (random() % 64));
    }
    if (seed % 5 == 0) hist_insert(h.get(), kNan, 3);
    if (seed % 7 == 0) hist_insert(h.get(), 0, 3);
    const Bytes bytes = stored(h);
    ASSERT_EQ(bytes, naive_bytes(h.entries(), seed % 3 == 0));
    const Histogram from_bytes, from_text;
    ASSERT_EQ(read(from_bytes, bytes), static_cast<ssize_t>(bytes.size()));
    ASSERT_EQ(from_bytes.entries(), h.entries());
    const std::string text = text_of(h);
    ASSERT_EQ(read_text(from_text, text), static_cast<ssize_t>(text.size()));
    ASSERT_EQ(from_text.entries(), h.entries());
  }
}

// Whatever is accepted is the one form of what it says.
TEST(Deserialize, AcceptsOnlyWhatItWouldWrite) {
  std::mt19937_64 random(23);
  const std::vector<Case> seeds = cases();
  size_t accepted = 0;
  for (int i = 0; i < 100000; ++i) {
    Bytes bytes = seeds[random() % seeds.size()].bytes;
    for (uint64_t edits = 1 + random() % 3; edits > 0; --edits)
      bytes[random() % bytes.size()] ^= static_cast<uint8_t>(1U << (random() % 8));
    const Histogram h;
    const ssize_t result = read(h, bytes);
    if (result < 0) {
      ASSERT_EQ(hist_bucket_count(h.get()), 0);
      continue;
    }
    ++accepted;
    ASSERT_EQ(stored(h), bytes);
  }
  EXPECT_GT(accepted, 1000U);
}

TEST(Serialize, AReadHistogramIsCountedInto) {
  Histogram h;
  for (int i = 0; i < 50; ++i) hist_insert(h.get(), 10 + i, 1);
  const Histogram copy;
  for (int i = 0; i < 50; ++i) hist_insert(copy.get(), -i, 1);  // has a lookup of its own, which must go
  ASSERT_GT(read(copy, stored(h)), 0);
  EXPECT_EQ(hist_insert(copy.get(), 12, 1), 0);
  EXPECT_EQ(hist_insert(copy.get(), -3, 1), 0);
  EXPECT_EQ(hist_count_at(copy.get(), bucket(12, 1)), 2U);
  EXPECT_EQ(hist_count_at(copy.get(), bucket(-30, 0)), 1U);
  EXPECT_EQ(hist_bucket_count(copy.get()), 51);
}

}  // namespace
