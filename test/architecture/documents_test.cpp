// Documents point at each other and at the tree: every relative link must lead somewhere, every page be reachable.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <string>

namespace {

namespace fs = std::filesystem;

const fs::path kRoot = ORLITH_SOURCE_DIR;

std::set<fs::path> documents() {
  std::set<fs::path> result = {kRoot / "README.md"};
  for (const auto &entry : fs::recursive_directory_iterator(kRoot / "doc")) {
    if (entry.path().extension() == ".md") result.insert(entry.path());
  }
  return result;
}

std::set<fs::path> links_of(const fs::path &document) {
  static const std::regex link(R"(\]\(([^)#\s]+)(#[^)]*)?\))");
  std::ifstream file(document);
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  std::set<fs::path> result;
  for (std::sregex_iterator it(text.begin(), text.end(), link), end; it != end; ++it) {
    const std::string target = (*it)[1];
    if (target.find("://") != std::string::npos) continue;
    result.insert((document.parent_path() / target).lexically_normal());
  }
  return result;
}

TEST(Documents, LinksLeadSomewhere) {
  size_t links = 0;
  for (const fs::path &document : documents()) {
    for (const fs::path &target : links_of(document)) {
      ++links;
      EXPECT_TRUE(fs::exists(target)) << document << " points at " << target;
    }
  }
  EXPECT_GT(links, 5U);
}

TEST(Documents, EveryPageIsListed) {
  const std::set<fs::path> listed = links_of(kRoot / "doc" / "README.md");
  for (const fs::path &document : documents()) {
    if (document.filename() == "README.md") continue;
    EXPECT_EQ(listed.count(document), 1U) << document << " is not in doc/README.md";
  }
}

TEST(Documents, TheReadmeNamesScriptsThatExist) {
  std::ifstream file(kRoot / "README.md");
  const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
  static const std::regex script(R"(\bscript/([a-z]+))");
  size_t scripts = 0;
  for (std::sregex_iterator it(text.begin(), text.end(), script), end; it != end; ++it) {
    ++scripts;
    EXPECT_TRUE(fs::exists(kRoot / "script" / (*it)[1].str())) << (*it)[0];
  }
  EXPECT_GT(scripts, 3U);
}

}  // namespace
