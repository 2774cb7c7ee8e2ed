// Building the ring of 128 nodes, per point, next to its limit and to the obvious way:
//   bare     the bare compression of each point's padded 64-byte block
//   obvious  each point hashed through a fresh digest context, then std::sort
//   build    topo_compile: parsed document to topology, with slots, list, arrays and hints
// The largest ring takes 0.8 GB, which each build gets from the kernel anew. On a virtual machine that page
// supply can take longer than the building itself and is unsteady: compare minima as well as medians there.
// Goals, per point: build / bare at most 2.0, build / obvious at most 0.45, at weight 1000 and 65535.
#define OPENSSL_SUPPRESS_DEPRECATED  // the bare compression has no other name in libcrypto
#include <benchmark/benchmark.h>
#include <libxml/tree.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "liborlith/topo/topo.h"

namespace {

constexpr unsigned kNodes = 128;

std::string node_id(unsigned number) {
  char id[37];
  snprintf(id, sizeof id, "%08x-0000-4000-8000-%012x", number, number * 7919);
  return id;
}

xmlDoc *document(unsigned weight) {
  std::string xml = "<nodes write_copies=\"2\">";
  for (unsigned n = 0; n < kNodes; ++n) {
    xml += "<node id=\"" + node_id(n) + "\" weight=\"" + std::to_string(weight) +
           "\" address=\"127.0.0.1\" port=\"8112\" apiport=\"8113\"/>";
  }
  xml += "</nodes>";
  return topo_parse_document(xml.data(), xml.size(), nullptr);
}

void report(benchmark::State &state, size_t points) {
  state.counters["per_point"] =
      benchmark::Counter(static_cast<double>(points),
                         benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

void BM_Bare(benchmark::State &state) {
  const unsigned weight = static_cast<unsigned>(state.range(0));
  uint8_t block[64] = {};
  block[38] = 0x80;
  block[62] = 38 * 8 / 256;
  block[63] = 38 * 8 % 256;
  for (auto _ : state) {
    for (unsigned n = 0; n < kNodes; ++n) {
      memcpy(block, node_id(n).data(), 36);
      for (unsigned i = 0; i < weight; ++i) {
        block[36] = static_cast<uint8_t>(i >> 8);
        block[37] = static_cast<uint8_t>(i);
        SHA256_CTX context;
        SHA256_Init(&context);
        SHA256_Transform(&context, block);
        benchmark::DoNotOptimize(context.h[0]);
      }
    }
  }
  report(state, size_t{kNodes} * weight);
}

struct Point {
  uint8_t location[32];
  uint16_t node;
  uint16_t idx;
};

void BM_Obvious(benchmark::State &state) {
  const unsigned weight = static_cast<unsigned>(state.range(0));
  for (auto _ : state) {
    std::vector<Point> ring;
    for (unsigned n = 0; n < kNodes; ++n) {
      std::string message = node_id(n) + "xx";
      for (unsigned i = 0; i < weight; ++i) {
        message[36] = static_cast<char>(i >> 8);
        message[37] = static_cast<char>(i);
        Point &point = ring.emplace_back();
        point.node = static_cast<uint16_t>(n);
        point.idx = static_cast<uint16_t>(i);
        EVP_MD_CTX *context = EVP_MD_CTX_new();
        EVP_DigestInit_ex(context, EVP_sha256(), nullptr);
        EVP_DigestUpdate(context, message.data(), message.size());
        EVP_DigestFinal_ex(context, point.location, nullptr);
        EVP_MD_CTX_free(context);
      }
    }
    std::sort(ring.begin(), ring.end(),
              [](const Point &a, const Point &b) { return memcmp(a.location, b.location, 32) < 0; });
    benchmark::DoNotOptimize(ring.data());
  }
  report(state, size_t{kNodes} * weight);
}

void BM_Build(benchmark::State &state) {
  const unsigned weight = static_cast<unsigned>(state.range(0));
  xmlDoc *doc = document(weight);
  for (auto _ : state) {
    topo_config *tc = topo_compile(doc, nullptr, nullptr);
    if (tc == nullptr) state.SkipWithError("does not compile");
    state.PauseTiming();
    topo_free(tc);
    state.ResumeTiming();
  }
  xmlFreeDoc(doc);
  report(state, size_t{kNodes} * weight);
}

// Freeing is as much a part of a topology's life; two compilations of a small ring show what the document
// costs.
BENCHMARK(BM_Bare)->Arg(1000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Build)->Arg(1)->Arg(1000)->Arg(65535)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Obvious)->Arg(1000)->Arg(65535)->Unit(benchmark::kMillisecond);

}  // namespace
