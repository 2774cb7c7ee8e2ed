// Folders are layers and includes point one way: this reads every #include of the tree and holds the rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = ORLITH_SOURCE_DIR;

struct Include {
  std::string file;    // relative to the root
  std::string target;  // as written between the quotes
};

bool is_source(const fs::path &path) {
  return path.extension() == ".h" || path.extension() == ".cpp" || path.extension() == ".c";
}

std::vector<fs::path> sources_below(const std::string &folder) {
  std::vector<fs::path> result;
  for (const auto &entry : fs::recursive_directory_iterator(kRoot / folder)) {
    if (entry.is_regular_file() && is_source(entry.path())) result.push_back(entry.path());
  }
  return result;
}

// Takes `word` and the blanks before it off the front; false, leaving all, when the text goes on otherwise.
bool skip_word(std::string_view *text, std::string_view word) {
  const size_t start = std::min(text->find_first_not_of(" \t"), text->size());
  if (!text->substr(start).starts_with(word)) return false;
  text->remove_prefix(start + word.size());
  return true;
}

// What a line includes; empty for any other line.
std::string include_target(std::string_view line) {
  if (!skip_word(&line, "#") || !skip_word(&line, "include")) return "";
  if (!skip_word(&line, "\"") && !skip_word(&line, "<")) return "";
  const size_t end = line.find_first_of("\">");
  return end == std::string_view::npos ? "" : std::string(line.substr(0, end));
}

std::vector<Include> includes_below(const std::string &folder) {
  std::vector<Include> result;
  for (const fs::path &path : sources_below(folder)) {
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
      std::string target = include_target(line);
      if (!target.empty()) result.push_back({fs::relative(path, kRoot).string(), std::move(target)});
    }
  }
  return result;
}

std::string first_folder(const std::string &include) {
  const size_t slash = include.find('/');
  return slash == std::string::npos ? "" : include.substr(0, slash);
}

// The layers of the top folder: who may include whom.
const std::map<std::string, std::set<std::string>> kMayInclude = {
    {"ruxo", {"ruxo"}},
    {"pobe", {"pobe"}},
    {"vaskllhist", {"vaskllhist"}},
    {"liborlith", {"liborlith", "ruxo", "pobe", "vaskllhist"}},
    {"orlith", {"orlith", "liborlith", "ruxo", "pobe", "vaskllhist"}},
    {"orlithd", {"orlithd", "orlith", "liborlith", "ruxo", "pobe", "vaskllhist"}},
};

// The layers inside liborlith, lowest first; a folder may include its own and lower numbers. The start-up frame
// starts every module, so its source file alone may see them all.
const std::map<std::string, int> kLiborlithLayer = {
    {"util", 1},
    {"nnt", 1},
    {"topo", 2},
    {"orollupd", 3},
};

std::string liborlith_folder(const std::string &path) {
  const size_t first = path.find('/');
  const size_t second = path.find('/', first + 1);
  return second == std::string::npos ? "" : path.substr(first + 1, second - first - 1);
}

TEST(Includes, AreSeenHoweverTheyAreWritten) {
  EXPECT_EQ(include_target("#include \"ruxo/log.h\""), "ruxo/log.h");
  EXPECT_EQ(include_target("  #  include <vector>  // why"), "vector");
  EXPECT_EQ(include_target("#include\"a.h\""), "a.h");
  for (const char *line : {"", "#", "// #include \"a.h\"", "#define X", "#include X", "#include \"a.h"})
    EXPECT_EQ(include_target(line), "") << line;
}

TEST(Includes, LibrariesOnlyLookDownwards) {
  size_t checked = 0;
  for (const auto &[folder, allowed] : kMayInclude) {
    for (const Include &include : includes_below(folder)) {
      const std::string target = first_folder(include.target);
      if (kMayInclude.count(target) == 0) continue;  // a system header
      ++checked;
      EXPECT_TRUE(allowed.count(target) != 0) << include.file << " includes " << include.target;
    }
  }
  EXPECT_GT(checked, 100U) << "the rule was hardly exercised: is ORLITH_SOURCE_DIR right?";
}

TEST(Includes, FoldersOfTheLibraryOnlyLookDownwards) {
  // The placement hash is the one thing of topo/ that stands on nothing: a metric's identity is hashed with it.
  const std::set<std::string> hash_users = {"liborlith/util/metric_locator.cpp"};
  // Peers' answers are spooled by a helper of util/ that stands above topo/, which nothing below uses.
  const std::set<std::string> topo_users = {"liborlith/util/vask_proxy_buffer.cpp"};
  for (const Include &include : includes_below("liborlith")) {
    const std::string from = liborlith_folder(include.file);
    if (from.empty() || first_folder(include.target) != "liborlith") continue;
    const std::string to = liborlith_folder(include.target);
    if (to.empty() || from == to) continue;
    if (to == "topo" && hash_users.count(include.file) + topo_users.count(include.file) != 0) continue;
    ASSERT_TRUE(kLiborlithLayer.count(from) != 0 && kLiborlithLayer.count(to) != 0)
        << include.file << ": give " << from << " and " << to << " a layer above";
    EXPECT_LT(kLiborlithLayer.at(to), kLiborlithLayer.at(from))
        << include.file << " includes " << include.target;
  }
}

