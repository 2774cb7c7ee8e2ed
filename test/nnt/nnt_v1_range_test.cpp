// Ranges of records against the same records one by one: v1_encode and v1_decode are the model.
#include <random>

#include "liborlith/nnt/nnt_v1.h"
#include "test/nnt/nnt_support.h"

using namespace nnt_test;

namespace {

constexpr uint32_t kPeriod = 300;
constexpr uint64_t kEpoch = 6000;
constexpr size_t kMost = 67;  // every remainder of a batch, many times

template <typename T>
T noise(std::mt19937_64 &random) {
  T t;
  for (size_t at = 0; at < sizeof(t); at += 8) {
    const uint64_t word = random();
    memcpy(reinterpret_cast<char *>(&t) + at, &word, 8);
  }
  return t;
}

float random_rate(std::mt19937_64 &random) {
  static const uint32_t kBits[] = {0x7fc00000, 0x7f800001, 0xffc12345, 0x7f800000, 0x80000000, 0x00000001};
  const uint32_t bits = random() % 3 == 0 ? kBits[random() % 6] : static_cast<uint32_t>(random());
  float rate;
  memcpy(&rate, &bits, sizeof(rate));
  return rate;
}

// What the slots of a range are like; each kind of run is met often enough.
enum class Kind { one_type, runs, storable, any_type, damaged, zeros, noise, kinds };

nnt_multitype random_value(std::mt19937_64 &random, uint32_t type) {
  auto v = noise<nnt_multitype>(random);
  v.type = static_cast<nnt_type_t>(type);
  if (random() % 2 == 0) v.count = static_cast<uint32_t>(random() % 3 + 65534);
  // Any non-zero byte means that there is a deviation; the bytes after it mean nothing.
  if (random() % 2 == 0) v.stddev_present = 0;
  v.derivative = random_rate(random);
  v.counter_stddev = random_rate(random);
  return v;
}

// Stretches of one type, all with or all without a deviation and with counts that are stored as they are, and a few
// values that are different in one respect.
std::vector<nnt_multitype> runs_of_values(std::mt19937_64 &random, size_t count) {
  std::vector<nnt_multitype> values;
  while (values.size() < count) {
    const uint32_t type = static_cast<uint32_t>(random() % 6 + 1);
    const uint8_t present = random() % 2 == 0 ? 0 : static_cast<uint8_t>(random() % 255 + 1);
    for (size_t left = random() % 60 + 1; left > 0 && values.size() < count; --left) {
      nnt_multitype v = random_value(random, type);
      v.count = static_cast<uint32_t>(random() % 65536);
      v.stddev_present = present;
      if (random() % 50 == 0) v.count = static_cast<uint32_t>(random());
      if (random() % 50 == 0) v.stddev_present = static_cast<uint8_t>(random() % 3);
      if (random() % 50 == 0) v.type = static_cast<nnt_type_t>(random() % 7);
      values.push_back(v);
    }
  }
  return values;
}

std::vector<nnt_multitype> random_values(std::mt19937_64 &random, size_t count, Kind kind) {
  if (kind == Kind::runs) return runs_of_values(random, count);
  const uint32_t common = static_cast<uint32_t>(random() % 6 + 1);
  const bool present = random() % 2 == 0;
  std::vector<nnt_multitype> values;
  for (size_t i = 0; i < count; ++i) {
    uint32_t type = static_cast<uint32_t>(random() % 6 + 1);
    if (kind == Kind::one_type) type = common;
    if (kind == Kind::any_type && random() % 8 == 0)
      type = random() % 2 == 0 ? 0 : 8 + static_cast<uint32_t>(random());
    values.push_back(random_value(random, type));
    if (kind == Kind::one_type) values.back().stddev_present = present;
  }
  return values;
}

std::string model_record(const nnt_multitype &v) {
  nnt_datum_v1 d;
  memset(&d, 0x77, sizeof(d));
  v1_encode(&v, &d);
  return {reinterpret_cast<const char *>(&d), sizeof(d)};
}

std::string random_records(std::mt19937_64 &random, size_t count, Kind kind) {
  std::string bytes;
  for (const nnt_multitype &v : random_values(random, count, kind)) {
    std::string record = model_record(v);
    const auto change = [&] { record[random() % 32] = static_cast<char>(random()); };
    switch (kind) {
      case Kind::runs:
        if (random() % 50 == 0) change();
        break;
      case Kind::damaged:
        if (random() % 6 == 0) change();
        if (random() % 6 == 0) {
          change();
          record = with_checksum(record);
        }
        if (random() % 6 == 0) {
          record[1] = static_cast<char>(random());  // any type bits, and the upper half
          record = with_checksum(record);
        }
        break;
      case Kind::zeros:
        if (random() % 3 != 0) record = absent_records(1);
        break;
      case Kind::noise:
        for (size_t i = 0; i < 32; ++i) change();
        if (random() % 2 == 0) record = with_checksum(record);
        break;
      default:
        break;
    }
    bytes += record;
  }
  return bytes;
}

bool same_bytes(const nnt_multitype &a, const nnt_multitype &b) {
  return memcmp(&a, &b, sizeof(a)) == 0;
}

class NntRange : public testing::Test {
 protected:
  void expect_view_reads(const std::string &records, size_t first) {
    const size_t count = records.size() / 32;
    View view = view_of(header(kPeriod, kEpoch) + records);
    ASSERT_NE(view, nullptr);
    std::vector<nnt_multitype> values(count + 1, filler()), expected(count + 1, filler());
    for (size_t i = 0; i + first < count; ++i) {
      nnt_datum_v1 d;
      memcpy(&d, &records[32 * (first + i)], sizeof(d));
      if (v1_decode(&d, &expected[i]) != 0) memset(&expected[i], 0, sizeof(expected[i]));
    }
    const int due = static_cast<int>(count - first);
    ASSERT_EQ(nnt_get_fast_range(view.get(), kEpoch + first * kPeriod, due, values.data()), due);
    for (size_t i = 0; i <= count; ++i) ASSERT_TRUE(same_bytes(values[i], expected[i])) << i;
  }

