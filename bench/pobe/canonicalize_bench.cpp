// Canonicalising a metric name, next to what its caller does with the result (copying and hashing it) and to the
// same done with strings and a set. The names are of about 60 bytes with three tags.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <cstring>
#include <set>
#include <string>

#include "liborlith/util/metric_name.h"
#include "pobe/pobe.h"

namespace {

const std::string kCanonical = "http`requests`duration|ST[host:web-17,region:eu-west,service:api]";
const std::string kUnsorted = "http`requests`duration|ST[service:api,host:web-17,region:eu-west]";
const std::string kEncoded = "http`requests`duration|ST[host:web-17,path:b\"L2E7eCxi\",service:api]";
const std::string kPlain = "http`requests`duration`of`the`service`api`in`region`eu-west`17";
const std::string kWithMeasurementTags =
    "http`requests`duration|ST[host:web-17,region:eu-west,service:api]|MT{trace:1f3a}";

void canonicalize(benchmark::State &state, const std::string &name) {
  char out[4096];
  for (auto _ : state) {
    benchmark::DoNotOptimize(name.data());
    const ssize_t size =
        pobe_metric_canonicalize_ex(name.data(), name.size(), out, sizeof(out), true, true, false);
    if (size < 0) state.SkipWithError("refused");
    benchmark::ClobberMemory();
  }
  state.counters["name_bytes"] = static_cast<double>(name.size());
}
BENCHMARK_CAPTURE(canonicalize, canonical_already, kCanonical);
BENCHMARK_CAPTURE(canonicalize, unsorted, kUnsorted);
BENCHMARK_CAPTURE(canonicalize, encoded_value, kEncoded);
BENCHMARK_CAPTURE(canonicalize, plain_name, kPlain);
BENCHMARK_CAPTURE(canonicalize, measurement_tags_dropped, kWithMeasurementTags);

// What one would write first: no checks of the text, no encoded sides.
std::string simple_canonical(const std::string &name) {
  const size_t block = name.rfind("|ST[");
  if (block == std::string::npos) return name;
  std::set<std::pair<std::string, std::string>> tags;
  for (size_t at = block + 4; at < name.size();) {
    const size_t end = std::min(name.find(',', at), name.size() - 1);
    const size_t colon = name.find(':', at);
    tags.emplace(name.substr(at, colon - at), name.substr(colon + 1, end - colon - 1));
    at = end + 1;
  }
  std::string out = name.substr(0, block) + "|ST[";
  for (const auto &[category, value] : tags) out += category + ":" + value + ",";
  out.back() = ']';
  return out;
}

void simple_strings_and_set(benchmark::State &state, const std::string &name) {
  if (simple_canonical(name) != kCanonical) state.SkipWithError("the neighbour is wrong");
  for (auto _ : state) benchmark::DoNotOptimize(simple_canonical(name));
}
BENCHMARK_CAPTURE(simple_strings_and_set, canonical_already, kCanonical);
BENCHMARK_CAPTURE(simple_strings_and_set, unsorted, kUnsorted);

void copy_and_sha256(benchmark::State &state) {
  EVP_MD *digest = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  EVP_MD_CTX *context = EVP_MD_CTX_new();
  char out[4096];
  unsigned char hash[EVP_MAX_MD_SIZE];
  for (auto _ : state) {
    std::memcpy(out, kCanonical.data(), kCanonical.size());
    benchmark::ClobberMemory();
    EVP_DigestInit_ex2(context, digest, nullptr);
    EVP_DigestUpdate(context, out, kCanonical.size());
    EVP_DigestFinal_ex(context, hash, nullptr);
    benchmark::DoNotOptimize(hash);
  }
  EVP_MD_CTX_free(context);
  EVP_MD_free(digest);
}
BENCHMARK(copy_and_sha256);

void copy(benchmark::State &state) {
  char out[4096];
  for (auto _ : state) {
    benchmark::DoNotOptimize(kCanonical.data());
    std::memcpy(out, kCanonical.data(), kCanonical.size());
    benchmark::ClobberMemory();
  }
}
BENCHMARK(copy);

void split(benchmark::State &state) {
  for (auto _ : state) {
    mem_reader_t reader;
    mem_reader_init_mem(&reader, kCanonical.data(), kCanonical.size());
    pobe_metric_tagset_t set;
    benchmark::DoNotOptimize(metric_name_v1_parse(&reader, &reader, &set));
    pobe_metric_tagset_cleanup(&set);
  }
}
BENCHMARK(split);

}  // namespace