// name_private.h is for its folder; name_internal.h is for its library, whose folders share what hosts never see.
TEST(Includes, PrivateHeadersStayInTheirFolder) {
  for (const std::string folder : {"ruxo", "pobe", "vaskllhist", "liborlith", "orlith", "orlithd"}) {
    for (const Include &include : includes_below(folder)) {
      if (include.target.ends_with("_private.h")) {
        EXPECT_EQ(fs::path(include.file).parent_path(), fs::path(include.target).parent_path())
            << include.file << " includes " << include.target;
      } else if (include.target.ends_with("_internal.h")) {
        EXPECT_EQ(first_folder(include.file), first_folder(include.target))
            << include.file << " includes " << include.target;
      }
    }
  }
}

bool is_private_header(const std::string &path) {
  constexpr const char *endings[] = {"_private.h", "_internal.h", "liborlith_fatal.h", "liborlith_module.h"};
  return std::any_of(std::begin(endings), std::end(endings),
                     [&](const char *ending) { return path.ends_with(ending); });
}

TEST(Includes, PublicHeadersNeedNoPrivateOnes) {
  for (const std::string folder : {"ruxo", "pobe", "vaskllhist", "liborlith"}) {
    for (const Include &include : includes_below(folder)) {
      if (fs::path(include.file).extension() != ".h") continue;
      if (is_private_header(include.file)) continue;
      EXPECT_FALSE(is_private_header(include.target)) << include.file << " includes " << include.target;
    }
  }
}

// In characters: drawings in expected screens take several bytes each.
size_t width_of(const std::string &line) {
  return static_cast<size_t>(
      std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xc0) != 0x80; }));
}

// Expected outputs stand as they are, in raw strings: their lines have the width of the output.
bool in_raw_string(const std::string &line, bool *inside) {
  const bool was_inside = *inside;
  if (line.find("R\"(") != std::string::npos) *inside = true;
  const bool touched = was_inside || *inside;
  if (line.find(")\"") != std::string::npos) *inside = false;
  return touched;
}

TEST(Sources, AreNoLongerThanAPersonReads) {
  constexpr size_t kMaxLines = 700;
  constexpr size_t kMaxTestLines = 1000;  // a test file is read a case at a time
  constexpr size_t kMaxColumns = 120;
  for (const std::string folder :
       {"ruxo", "pobe", "vaskllhist", "liborlith", "orlith", "orlithd", "test", "bench", "fuzz"}) {
    for (const fs::path &path : sources_below(folder)) {
      std::ifstream file(path);
      std::string line;
      size_t lines = 0;
      bool raw = false;
      while (std::getline(file, line)) {
        ++lines;
        if (!in_raw_string(line, &raw)) {
          EXPECT_LE(width_of(line), kMaxColumns) << path << ":" << lines;
        }
      }
      EXPECT_LE(lines, folder == "test" ? kMaxTestLines : kMaxLines) << path;
    }
  }
}

bool is_word_byte(char byte) {
  return std::isalnum(static_cast<unsigned char>(byte)) != 0 || byte == '_';
}

// Whether `word` stands in the line, not as a part of a longer one.
bool has_word(const std::string &line, const std::string &word) {
  for (size_t at = line.find(word); at != std::string::npos; at = line.find(word, at + 1)) {
    const size_t end = at + word.size();
    const bool begins = at == 0 || !is_word_byte(line[at - 1]);
    if (begins && (end == line.size() || !is_word_byte(line[end]))) return true;
  }
  return false;
}

TEST(Sources, HoldNoMarkersOfUnfinishedWork) {
  const std::string markers[] = {
      "TO"
      "DO",
      "FIX"
      "ME",
      "XX"
      "X"};  // in pieces: this is a source too
  ASSERT_TRUE(has_word("// " + markers[0] + ": later", markers[0]));
  ASSERT_FALSE(has_word("mkstemp(\"" + markers[2] + markers[2] + "\")", markers[2]));
  for (const std::string folder :
       {"ruxo", "pobe", "vaskllhist", "liborlith", "orlith", "orlithd", "test", "bench", "fuzz"}) {
    for (const fs::path &path : sources_below(folder)) {
      std::ifstream file(path);
      std::string line;
      for (size_t number = 1; std::getline(file, line); ++number) {
        for (const std::string &marker : markers)
          EXPECT_FALSE(has_word(line, marker)) << path << ":" << number << ": " << line;
      }
    }
  }
}

}  // namespace
