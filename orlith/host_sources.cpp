#include "orlith/host_sources.h"

#include <dirent.h>
#include <fmt/format.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <memory>
#include <set>

#include "orlith/proc_text.h"
#include "orlith/text.h"

namespace {

using Words = std::vector<std::string_view>;
using Samples = std::vector<Sample>;

template <typename Value>
void add(Samples &samples, std::string_view name, const Tags &tags, Value value) {
  samples.push_back({tagged_name(name, tags), SampleValue(std::in_place_type<Value>, std::move(value))});
}

// ---- processors and scheduling ----

void read_cpu_line(const ProcFile &file, const Words &words, Samples &samples) {
  static constexpr std::string_view modes[] = {"user", "nice",    "system", "idle",  "iowait",
                                               "irq",  "softirq", "steal",  "guest", "guest_nice"};
  const std::string_view cpu = words[0] == "cpu" ? "all" : words[0].substr(3);
  file.word(words, 4, "at least four counts of ticks");
  for (size_t i = 0; i + 1 < words.size() && i < std::size(modes); ++i)
    add(samples, "cpu_time", {{"cpu", cpu}, {"mode", modes[i]}, {"units", "ticks"}},
        file.number<uint64_t>(words[i + 1]));
}

void read_stat(HostContext &context, Samples &samples) {
  static const std::map<std::string_view, std::string_view> counters = {{"ctxt", "context_switches"},
                                                                        {"processes", "forks"},
                                                                        {"intr", "interrupts"},
                                                                        {"softirq", "soft_interrupts"}};
  ProcFile file(context.root, "/proc/stat");
  bool any_cpu = false;
  for (Words words; file.next_line(words);) {
    if (words.empty()) continue;
    const auto counter = counters.find(words[0]);
    const auto value = [&] { return file.word(words, 1, "a number"); };
    if (words[0].starts_with("cpu")) {
      read_cpu_line(file, words, samples);
      any_cpu = true;
    } else if (counter != counters.end()) {
      add(samples, counter->second, {}, file.number<uint64_t>(value()));
    } else if (words[0] == "btime") {
      add(samples, "boot_time", {{"units", "epoch_seconds"}}, file.number<uint64_t>(value()));
    } else if (words[0] == "procs_running" || words[0] == "procs_blocked") {
      add(samples, "tasks", {{"state", words[0].substr(6)}}, file.number<uint32_t>(value()));
    }
  }
  if (!any_cpu) file.fault("the end of the file", "a line that begins with 'cpu'");
}

void read_loadavg(HostContext &context, Samples &samples) {
  static constexpr std::string_view minutes[] = {"1", "5", "15"};
  ProcFile file(context.root, "/proc/loadavg");
  Words words;
  file.next_line(words);
  for (size_t i = 0; i < 3; ++i)
    add(samples, "load_average", {{"minutes", minutes[i]}},
        file.number<double>(file.word(words, i, "a load")));
  const std::string_view entities = file.word(words, 3, "runnable/total");
  const size_t slash = entities.find('/');
  if (slash == std::string_view::npos) file.fault(entities, "runnable/total");
  add(samples, "scheduling_entities", {{"state", "runnable"}},
      file.number<uint32_t>(entities.substr(0, slash)));
  add(samples, "scheduling_entities", {{"state", "all"}}, file.number<uint32_t>(entities.substr(slash + 1)));
}

void read_uptime(HostContext &context, Samples &samples) {
  ProcFile file(context.root, "/proc/uptime");
  Words words;
  file.next_line(words);
  add(samples, "uptime", {{"units", "seconds"}}, file.number<double>(file.word(words, 0, "seconds")));
  add(samples, "uptime_idle", {{"units", "seconds"}}, file.number<double>(file.word(words, 1, "seconds")));
}

// "some avg10=0.12 avg60=0.05 avg300=0.01 total=12345"
void read_pressure_of(const HostContext &context, std::string_view resource, Samples &samples) {
  ProcFile file(context.root, fmt::format("/proc/pressure/{}", resource));
  for (Words words; file.next_line(words);) {
    if (words.empty()) continue;
    for (size_t i = 1; i < words.size(); ++i) {
      const size_t equals = words[i].find('=');
      if (equals == std::string_view::npos) file.fault(words[i], "name=value");
      const std::string_view key = words[i].substr(0, equals), value = words[i].substr(equals + 1);
      if (key == "total") {
        add(samples, "pressure_time",
            {{"resource", resource}, {"share", words[0]}, {"units", "microseconds"}},
            file.number<uint64_t>(value));
      } else if (key.starts_with("avg")) {
        add(samples, "pressure",
            {{"resource", resource}, {"share", words[0]}, {"units", "percent"}, {"window_s", key.substr(3)}},
            file.number<double>(value));
      }
    }
  }
}

void read_pressure(HostContext &context, Samples &samples) {
  // Kernels without it have no such folder, and machines may switch single files off: nothing to warn about.
  for (const std::string_view resource : {"cpu", "io", "memory"}) try {
      read_pressure_of(context, resource, samples);
    } catch (const ProcFault &fault) {
      if (!fault.missing) throw;
    }
}

// ---- memory ----

void read_meminfo(HostContext &context, Samples &samples) {
  ProcFile file(context.root, "/proc/meminfo");
  std::optional<uint64_t> available_bytes;
  for (Words words; file.next_line(words);) {
    if (words.empty()) continue;
    if (!words[0].ends_with(":")) file.fault(words[0], "a name that ends in ':'");
    const std::string_view kind = words[0].substr(0, words[0].size() - 1);
    const auto value = file.number<uint64_t>(file.word(words, 1, "a number"));
    if (words.size() > 2 && words[2] == "kB") {
      if (value > UINT64_MAX / 1024) file.fault(words[1], "a size in kB");
      add(samples, "memory", {{"kind", kind}, {"units", "bytes"}}, value * 1024);
      if (kind == "MemAvailable") available_bytes = value * 1024;
    } else {
      add(samples, "memory_pages", {{"kind", kind}}, value);
    }
  }
  if (!available_bytes) return;
  if (const auto before = context.state.available_bytes)
    add(samples, "memory_available_change", {{"units", "bytes"}},
        static_cast<int64_t>(*available_bytes - *before));
  context.state.available_bytes = available_bytes;
}

void read_vmstat(HostContext &context, Samples &samples) {
  static const std::set<std::string_view> events = {
      "pgpgin",        "pgpgout",        "pswpin",         "pswpout",      "pgfault",
      "pgmajfault",    "pgfree",         "pgactivate",     "pgdeactivate", "pgscan_kswapd",
      "pgscan_direct", "pgsteal_kswapd", "pgsteal_direct", "oom_kill",     "allocstall_normal",
      "compact_stall", "thp_fault_alloc"};
  ProcFile file(context.root, "/proc/vmstat");
  for (Words words; file.next_line(words);)
    if (!words.empty() && events.contains(words[0]))
      add(samples, "vm_events", {{"event", words[0]}}, file.number<uint64_t>(file.word(words, 1, "a count")));
}

// ---- devices ----

void read_disk(const ProcFile &file, const Words &words, Samples &samples) {
  constexpr uint64_t sector_bytes = 512;  // the unit of this file, whatever the device's own is
  const std::string_view device = words[2];
  const auto field = [&](size_t i) { return file.number<uint64_t>(words[i]); };
  // Three kinds of requests, each with four counters: how many, merged, sectors, milliseconds.
  static constexpr std::pair<std::string_view, size_t> kinds[] = {{"read", 3}, {"write", 7}, {"discard", 14}};
  for (const auto &[kind, first] : kinds) {
    if (first + 3 >= words.size()) continue;
    add(samples, "disk_operations", {{"device", device}, {"op", kind}}, field(first));
    add(samples, "disk_merges", {{"device", device}, {"op", kind}}, field(first + 1));
    add(samples, "disk_bytes", {{"device", device}, {"op", kind}, {"units", "bytes"}},
        field(first + 2) * sector_bytes);
    add(samples, "disk_time", {{"device", device}, {"op", kind}, {"units", "milliseconds"}},
        field(first + 3));
  }
  add(samples, "disk_in_flight", {{"device", device}}, file.number<uint32_t>(words[11]));
  add(samples, "disk_busy_time", {{"device", device}, {"units", "milliseconds"}}, field(12));
  add(samples, "disk_queue_time", {{"device", device}, {"units", "milliseconds"}}, field(13));
}

void read_diskstats(HostContext &context, Samples &samples) {
  ProcFile file(context.root, "/proc/diskstats");
  for (Words words; file.next_line(words);) {
    if (words.empty()) continue;
    file.word(words, 13, "major, minor, device and eleven counters");
    // Devices that never did anything (spare loop and ram devices) would only make noise.
    const bool idle =
        std::all_of(words.begin() + 3, words.end(), [](std::string_view word) { return word == "0"; });
    if (!idle) read_disk(file, words, samples);
  }
}

void read_interface(const ProcFile &file, std::string_view interface, const Words &counters,
                    Samples &samples) {
  static constexpr std::string_view names[] = {"net_bytes", "net_packets", "net_errors", "net_drops"};
  constexpr size_t counters_a_direction = 8;
  file.word(counters, 2 * counters_a_direction - 1, "sixteen counters");
  for (size_t i = 0; i < std::size(names); ++i) {
    add(samples, names[i], {{"direction", "receive"}, {"interface", interface}},
        file.number<uint64_t>(counters[i]));
    add(samples, names[i], {{"direction", "transmit"}, {"interface", interface}},
        file.number<uint64_t>(counters[i + counters_a_direction]));
  }
}

void read_net_dev(HostContext &context, Samples &samples) {
  ProcFile file(context.root, "/proc/net/dev");
  Words words;
  file.next_line(words);  // two lines of headings
  file.next_line(words);
  while (file.next_line(words)) {
    if (words.empty()) continue;
    // The first counter may follow the colon without a blank.
    const size_t colon = words[0].rfind(':');
    if (colon == std::string_view::npos) file.fault(words[0], "an interface's name and ':'");
    const std::string_view interface = words[0].substr(0, colon), rest = words[0].substr(colon + 1);
    if (rest.empty()) {
      words.erase(words.begin());
    } else {
      words[0] = rest;
    }
    read_interface(file, interface, words, samples);
  }
}

struct CloseFolder {
  void operator()(DIR *folder) const { closedir(folder); }
};

// The names in a folder, in order.
std::vector<std::string> names_in(const std::string &root, const std::string &path) {
  const std::unique_ptr<DIR, CloseFolder> folder(opendir((root + path).c_str()));
  if (!folder) {
    ProcFault fault(fmt::format("{}: {}", escaped(path), strerror(errno)));
    fault.missing = errno == ENOENT;
    throw fault;
  }
  std::vector<std::string> names;
  while (const dirent *entry = readdir(folder.get())) names.emplace_back(entry->d_name);
  std::sort(names.begin(), names.end());
  return names;
}

// Millidegrees, which are negative in the cold. Virtual machines have no sensors: nothing to warn about.
void read_temperatures(HostContext &context, Samples &samples) {
  const std::string folder = "/sys/class/thermal";
  std::vector<std::string> names;
  try {
    names = names_in(context.root, folder);
  } catch (const ProcFault &) {
    return;
  }
  for (const std::string &name : names) {
    if (!name.starts_with("thermal_zone")) continue;
    try {
      const std::string zone = fmt::format("{}/{}", folder, name);
      ProcFile type(context.root, zone + "/type"), value(context.root, zone + "/temp");
      add(samples, "temperature",
          {{"sensor", type.single_line()},
           {"units", "millicelsius"},
           {"zone", std::string_view(name).substr(12)}},
          value.number<int32_t>(value.single_line()));
    } catch (const ProcFault &) {
      continue;  // a zone that is switched off refuses to be read
    }
  }
}

// ---- file systems ----

// Blanks and backslashes in this file are written as three octal digits.
std::string decoded_mount(std::string_view text) {
  std::string out;
  const auto octal = [&](size_t i) { return i < text.size() && text[i] >= '0' && text[i] <= '7'; };
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\\' && octal(i + 1) && octal(i + 2) && octal(i + 3)) {
      out += static_cast<char>((text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0'));
      i += 3;
    } else {
      out += text[i];
    }
  }
  return out;
}

// Asking a file server that does not answer would stop the whole collection.
bool is_remote(std::string_view type) {
  static const std::set<std::string_view> remote = {"nfs", "nfs4", "cifs",      "smb3",   "smbfs",  "ceph",
                                                    "afs", "9p",   "glusterfs", "lustre", "autofs", "ncpfs"};
  return remote.contains(type) || type.starts_with("fuse.");
}

void add_file_system(const std::string &mount, std::string_view type, const struct statvfs &info,
                     Samples &samples) {
  const uint64_t block_bytes = info.f_frsize;
  const uint64_t used = info.f_blocks - std::min(info.f_blocks, info.f_bfree);
  const auto bytes = [&](std::string_view kind, uint64_t blocks) {
    add(samples, "filesystem", {{"kind", kind}, {"mount", mount}, {"type", type}, {"units", "bytes"}},
        blocks * block_bytes);
  };
  bytes("total", info.f_blocks);
  bytes("free", info.f_bfree);
  bytes("available", info.f_bavail);
  bytes("used", used);
  // As users see it: of what they may fill.
  const uint64_t fillable = used + info.f_bavail;
  const double percent =
      fillable == 0 ? 0 : 100.0 * static_cast<double>(used) / static_cast<double>(fillable);
  add(samples, "filesystem_used", {{"mount", mount}, {"type", type}, {"units", "percent"}}, percent);
  if (info.f_files == 0) return;  // file systems without a fixed number of inodes
  const auto inodes = [&](std::string_view kind, uint64_t count) {
    add(samples, "filesystem_inodes", {{"kind", kind}, {"mount", mount}, {"type", type}}, count);
  };
  inodes("total", info.f_files);
  inodes("free", info.f_ffree);
}

void read_file_systems(HostContext &context, Samples &samples) {
  ProcFile file(context.root, "/proc/mounts");
  std::map<std::string, std::string> types;  // by mount point: the last mount covers earlier ones
  for (Words words; file.next_line(words);)
    if (!words.empty())
      types[decoded_mount(file.word(words, 1, "a mount point"))] = file.word(words, 2, "a type");
  for (const auto &[mount, type] : types) {
    struct statvfs info {};
    // A mount point we may not look into, or one just gone, is no reason to leave the others out.
    if (is_remote(type) || statvfs((context.root + mount).c_str(), &info) != 0) continue;
    if (info.f_blocks > 0) add_file_system(mount, type, info, samples);  // the others hold no data
  }
}

// ---- processes, handles, texts ----

// The letter after the last ')': the command's name, in parentheses before it, may hold anything.
std::string_view state_name(std::string_view stat_line) {
  const size_t parenthesis = stat_line.rfind(')');
  if (parenthesis == std::string_view::npos || parenthesis + 2 >= stat_line.size()) return "other";
  switch (stat_line[parenthesis + 2]) {
    case 'R':
      return "running";
    case 'S':
      return "sleeping";
    case 'D':
      return "waiting";
    case 'Z':
      return "zombie";
    case 'T':
    case 't':
      return "stopped";
    case 'I':
      return "idle";
    default:
      return "other";
  }
}

void read_processes(HostContext &context, Samples &samples) {
  std::map<std::string_view, uint32_t> counts;
  for (const std::string_view state :
       {"running", "sleeping", "waiting", "zombie", "stopped", "idle", "other"})
    counts[state] = 0;
  uint32_t all = 0;
  for (const std::string &name : names_in(context.root, "/proc")) {
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    try {
      ProcFile file(context.root, "/proc/" + name + "/stat");
      ++counts[state_name(file.single_line())];
      ++all;
    } catch (const ProcFault &) {
      continue;  // it ended meanwhile
    }
  }
  add(samples, "processes", {{"state", "all"}}, all);
  for (const auto &[state, count] : counts) add(samples, "processes", {{"state", state}}, count);
}

void read_file_handles(HostContext &context, Samples &samples) {
  static constexpr std::string_view kinds[] = {"allocated", "unused", "limit"};
  ProcFile file(context.root, "/proc/sys/fs/file-nr");
  Words words;
  file.next_line(words);
  for (size_t i = 0; i < std::size(kinds); ++i)
    add(samples, "file_handles", {{"kind", kinds[i]}},
        file.number<uint64_t>(file.word(words, i, "three counts")));
}

void read_texts(HostContext &context, Samples &samples) {
  static constexpr std::pair<const char *, const char *> texts[] = {
      {"host_name", "/proc/sys/kernel/hostname"}, {"kernel_release", "/proc/sys/kernel/osrelease"}};
  for (const auto &[name, path] : texts) {
    ProcFile file(context.root, path);
    add(samples, name, {}, std::string(file.single_line()));
  }
}

// Turns a reader that throws into one that returns what is wrong.
template <void (*reader)(HostContext &, Samples &)>
std::string guarded(HostContext &context, Samples &samples) {
  try {
    reader(context, samples);
    return {};
  } catch (const ProcFault &fault) {
    return fault.what();
  }
}

}  // namespace

std::span<const HostSource> host_sources() {
  static constexpr HostSource sources[] = {
      {"cpu", guarded<read_stat>},
      {"memory", guarded<read_meminfo>},
      {"load", guarded<read_loadavg>},
      {"vm", guarded<read_vmstat>},
      {"disks", guarded<read_diskstats>},
      {"network", guarded<read_net_dev>},
      {"file systems", guarded<read_file_systems>},
      {"uptime", guarded<read_uptime>},
      {"pressure", guarded<read_pressure>},
      {"temperatures", guarded<read_temperatures>},
      {"processes", guarded<read_processes>},
      {"file handles", guarded<read_file_handles>},
      {"texts", guarded<read_texts>},
  };
  return sources;
}

std::vector<Sample> read_host(HostContext &context, std::vector<std::string> &problems) {
  Samples samples;
  for (const HostSource &source : host_sources()) {
    const size_t before = samples.size();
    const std::string problem = source.read(context, samples);
    if (problem.empty()) continue;
    samples.resize(before);
    problems.push_back(problem);
  }
  return samples;
}
