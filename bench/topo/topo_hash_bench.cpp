// The placement hash next to what bounds it, the bare compression of the padded blocks. 80 bytes (two blocks)
// is the key of a metric with a middling name. Goal: one-shot / bare at most 1.7.
#define OPENSSL_SUPPRESS_DEPRECATED  // the bare compression has no other name in libcrypto
#include <benchmark/benchmark.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include "liborlith/topo/topo.h"

namespace {

constexpr size_t kKeyBytes = 80;

void BM_BareCompression80(benchmark::State &state) {
  uint8_t blocks[128] = {};
  SHA256_CTX context;
  for (auto _ : state) {
    ++blocks[0];
    SHA256_Init(&context);
    SHA256_Transform(&context, blocks);
    SHA256_Transform(&context, blocks + 64);
    benchmark::DoNotOptimize(context.h[0]);
  }
}
BENCHMARK(BM_BareCompression80);

void BM_OneShot80(benchmark::State &state) {
  uint8_t key[kKeyBytes] = {};
  uint8_t hash[TOPO_HASH_SIZE];
  for (auto _ : state) {
    ++key[0];
    topo_hash(key, sizeof key, hash);
    benchmark::DoNotOptimize(hash);
  }
}
BENCHMARK(BM_OneShot80);

void BM_Incremental80(benchmark::State &state) {
  uint8_t key[kKeyBytes] = {};
  uint8_t hash[TOPO_HASH_SIZE];
  for (auto _ : state) {
    ++key[0];
    topo_hash_ctx_t context;
    topo_hash_ctx_init(&context);
    topo_hash_ctx_update(&context, key, 36);
    topo_hash_ctx_update(&context, "-", 1);
    topo_hash_ctx_update(&context, key + 37, sizeof key - 37);
    topo_hash_ctx_final(hash, &context);
    benchmark::DoNotOptimize(hash);
  }
}
BENCHMARK(BM_Incremental80);

// What the one-shot form would cost without a fetched digest and a context of its own.
void BM_FreshContextByName80(benchmark::State &state) {
  uint8_t key[kKeyBytes] = {};
  uint8_t hash[TOPO_HASH_SIZE];
  for (auto _ : state) {
    ++key[0];
    EVP_MD_CTX *context = EVP_MD_CTX_new();
    EVP_DigestInit_ex(context, EVP_get_digestbyname("SHA256"), nullptr);
    EVP_DigestUpdate(context, key, sizeof key);
    EVP_DigestFinal_ex(context, hash, nullptr);
    EVP_MD_CTX_free(context);
    benchmark::DoNotOptimize(hash);
  }
}
BENCHMARK(BM_FreshContextByName80);

}  // namespace
