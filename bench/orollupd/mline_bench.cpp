// Reading one ingestion line of 140 bytes with three tags and giving its locator back, next to the same done the plain
// way (strings for the fields, a digest context for each locator) and to the SHA-256 of the locator's key, which is the
// part that cannot be left out. `ratios` takes turns between the three in one run and compares medians.
#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "liborlith/liborlith_init.h"
#include "liborlith/orollupd/rollup.h"
#include "liborlith/topo/topo.h"
#include "liborlith/util/metric_name.h"

namespace {

const std::string kUuid = "4c1f2a3b-0011-4d22-8e33-9a44bb55cc66";
const std::string kName = "http`requests`duration|ST[host:web-17,region:eu-west,service:api]";
const std::string kLine = "M\t1700000000.123\thttp`c_1207`" + kUuid + "\t" + kName + "\tn\t0.25318\n";
const std::string kKey = kUuid + "-" + kName;

// Their streams and the digests; without them no line is logged and none is hashed.
void start_modules() {
  topo_init_globals();
  orollupd_rollup_init();
  orlith_metric_locator_lib_init();
  orlith_metric_name_lib_init();
}

void parse_and_deref() {
  uint64_t ts_ms = 0;
  orlith_metric_locator_t *loc = nullptr;
  metric_value_t value;
  if (parse_Mline(kLine.c_str(), &ts_ms, &loc, &value, true) != 1) abort();
  benchmark::DoNotOptimize(value);
  orlith_metric_locator_deref(loc);
}

void split_and_value() {
  mline_fields_t fields;
  metric_value_t value;
  if (mline_split(kLine.data(), kLine.size(), true, &fields) != 1) abort();
  if (mline_value(&fields, &value) != 1) abort();
  benchmark::DoNotOptimize(value);
}

void hash_key() {
  uint8_t hash[TOPO_HASH_SIZE];
  topo_hash(kKey.data(), kKey.size(), hash);
  benchmark::DoNotOptimize(hash);
}

// ---- The plain way

struct PlainLocator {
  std::string check_uuid;
  std::string name;
  long account = 0;
  pobe_metric_tagset_t tags{};
  std::array<uint8_t, 32> hash{};

  PlainLocator() = default;
  PlainLocator(const PlainLocator &) = delete;
  PlainLocator &operator=(const PlainLocator &) = delete;
  ~PlainLocator() { pobe_metric_tagset_cleanup(&tags); }
};

std::vector<std::string> fields_of(const std::string &line) {
  std::vector<std::string> fields;
  size_t at = 0;
  while (fields.size() < 5) {
    const size_t tab = line.find('\t', at);
    fields.push_back(line.substr(at, tab - at));
    at = tab + 1;
  }
  fields.push_back(line.substr(at));
  return fields;
}

std::string canonical(const std::string &name) {
  std::string out(4096, '\0');
  const ssize_t len =
      pobe_metric_canonicalize_ex(name.data(), name.size(), out.data(), out.size(), true, true, false);
  if (len < 0) abort();
  out.resize(static_cast<size_t>(len));
  return out;
}

void hash_identity(PlainLocator &loc) {
  EVP_MD_CTX *context = EVP_MD_CTX_new();
  EVP_DigestInit_ex(context, EVP_get_digestbyname("SHA256"), nullptr);
  EVP_DigestUpdate(context, loc.check_uuid.data(), loc.check_uuid.size());
  EVP_DigestUpdate(context, "-", 1);
  EVP_DigestUpdate(context, loc.name.data(), loc.name.size());
  EVP_DigestFinal_ex(context, loc.hash.data(), nullptr);
  EVP_MD_CTX_free(context);
}

std::shared_ptr<PlainLocator> plain_parse(const std::string &line, double *value, uint64_t *ts_ms) {
  const std::vector<std::string> fields = fields_of(line);
  *ts_ms = static_cast<uint64_t>(strtod(fields[1].c_str(), nullptr) * 1000);
  *value = strtod(fields[5].c_str(), nullptr);
  auto loc = std::make_shared<PlainLocator>();
  loc->check_uuid = fields[2].substr(fields[2].size() - 36);
  const size_t mark = fields[2].find("`c_");
  if (mark != std::string::npos) loc->account = strtol(fields[2].c_str() + mark + 3, nullptr, 10);
  loc->name = canonical(fields[3]);
  mem_reader_t reader;
  mem_reader_init_mem(&reader, loc->name.data(), loc->name.size());
  if (!metric_name_v1_parse(&reader, &reader, &loc->tags)) abort();
  hash_identity(*loc);
  return loc;
}

void plain_way() {
  double value = 0;
  uint64_t ts_ms = 0;
  benchmark::DoNotOptimize(plain_parse(kLine, &value, &ts_ms));
  benchmark::DoNotOptimize(value);
}

// ---- The three in turns

constexpr int kBatch = 200;

double batch_ns(void (*work)()) {
  const auto start = std::chrono::steady_clock::now();
  for (int i = 0; i < kBatch; ++i) work();
  const std::chrono::duration<double, std::nano> taken = std::chrono::steady_clock::now() - start;
  return taken.count() / kBatch;
}

double median(std::vector<double> &values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void ratios(benchmark::State &state) {
  start_modules();
  std::vector<double> parse_ns, plain_ns, hash_ns, split_ns;
  for (auto _ : state) {
    parse_ns.push_back(batch_ns(parse_and_deref));
    plain_ns.push_back(batch_ns(plain_way));
    hash_ns.push_back(batch_ns(hash_key));
    split_ns.push_back(batch_ns(split_and_value));
  }
  const double parse = median(parse_ns);
  const double hash = median(hash_ns);
  state.counters["line_bytes"] = static_cast<double>(kLine.size());
  state.counters["parse_ns"] = parse;
  state.counters["sha256_ns"] = hash;
  state.counters["split_ns"] = median(split_ns);
  state.counters["parse/plain"] = parse / median(plain_ns);  // goal: at most 0.45
  state.counters["parse/sha256"] = parse / hash;             // goal: below 2.5
}
BENCHMARK(ratios);

void single(benchmark::State &state, void (*work)()) {
  start_modules();
  for (auto _ : state) work();
}
BENCHMARK_CAPTURE(single, parse_and_deref, parse_and_deref);
BENCHMARK_CAPTURE(single, split_and_value, split_and_value);
BENCHMARK_CAPTURE(single, plain_way, plain_way);
BENCHMARK_CAPTURE(single, sha256_of_key, hash_key);

}  // namespace
