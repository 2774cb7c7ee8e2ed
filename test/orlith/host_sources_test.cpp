#include "orlith/host_sources.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <set>

#include "liborlith/orollupd/rollup.h"
#include "liborlith/util/metric_locator.h"
#include "pobe/pobe.h"
#include "test/support/temp_dir.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;

const std::string fixture_root = ORLITH_FIXTURES "/host";

// "name type value", as the M line has them.
std::vector<std::string> lines_of(const std::vector<Sample> &samples) {
  std::vector<std::string> lines;
  for (const Sample &sample : samples) {
    std::string line;
    append_m_line(line, 0, "c", sample);
    line = line.substr(std::string("M\t0.000\tc\t").size());
    line.pop_back();
    lines.push_back(line);
  }
  return lines;
}

// The lines of the one source, which must have no problem.
std::vector<std::string> read_source(const std::string &name, const std::string &root = fixture_root) {
  HostContext context{root, {}};
  std::vector<Sample> samples;
  for (const HostSource &source : host_sources())
    if (source.name == name) {
      EXPECT_EQ(source.read(context, samples), "");
      return lines_of(samples);
    }
  ADD_FAILURE() << "no source " << name;
  return {};
}

std::string problem_of(const std::string &name, const std::string &root) {
  HostContext context{root, {}};
  std::vector<Sample> samples;
  for (const HostSource &source : host_sources())
    if (source.name == name) return source.read(context, samples);
  return "no such source";
}

// A root with one file in it.
struct OneFile {
  OneFile(const std::string &path, std::string_view text) {
    std::filesystem::create_directories(std::filesystem::path(folder.file(path)).parent_path());
    folder.write(path, text);
  }
  TempDir folder;
};

TEST(HostSources, ReadsProcessors) {
  const auto lines = read_source("cpu");
  EXPECT_THAT(lines, Contains("cpu_time|ST[cpu:all,mode:user,units:ticks]\tL\t100"));
  EXPECT_THAT(lines, Contains("cpu_time|ST[cpu:1,mode:softirq,units:ticks]\tL\t1"));
  EXPECT_THAT(lines, Contains("context_switches\tL\t478611"));
  EXPECT_THAT(lines, Contains("interrupts\tL\t309083"));
  EXPECT_THAT(lines, Contains("boot_time|ST[units:epoch_seconds]\tL\t1700000000"));
  EXPECT_THAT(lines, Contains("tasks|ST[state:blocked]\tI\t4"));
  EXPECT_THAT(lines, SizeIs(3 * 10 + 7));
}

TEST(HostSources, ReadsMemoryInBytesAndItsChangeFromTheSecondRoundOn) {
  EXPECT_THAT(read_source("memory"), ElementsAre("memory|ST[kind:MemTotal,units:bytes]\tL\t25276502016",
                                                 "memory|ST[kind:MemFree,units:bytes]\tL\t20480000000",
                                                 "memory|ST[kind:MemAvailable,units:bytes]\tL\t22528000000",
                                                 "memory|ST[kind:Active(anon),units:bytes]\tL\t12288",
                                                 "memory_pages|ST[kind:HugePages_Total]\tL\t3"));
  HostContext context{fixture_root, {.available_bytes = 22528000000 + 4096}};
  std::vector<Sample> samples;
  EXPECT_EQ(host_sources()[1].read(context, samples), "");
  EXPECT_EQ(lines_of(samples).back(), "memory_available_change|ST[units:bytes]\tl\t-4096");
}

TEST(HostSources, ReadsLoad) {
  EXPECT_THAT(
      read_source("load"),
      ElementsAre("load_average|ST[minutes:1]\tn\t0.25", "load_average|ST[minutes:5]\tn\t1.5",
                  "load_average|ST[minutes:15]\tn\t12.75", "scheduling_entities|ST[state:runnable]\tI\t3",
                  "scheduling_entities|ST[state:all]\tI\t415"));
}

TEST(HostSources, ReadsTheSelectedVmEventsOnly) {
  EXPECT_THAT(read_source("vm"),
              ElementsAre("vm_events|ST[event:pgfault]\tL\t4567", "vm_events|ST[event:pgmajfault]\tL\t8",
                          "vm_events|ST[event:oom_kill]\tL\t0"));
}

