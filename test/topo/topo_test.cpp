#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <cstring>
#include <thread>

#include "liborlith/topo/topo_private.h"
#include "test/topo/topo_test_support.h"

namespace {
bool digest_is_missing = false;
}

extern "C" {
const EVP_MD *__real_EVP_get_digestbyname(const char *name);
const EVP_MD *__wrap_EVP_get_digestbyname(const char *name);
const EVP_MD *__wrap_EVP_get_digestbyname(const char *name) {
  return digest_is_missing ? nullptr : __real_EVP_get_digestbyname(name);
}
}

namespace {

using namespace topo_test;

// FIPS 180-4 examples: the empty message, "abc", and one that needs a second block for its padding.
constexpr char kHashOfNothing[] = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
constexpr char kHashOfAbc[] = "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad";
constexpr char kHashOf56As[] = "b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a";

std::string hash_of(std::string_view text) {
  uint8_t out[32];
  topo_hash(text.data(), text.size(), out);
  return hex(out);
}

std::string to_hex(const Location &hash) {
  char out[65];
  memset(out, 'x', sizeof out);
  topo_hash_to_hex(hash.data(), out);
  return out;
}

TEST(TopoHash, IsSha256) {
  EXPECT_EQ(hash_of(""), kHashOfNothing);
  EXPECT_EQ(hash_of("abc"), kHashOfAbc);
  EXPECT_EQ(hash_of(std::string(56, 'a')), kHashOf56As);
}

TEST(TopoHash, TakesNullForNoBytes) {
  uint8_t out[32];
  topo_hash(nullptr, 0, out);
  EXPECT_EQ(hex(out), kHashOfNothing);
}

TEST(TopoHash, EveryThreadHashesByItself) {
  std::vector<std::thread> threads;
  std::array<int, 4> wrong{};
  for (int &count : wrong) {
    threads.emplace_back([&count] {
      for (int i = 0; i < 2000; ++i) count += hash_of("abc") != kHashOfAbc;
    });
  }
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(wrong, (std::array<int, 4>{}));
}

// Hashes when it is destroyed.
struct HashesLast {
  ~HashesLast() { fprintf(stderr, "%s %s\n", when, hash_of("abc").c_str()); }
  const char *when;
};

TEST(TopoHash, WorksInDestructorsOfAnEndingThread) {
  testing::internal::CaptureStderr();
  std::thread([] {
    static thread_local HashesLast last{"thread"};  // made before the first hash, so destroyed after it
    EXPECT_STREQ(last.when, "thread");
    hash_of("");
  }).join();
  EXPECT_EQ(testing::internal::GetCapturedStderr(), std::string("thread ") + kHashOfAbc + "\n");
}

TEST(TopoHashDeathTest, WorksInDestructorsOfAnEndingProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto hash_and_leave = [] {
    static const HashesLast last{"process"};
    hash_of("");
    exit(0);
  };
  EXPECT_EXIT(hash_and_leave(), testing::ExitedWithCode(0), std::string("process ") + kHashOfAbc);
}

TEST(TopoHashContext, PiecesHashLikeTheWhole) {
  topo_hash_ctx_t ctx;
  topo_hash_ctx_init(&ctx);
  topo_hash_ctx_update(&ctx, "a", 1);
  topo_hash_ctx_update(&ctx, "", 0);
  topo_hash_ctx_update(&ctx, "bc", 2);
  uint8_t out[32];
  topo_hash_ctx_final(out, &ctx);
  EXPECT_EQ(hex(out), kHashOfAbc);
  topo_hash_ctx_init(&ctx);  // usable again after a new init
  topo_hash_ctx_final(out, &ctx);
  EXPECT_EQ(hex(out), kHashOfNothing);
}

TEST(TopoHashContext, LocatorIdentityInPiecesEqualsTheConcatenation) {
  const std::string id = "aaaaaaaa-bbbb-4ccc-8ddd-eeeeeeeeeeee";
  const std::string name = "cpu|ST[host:a]";
  topo_hash_ctx_t ctx;
  topo_hash_ctx_init(&ctx);
  topo_hash_ctx_update(&ctx, id.data(), 36);
  topo_hash_ctx_update(&ctx, "-", 1);
  topo_hash_ctx_update(&ctx, name.data(), name.size());
  uint8_t out[32];
  topo_hash_ctx_final(out, &ctx);
  EXPECT_EQ(hex(out), "433e7b6c6d78b5f9dce65b792c714500580d4147d67bfc0f385c9b65fc7ac53c");
  EXPECT_EQ(hex(out), hash_of(id + "-" + name));
}

TEST(TopoHashContextDeathTest, StopsWithoutTheDigest) {
  topo_hash_ctx_t ctx;
  digest_is_missing = true;
  EXPECT_DEATH(topo_hash_ctx_init(&ctx), "\\[FATAL\\] assertion \\(md\\) at topo/topo\\.cpp:[0-9]+ failed");
  digest_is_missing = false;
}

TEST(TopoHashToHex, WritesHighNibbleFirstInLowerCase) {
  Location hash{};
  for (size_t i = 0; i < hash.size(); ++i) hash[i] = static_cast<uint8_t>(i * 8 + 7);
  EXPECT_EQ(to_hex(hash), "070f171f272f373f474f575f676f777f878f979fa7afb7bfc7cfd7dfe7eff7ff");
}

TEST(TopoHashToHex, AllZerosIsAHyphen) {
  EXPECT_EQ(to_hex(Location{}), "-");
}

TEST(TopoHashToHex, ASingleNonZeroByteAnywhereIsWrittenInFull) {
  for (size_t i = 0; i < TOPO_HASH_SIZE; ++i) {
    Location hash{};
    hash[i] = 1;
    std::string expected(64, '0');
    expected[2 * i + 1] = '1';
    EXPECT_EQ(to_hex(hash), expected);
  }
}

TEST(TopoRetain, IsFoundBySignatureAndByHex) {
  topo_init_globals();
  const TopoHandle tc = compile_ok(nodes("", node(kId1) + node(kId2)));
  EXPECT_EQ(topo_retrieve(tc->signature), nullptr);
  topo_retain(tc.get());
  EXPECT_EQ(topo_retrieve(tc->signature), tc.get());
  EXPECT_EQ(topo_retrieve_hex(tc->hex_signature), tc.get());
  topo_init_globals();  // changes nothing
  EXPECT_EQ(topo_retrieve(tc->signature), tc.get());

  const std::string text = tc->hex_signature;
  std::string upper = text;
  for (char &digit : upper) digit = static_cast<char>(toupper(digit));
  ASSERT_NE(upper, text);
  EXPECT_EQ(topo_retrieve_hex(upper.c_str()), nullptr);
  EXPECT_EQ(topo_retrieve_hex(text.substr(1).c_str()), nullptr);
  EXPECT_EQ(topo_retrieve_hex((text + "0").c_str()), nullptr);
  EXPECT_EQ(topo_retrieve_hex(nullptr), nullptr);
  EXPECT_EQ(topo_retrieve_hex(""), nullptr);
  for (const char bad : {'g', '/', ':', '`', ' ', '-', '\xff'}) {
    std::string broken = text;
    broken[17] = bad;
    EXPECT_EQ(topo_retrieve_hex(broken.c_str()), nullptr) << bad;
  }
  static_cast<void>(const_cast<TopoHandle &>(tc).release());  // the table keeps it for good
}

TEST(TopoRetainDeathTest, StopsOnASecondTopologyOfTheSameSignature) {
  const TopoHandle tc = compile_ok(nodes("", node(kId3)));
  const std::string line =
      "\\[FATAL\\] hash collision " + std::string(tc->hex_signature) + " in topology config\\?!";
  EXPECT_DEATH(
      {
        topo_retain(tc.get());
        topo_retain(tc.get());
      },
      line);
}

TEST(TopoSignature, GivesBytesAndText) {
  const TopoHandle tc = compile_ok(nodes("", node(kId1)));
  Location signature{};
  EXPECT_STREQ(topo_signature(tc.get(), signature.data()), tc->hex_signature);
  EXPECT_EQ(hex(signature.data()), tc->hex_signature);
  EXPECT_STREQ(topo_signature(tc.get(), nullptr), tc->hex_signature);
}

TEST(TopoSignature, OfNoTopologyIsZerosAndAHyphen) {
  Location signature;
  signature.fill(0xff);
  EXPECT_STREQ(topo_signature(nullptr, signature.data()), "-");
  EXPECT_EQ(signature, Location{});
  EXPECT_STREQ(topo_signature(nullptr, nullptr), "-");
}

}  // namespace
