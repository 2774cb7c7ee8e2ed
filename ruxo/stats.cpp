// Statistics and their text.
//
// What is added to lies in shards, one of which a thread always uses, so that threads do not take a cache line from
// each other with every request; reading adds the shards up. Names, labels and handles are never freed.
#include "ruxo/stats.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "ruxo/guard_private.h"
#include "ruxo/utf8_private.h"

namespace {

constexpr size_t kShards = 8;
// Upper bounds of the latency buckets, in seconds; one more bucket takes the rest.
constexpr std::array kBounds = {0.0005, 0.001, 0.0025, 0.005, 0.01, 0.025, 0.05, 0.1,
                                0.25,   0.5,   1.0,    2.5,   5.0,  10.0,  30.0, 60.0};

size_t shard_of_thread() {
  static std::atomic<size_t> next{0};
  thread_local const size_t mine = next.fetch_add(1, std::memory_order_relaxed) % kShards;
  return mine;
}

struct alignas(64) CounterShard {
  std::atomic<uint64_t> count{0};
};

struct alignas(64) LatencyShard {
  std::array<std::atomic<uint64_t>, kBounds.size() + 1> counts{};
  std::atomic<double> sum{0.0};
};

using Labels = std::vector<std::pair<std::string, std::string>>;

}  // namespace

struct stats_ns {
  std::string prefix;  // "one_two_"
};

struct stats_handle {
  explicit stats_handle(stats_type_t kind) : type(kind) {
    if (type == STATS_TYPE_COUNTER) counter = std::make_unique<std::array<CounterShard, kShards>>();
    if (type == STATS_TYPE_LATENCY) latency = std::make_unique<std::array<LatencyShard, kShards>>();
  }

  const stats_type_t type;
  std::unique_ptr<std::array<CounterShard, kShards>> counter;
  std::unique_ptr<std::array<LatencyShard, kShards>> latency;
  std::atomic<double> gauge{0.0};
  double (*read)(void *closure) = nullptr;  // a gauge that is asked
  void *closure = nullptr;
};