TEST(HostSources, ReadsDisksThatDidSomething) {
  const auto lines = read_source("disks");
  EXPECT_THAT(lines, Contains("disk_operations|ST[device:vda,op:read]\tL\t100"));
  EXPECT_THAT(lines,
              Contains("disk_bytes|ST[device:vda,op:write,units:bytes]\tL\t409600"));  // 800 sectors of 512
  EXPECT_THAT(lines, Contains("disk_bytes|ST[device:vda,op:discard,units:bytes]\tL\t12288"));
  EXPECT_THAT(lines, Contains("disk_in_flight|ST[device:vda]\tI\t1"));
  EXPECT_THAT(lines, Contains("disk_busy_time|ST[device:vda,units:milliseconds]\tL\t150"));
  // A device name with brackets is encoded; kernels before 4.18 have no discard counters.
  EXPECT_THAT(lines, Contains("disk_operations|ST[device:b\"c2RhW3hd\",op:read]\tL\t1"));
  EXPECT_THAT(lines, SizeIs(15 + 11));
}

TEST(HostSources, ReadsNetworkInterfacesAlsoWithoutABlankAfterTheColon) {
  const auto lines = read_source("network");
  EXPECT_THAT(lines, Contains("net_bytes|ST[direction:transmit,interface:lo]\tL\t3267"));
  EXPECT_THAT(lines, Contains("net_bytes|ST[direction:receive,interface:eth0.7]\tL\t18446744073709551615"));
  EXPECT_THAT(lines, Contains("net_drops|ST[direction:transmit,interface:eth0.7]\tL\t5"));
  EXPECT_THAT(lines, SizeIs(16));
}

TEST(HostSources, ReadsUptimeHandlesAndTexts) {
  EXPECT_THAT(read_source("uptime"), ElementsAre("uptime|ST[units:seconds]\tn\t12345.67",
                                                 "uptime_idle|ST[units:seconds]\tn\t23456.78"));
  EXPECT_THAT(read_source("file handles"),
              ElementsAre("file_handles|ST[kind:allocated]\tL\t1024", "file_handles|ST[kind:unused]\tL\t0",
                          "file_handles|ST[kind:limit]\tL\t9223372036854775807"));
  EXPECT_THAT(read_source("texts"), ElementsAre("host_name\ts\tdb-01", "kernel_release\ts\t6.1.0-18-amd64"));
}

TEST(HostSources, ReadsPressureWhereThereIsSome) {
  const auto lines = read_source("pressure");  // the files for io and memory are not there
  EXPECT_THAT(lines, Contains("pressure|ST[resource:cpu,share:some,units:percent,window_s:10]\tn\t0.12"));
  EXPECT_THAT(lines, Contains("pressure_time|ST[resource:cpu,share:full,units:microseconds]\tL\t7"));
  EXPECT_THAT(lines, SizeIs(8));
}

TEST(HostSources, ReadsTemperaturesBelowZero) {
  EXPECT_THAT(read_source("temperatures"),
              ElementsAre("temperature|ST[sensor:x86_pkg_temp,units:millicelsius,zone:0]\ti\t45000",
                          "temperature|ST[sensor:outside,units:millicelsius,zone:1]\ti\t-7500"));
}

TEST(HostSources, CountsProcessesByStateWhateverTheirNames) {
  const auto lines = read_source("processes");
  EXPECT_THAT(lines, Contains("processes|ST[state:all]\tI\t2"));
  EXPECT_THAT(lines, Contains("processes|ST[state:sleeping]\tI\t1"));
  EXPECT_THAT(lines, Contains("processes|ST[state:zombie]\tI\t1"));
  EXPECT_THAT(lines, Contains("processes|ST[state:running]\tI\t0"));
}

TEST(HostSources, ReadsFileSystemsWithOddMountPoints) {
  OneFile root("proc/mounts",
               "/dev/a / ext4 rw 0 0\n"
               "/dev/b /my\\040disk xfs rw 0 0\n"
               "/dev/c /odd,[x] btrfs rw 0 0\n"
               "/dev/d /gone ext4 rw 0 0\n"
               "server:/x / nfs4 rw 0 0\n"
               "/dev/a / tmpfs rw 0 0\n");
  std::filesystem::create_directories(root.folder.file("my disk"));
  std::filesystem::create_directories(root.folder.file("odd,[x]"));
  std::set<std::string> names;
  for (const std::string &line : read_source("file systems", root.folder.path()))
    names.insert(line.substr(0, line.find('\t')));
  EXPECT_THAT(names, Contains("filesystem|ST[kind:total,mount:/,type:tmpfs,units:bytes]"));
  EXPECT_THAT(names, Contains("filesystem|ST[kind:used,mount:/my disk,type:xfs,units:bytes]"));
  EXPECT_THAT(names, Contains("filesystem_used|ST[mount:b\"L29kZCxbeF0=\",type:btrfs,units:percent]"));
  for (const std::string &name : names) {
    EXPECT_EQ(name.find("gone"), std::string::npos);
    EXPECT_EQ(name.find("nfs"), std::string::npos);
  }
}