  void expect_handle_reads(const std::string &records) {
    const size_t count = records.size() / 32;
    Handle h = open_bytes(dir_, "f", header(kPeriod, kEpoch) + records);
    ASSERT_NE(h, nullptr);
    std::vector<nnt_multitype> values(count + 1, filler()), expected(count + 1, filler());
    for (size_t i = 0; i < count; ++i) {
      nnt_datum_v1 d;
      memcpy(&d, &records[32 * i], sizeof(d));
      expected[i].type = NNT_TYPE_ABSENT;
      v1_decode(&d, &expected[i]);
    }
    const int due = static_cast<int>(count);
    ASSERT_EQ(nnt_get_range(h.get(), kEpoch, due, values.data()), due);
    for (size_t i = 0; i <= count; ++i) ASSERT_TRUE(same_bytes(values[i], expected[i])) << i;
  }

  void expect_written(const std::vector<nnt_multitype> &values) {
    std::string expected = header(kPeriod, kEpoch);
    for (const nnt_multitype &v : values) expected += model_record(v);
    Handle h = open_bytes(dir_, "f", header(kPeriod, kEpoch));
    const int due = static_cast<int>(values.size());
    ASSERT_EQ(nnt_put_range(h.get(), kEpoch, due, values.data()), due);
    ASSERT_EQ(dir_.read("f"), expected);
  }

  template <typename Check>
  void for_each_case(uint64_t rounds, Check check) {
    for (uint64_t seed = 1; seed <= rounds; ++seed) {
      SCOPED_TRACE("seed " + std::to_string(seed));
      std::mt19937_64 random(seed);
      const size_t count = seed % kMost + 1;
      check(random, count, static_cast<Kind>(random() % static_cast<uint64_t>(Kind::kinds)));
      if (HasFatalFailure()) return;
    }
  }
  TempDir dir_;
};

}  // namespace

TEST_F(NntRange, AViewReadsWhatTheRecordsOneByOneGive) {
  for_each_case(5000, [&](std::mt19937_64 &random, size_t count, Kind kind) {
    expect_view_reads(random_records(random, count, kind), random() % count);
  });
}

TEST_F(NntRange, AHandleReadsWhatTheRecordsOneByOneGive) {
  for_each_case(600, [&](std::mt19937_64 &random, size_t count, Kind kind) {
    expect_handle_reads(random_records(random, count, kind));
  });
}

TEST_F(NntRange, ARangeIsWrittenAsItsValuesOneByOne) {
  for_each_case(600, [&](std::mt19937_64 &random, size_t count, Kind kind) {
    expect_written(random_values(random, count + 1, kind));
  });
}

// From a length on, memory is asked for ahead of its use.
TEST_F(NntRange, ALongRangeIsReadAndWrittenLikeAShortOne) {
  for_each_case(20, [&](std::mt19937_64 &random, size_t, Kind kind) {
    const size_t count = 1000 + random() % 3000;
    const std::string records = random_records(random, count, kind);
    ASSERT_NO_FATAL_FAILURE(expect_view_reads(records, random() % 100));
    ASSERT_NO_FATAL_FAILURE(expect_handle_reads(records));
    expect_written(random_values(random, count, kind));
  });
}

TEST_F(NntRange, AStringAnywhereRefusesTheWholeRange) {
  std::mt19937_64 random(1);
  for (size_t count = 2; count <= 33; ++count) {
    for (size_t at = 0; at < count; ++at) {
      SCOPED_TRACE(std::to_string(at) + " of " + std::to_string(count));
      std::vector<nnt_multitype> values = random_values(random, count, Kind::storable);
      values[at].type = NNT_TYPE_STRING;
      Handle h = open_bytes(dir_, "f", header(kPeriod, kEpoch));
      ASSERT_EQ(nnt_put_range(h.get(), kEpoch, static_cast<int>(count), values.data()), -1);
      ASSERT_EQ(dir_.read("f"), header(kPeriod, kEpoch));
    }
  }
}

TEST_F(NntRange, AnyFlippedBitIsFoundAnywhereInARun) {
  std::mt19937_64 random(2);
  const std::string good = random_records(random, 16, Kind::one_type);
  for (size_t bit = 0; bit < good.size() * 8; ++bit) {
    SCOPED_TRACE(bit);
    std::string records = good;
    records[bit / 8] = static_cast<char>(records[bit / 8] ^ (1 << bit % 8));
    View view = view_of(header(kPeriod, kEpoch) + records);
    std::vector<nnt_multitype> values(16, filler());
    ASSERT_EQ(nnt_get_fast_range(view.get(), kEpoch, 16, values.data()), 16);
    for (size_t i = 0; i < 16; ++i) ASSERT_EQ(is_zero(values[i]), i == bit / 256) << i;
  }
}