namespace {

// All handles of one name.
struct Family {
  stats_type_t type;
  std::string help;
  std::map<std::string, std::unique_ptr<stats_handle>> handles;  // by the text of their labels
};

// Threads: `lock` guards both maps. What they hold stays where it is.
struct Registry {
  std::mutex lock;
  std::map<std::string, std::unique_ptr<stats_ns>> namespaces;  // by prefix
  std::map<std::string, Family> families;                       // by the whole name
};

// Never destroyed: threads may count while the process ends.
Registry &registry() {
  static Registry &instance = *new Registry;
  return instance;
}

// ---- Names ----

bool is_letter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool is_name(std::string_view text) {
  return !text.empty() && is_letter(text[0]) &&
         std::all_of(text.begin(), text.end(), [](char c) { return is_letter(c) || (c >= '0' && c <= '9'); });
}

std::string with_ending(std::string name, std::string_view ending) {
  return std::string_view(name).ends_with(ending) ? name : name.append(ending);
}

std::string full_name(const stats_ns *ns, const char *name, stats_type_t type) {
  std::string whole = (ns == nullptr ? "" : ns->prefix) + name;
  if (type == STATS_TYPE_COUNTER) return with_ending(std::move(whole), "_total");
  if (type == STATS_TYPE_LATENCY) return with_ending(std::move(whole), "_seconds");
  return whole;
}

// "key=value,key=value" in the order of the keys; false when that is wrong.
bool parse_labels(std::string_view text, Labels *labels) {
  while (!text.empty()) {
    const size_t comma = std::min(text.find(','), text.size());
    const std::string_view one = text.substr(0, comma);
    const size_t equals = one.find('=');
    if (equals == std::string_view::npos || comma + 1 == text.size()) return false;
    const std::string_view key = one.substr(0, equals), value = one.substr(equals + 1);
    // "le" is the bound of a bucket; two underscores are the collectors' own.
    if (!is_name(key) || key == "le" || key.starts_with("__") || !ruxo::utf8_is_valid(value)) return false;
    labels->emplace_back(key, value);
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  std::sort(labels->begin(), labels->end());
  const auto same_key = [](const auto &a, const auto &b) { return a.first == b.first; };
  return std::adjacent_find(labels->begin(), labels->end(), same_key) == labels->end();
}

std::string escaped(std::string_view text, bool quotes) {
  std::string result;
  for (const char c : text) {
    if (c == '\\' || (quotes && c == '"')) result += '\\';
    if (c == '\n') {
      result += "\\n";
    } else {
      result += c;
    }
  }
  return result;
}

// "key=\"value\",key=\"value\""
std::string label_text(const Labels &labels) {
  std::string text;
  for (const auto &[key, value] : labels) {
    if (!text.empty()) text += ',';
    text += key + "=\"" + escaped(value, true) + '"';
  }
  return text;
}

// ---- Values ----

struct Latency {
  std::array<uint64_t, kBounds.size() + 1> counts{};
  uint64_t count = 0;
  double sum = 0.0;
};

Latency add_up(const stats_handle &handle) {
  Latency all;
  for (const LatencyShard &shard : *handle.latency) {
    for (size_t i = 0; i < all.counts.size(); ++i)
      all.counts[i] += shard.counts[i].load(std::memory_order_relaxed);
    all.sum += shard.sum.load(std::memory_order_relaxed);
  }
  for (const uint64_t count : all.counts) all.count += count;
  return all;
}

uint64_t count_of(const stats_handle &handle) {
  uint64_t count = 0;
  for (const CounterShard &shard : *handle.counter) count += shard.count.load(std::memory_order_relaxed);
  return count;
}

double gauge_of(const stats_handle &handle) {
  return handle.read != nullptr ? handle.read(handle.closure) : handle.gauge.load(std::memory_order_relaxed);
}

// ---- Text ----

// What is written of a family, taken under the lock and written without it.
struct Page {
  const std::string *name;
  const Family *family;  // its type and help
  std::vector<std::pair<const std::string *, const stats_handle *>> handles;
};

std::vector<Page> pages() {
  Registry &r = registry();
  const std::lock_guard guard(r.lock);
  std::vector<Page> result;
  for (const auto &[name, family] : r.families) {
    Page page{&name, &family, {}};
    for (const auto &[labels, handle] : family.handles) page.handles.emplace_back(&labels, handle.get());
    if (!page.handles.empty()) result.push_back(std::move(page));
  }
  return result;
}

std::string number(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0 ? "+Inf" : "-Inf";
  char text[40];
  return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

// Without an exponent, as people write bounds.
std::string bound_text(double bound) {
  char text[40];
  return std::string(text, std::to_chars(text, text + sizeof text, bound, std::chars_format::fixed).ptr);
}

void append_line(std::string &out, const std::string &name, const std::string &labels,
                 const std::string &value) {
  out += name;
  if (!labels.empty()) out += '{' + labels + '}';
  out += ' ' + value + '\n';
}

void append_latency(std::string &out, const std::string &name, const std::string &labels,
                    const stats_handle &handle) {
  const Latency all = add_up(handle);
  const std::string before = labels + (labels.empty() ? "" : ",");
  uint64_t up_to = 0;
  for (size_t i = 0; i < all.counts.size(); ++i) {
    up_to += all.counts[i];
    const std::string bound = i < kBounds.size() ? bound_text(kBounds[i]) : "+Inf";
    append_line(out, name + "_bucket", before + "le=\"" + bound + '"', std::to_string(up_to));
  }
  append_line(out, name + "_sum", labels, number(all.sum));
  append_line(out, name + "_count", labels, std::to_string(all.count));
}

void append_page(std::string &out, const Page &page) {
  constexpr const char *kTypes[] = {"counter", "gauge", "histogram"};  // by stats_type_t
  out += "# HELP " + *page.name + ' ' + escaped(page.family->help, false) + '\n';
  out += "# TYPE " + *page.name + ' ' + kTypes[page.family->type] + '\n';
  for (const auto &[labels, handle] : page.handles) {
    if (handle->type == STATS_TYPE_LATENCY) {
      append_latency(out, *page.name, *labels, *handle);
    } else if (handle->type == STATS_TYPE_COUNTER) {
      append_line(out, *page.name, *labels, std::to_string(count_of(*handle)));
    } else {
      append_line(out, *page.name, *labels, number(gauge_of(*handle)));
    }
  }
}

// The handle of that name, made if need be. A function that is asked is part of what must agree.
stats_handle_t *find_or_make(stats_ns_t *ns, const char *name, const char *labels, stats_type_t type,
                             double (*read)(void *), void *closure, const char *help) {
  Labels parsed;
  if (type > STATS_TYPE_LATENCY || name == nullptr || !is_name(name)) return nullptr;
  if (labels != nullptr && !parse_labels(labels, &parsed)) return nullptr;
  const std::string whole = full_name(ns, name, type);
  auto fresh = std::make_unique<stats_handle>(type);
  fresh->read = read;
  fresh->closure = closure;
  Registry &r = registry();
  const std::lock_guard guard(r.lock);
  const std::string text_help = help == nullptr ? whole : ruxo::utf8_repaired(help);
  Family &family = r.families.try_emplace(whole, Family{type, text_help, {}}).first->second;
  if (family.type != type) return nullptr;
  stats_handle *const handle =
      family.handles.try_emplace(label_text(parsed), std::move(fresh)).first->second.get();
  return handle->read == read && handle->closure == closure ? handle : nullptr;
}

}  // namespace

stats_ns_t *stats_ns_get(stats_ns_t *parent, const char *name) {
  return ruxo::guarded<stats_ns_t *>(nullptr, [&]() -> stats_ns_t * {
    if (name == nullptr || !is_name(name)) return nullptr;
    auto fresh = std::make_unique<stats_ns>();
    fresh->prefix = (parent == nullptr ? "" : parent->prefix) + name + '_';
    Registry &r = registry();
    const std::lock_guard guard(r.lock);
    const std::string prefix = fresh->prefix;
    return r.namespaces.try_emplace(prefix, std::move(fresh)).first->second.get();
  });
}

stats_handle_t *stats_register(stats_ns_t *ns, const char *name, const char *labels, stats_type_t type,
                               const char *help) {
  return ruxo::guarded<stats_handle_t *>(
      nullptr, [&] { return find_or_make(ns, name, labels, type, nullptr, nullptr, help); });
}

stats_handle_t *stats_register_callback(stats_ns_t *ns, const char *name, const char *labels,
                                        double (*read)(void *closure), void *closure, const char *help) {
  if (read == nullptr) return nullptr;
  return ruxo::guarded<stats_handle_t *>(
      nullptr, [&] { return find_or_make(ns, name, labels, STATS_TYPE_GAUGE, read, closure, help); });
}

void stats_add(stats_handle_t *handle, uint64_t count) {
  if (handle == nullptr || handle->type != STATS_TYPE_COUNTER) return;
  (*handle->counter)[shard_of_thread()].count.fetch_add(count, std::memory_order_relaxed);
}

void stats_set(stats_handle_t *handle, double value) {
  if (handle == nullptr || handle->type != STATS_TYPE_GAUGE) return;
  handle->gauge.store(value, std::memory_order_relaxed);
}

void stats_observe(stats_handle_t *handle, double seconds) {
  if (handle == nullptr || handle->type != STATS_TYPE_LATENCY || !std::isfinite(seconds)) return;
  const double value = std::max(seconds, 0.0);  // a clock that was set back
  const auto bucket = std::lower_bound(kBounds.begin(), kBounds.end(), value) - kBounds.begin();
  LatencyShard &shard = (*handle->latency)[shard_of_thread()];
  shard.counts[static_cast<size_t>(bucket)].fetch_add(1, std::memory_order_relaxed);
  shard.sum.fetch_add(value, std::memory_order_relaxed);
}

uint64_t stats_count(const stats_handle_t *handle) {
  if (handle == nullptr || handle->type == STATS_TYPE_GAUGE) return 0;
  return handle->type == STATS_TYPE_COUNTER ? count_of(*handle) : add_up(*handle).count;
}

double stats_value(const stats_handle_t *handle) {
  if (handle == nullptr || handle->type == STATS_TYPE_COUNTER) return 0.0;
  return handle->type == STATS_TYPE_GAUGE ? gauge_of(*handle) : add_up(*handle).sum;
}

char *stats_prometheus_text(size_t *len) {
  return ruxo::guarded<char *>(nullptr, [&] {
    std::string out;
    for (const Page &page : pages()) append_page(out, page);
    char *const text = static_cast<char *>(malloc(out.size() + 1));
    if (text == nullptr) return text;
    memcpy(text, out.c_str(), out.size() + 1);
    if (len != nullptr) *len = out.size();
    return text;
  });
}