TEST(HostSources, SkipsAFileServer) {
  OneFile root("proc/mounts", "server:/x / nfs4 rw 0 0\n");
  EXPECT_THAT(read_source("file systems", root.folder.path()), SizeIs(0));
}

TEST(HostSources, NameTheFileAndLineOfAProblem) {
  struct Case {
    const char *source, *path, *text, *problem;
  };
  const Case cases[] = {
      {"cpu", "proc/stat", "cpu 1 2 x 4\n", "/proc/stat, line 1: found 'x', expected a number"},
      {"cpu", "proc/stat", "cpu 1 2\n",
       "/proc/stat, line 1: found 'the end of the line', expected at least four counts of ticks"},
      {"cpu", "proc/stat", "",
       "/proc/stat, line 0: found 'the end of the file', expected a line that begins with 'cpu'"},
      {"memory", "proc/meminfo", "MemTotal: 5 kB\nMemFree 7\n",
       "/proc/meminfo, line 2: found 'MemFree', expected a name that ends in ':'"},
      {"memory", "proc/meminfo", "MemTotal: 18446744073709551615 kB\n",
       "/proc/meminfo, line 1: found '18446744073709551615', expected a size in kB"},
      {"load", "proc/loadavg", "0.1 0.2 0.3 4\n",
       "/proc/loadavg, line 1: found '4', expected runnable/total"},
      {"vm", "proc/vmstat", "pgfault -1\n", "/proc/vmstat, line 1: found '-1', expected a number"},
      {"disks", "proc/diskstats", "8 0 sda 1\n",
       "/proc/diskstats, line 1: found 'the end of the line', expected major, minor, device and eleven "
       "counters"},
      {"network", "proc/net/dev", "h\nh\neth0 5\n",
       "/proc/net/dev, line 3: found 'eth0', expected an interface's name and ':'"},
      {"network", "proc/net/dev", "h\nh\neth0: 5\n",
       "/proc/net/dev, line 3: found 'the end of the line', expected sixteen counters"},
      {"uptime", "proc/uptime", "\x1b[2J 5\n", "/proc/uptime, line 1: found '\\x1b[2J', expected a number"},
      {"pressure", "proc/pressure/io", "some nonsense\n",
       "/proc/pressure/io, line 1: found 'nonsense', expected name=value"},
      {"file systems", "proc/mounts", "/dev/a /\n",
       "/proc/mounts, line 1: found 'the end of the line', expected a type"},
      {"file handles", "proc/sys/fs/file-nr", "1 2\n",
       "/proc/sys/fs/file-nr, line 1: found 'the end of the line', expected three counts"},
      {"texts", "proc/sys/kernel/hostname", "",
       "/proc/sys/kernel/hostname, line 0: found 'an empty file', expected one line"},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.problem);
    const OneFile root(c.path, c.text);
    EXPECT_EQ(problem_of(c.source, root.folder.path()), c.problem);
  }
}

TEST(HostSources, NameAMissingFile) {
  const TempDir empty;
  EXPECT_EQ(problem_of("cpu", empty.path()), "/proc/stat: No such file or directory");
  EXPECT_EQ(problem_of("processes", empty.path()), "/proc: No such file or directory");
  EXPECT_EQ(problem_of("pressure", empty.path()), "");      // not every kernel has it
  EXPECT_EQ(problem_of("temperatures", empty.path()), "");  // not every machine has sensors
}

TEST(ReadHost, LeavesOutTheSourceWithAProblemWhole) {
  const OneFile root("proc/loadavg", "0.1 0.2 nonsense 1/2\n");
  HostContext context{root.folder.path(), {}};
  std::vector<std::string> problems;
  for (const std::string &line : lines_of(read_host(context, problems)))
    EXPECT_THAT(line, Not(HasSubstr("load")));
  EXPECT_THAT(problems, Contains("/proc/loadavg, line 1: found 'nonsense', expected a number"));
}

// Names are metric identities: a spelling that the canonicaliser changes would be a second metric.
void expect_canonical(const std::string &name) {
  std::string canonical(4096, '\0');
  const ssize_t length = pobe_metric_canonicalize_ex(name.data(), name.size(), canonical.data(),
                                                     canonical.size(), true, true, false);
  ASSERT_GE(length, 0) << name << ": " << pobe_error_text(length);
  EXPECT_EQ(canonical.substr(0, static_cast<size_t>(length)), name);
}

TEST(ReadHost, GivesCanonicalNamesFromTheFixturesAndFromThisMachine) {
  for (const std::string &root : {fixture_root, std::string()}) {
    HostContext context{root, {}};
    std::vector<std::string> problems;
    for (const Sample &sample : read_host(context, problems)) expect_canonical(sample.name);
  }
}

// What is collected is what ingestion reads: line by line, without a loss.
TEST(ReadHost, GivesLinesThatTheLibraryParses) {
  const char *check = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
  HostContext context{fixture_root, {.available_bytes = 0}};
  std::vector<std::string> problems;
  for (const Sample &sample : read_host(context, problems)) {
    std::string line;
    append_m_line(line, 1700000000123, check, sample);
    SCOPED_TRACE(line);
    uint64_t time_ms = 0;
    orlith_metric_locator_t *locator = nullptr;
    metric_value_t value{};
    ASSERT_EQ(parse_Mline(line.c_str(), &time_ms, &locator, &value, true), 1);
    EXPECT_EQ(time_ms / 1000, 1700000000u);
    EXPECT_EQ(orlith_metric_locator_get_name_with_tags(locator), sample.name);
    if (const auto *number = std::get_if<uint64_t>(&sample.value)) {
      EXPECT_EQ(value.storage.v_uint64, *number);
    }
    if (const auto *number = std::get_if<int32_t>(&sample.value)) {
      EXPECT_EQ(value.storage.v_int32, *number);
    }
    if (const auto *number = std::get_if<double>(&sample.value)) {
      EXPECT_EQ(value.storage.v_double, *number);
    }
    if (value.type == ORLITH_METRIC_STRING) free(value.storage.v_string);
    orlith_metric_locator_deref(locator);
  }
}

TEST(TaggedName, IsCanonicalForEveryValue) {
  std::vector<std::string> values = {"",
                                     " ",
                                     "a b",
                                     " a",
                                     "a,b",
                                     "[x]",
                                     "{",
                                     "\"",
                                     "a:b",
                                     "b\"eA==\"",
                                     "\n\t\x01",
                                     "\xff\xfe",
                                     "Zürich",
                                     std::string(254, 'a'),
                                     std::string(255, 'a'),
                                     std::string(5000, ','),
                                     std::string(300, '\x01'),
                                     "\\",
                                     "|",
                                     "a|b"};
  std::string long_text;
  while (long_text.size() < 400) long_text += "é";
  values.push_back(long_text);
  values.push_back("x" + long_text);
  for (const std::string &value : values)
    expect_canonical(tagged_name("disk", {{"units", "bytes"}, {"device", value}}));
  EXPECT_EQ(tagged_name("disk", {}), "disk");
  EXPECT_EQ(tagged_name("disk", {{"b", "2"}, {"a", "1"}}), "disk|ST[a:1,b:2]");
}

TEST(TaggedName, KeepsLongValuesApart) {
  const std::string common(300, 'a');
  EXPECT_NE(tagged_name("m", {{"t", common + "1"}}), tagged_name("m", {{"t", common + "2"}}));
}

TEST(MLine, HasTimeCheckNameTypeAndValue) {
  const char *check = "1b4e28ba-2fa1-11d2-883f-0016d3cca427";
  std::string out;
  append_m_line(out, 1700000000007, check, {"m|ST[a:1]", uint64_t{18446744073709551615u}});
  append_m_line(out, 999, check, {"m", int64_t{-5}});
  append_m_line(out, 0, check, {"m", uint32_t{5}});
  append_m_line(out, 0, check, {"m", int32_t{-5}});
  append_m_line(out, 0, check, {"m", 0.1});
  append_m_line(out, 0, check, {"m", std::numeric_limits<double>::quiet_NaN()});
  append_m_line(out, 0, check, {"m", std::string("two\nlines")});
  EXPECT_EQ(out,
            "M\t1700000000.007\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tm|ST[a:1]\tL\t18446744073709551615\n"
            "M\t0.999\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tm\tl\t-5\n"
            "M\t0.000\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tm\tI\t5\n"
            "M\t0.000\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tm\ti\t-5\n"
            "M\t0.000\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tm\tn\t0.1\n"
            "M\t0.000\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tm\tn\t[[null]]\n"
            "M\t0.000\t1b4e28ba-2fa1-11d2-883f-0016d3cca427\tm\ts\ttwo\\nlines\n");
}

}  // namespace
