// Documents point at each other and at the tree: every relative link must lead somewhere, every page be reachable.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

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

std::string read_all(const fs::path &path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

// The targets of "[text](target#part)" in a text, without their parts.
std::vector<std::string> link_targets(const std::string &text) {
  std::vector<std::string> result;
  const std::string opening = "](";
  for (size_t at = text.find(opening); at != std::string::npos; at = text.find(opening, at)) {
    at += opening.size();
    const size_t end = text.find_first_of(")# \t\n", at);
    if (end == std::string::npos) break;
    const bool is_link = text[end] == ')' || (text[end] == '#' && text.find(')', end) != std::string::npos);
    if (is_link && end > at) result.push_back(text.substr(at, end - at));
  }
  return result;
}

// What follows each `before` in a text: its lower-case letters.
std::vector<std::string> names_after(const std::string &text, const std::string &before) {
  std::vector<std::string> result;
  for (size_t at = text.find(before); at != std::string::npos; at = text.find(before, at)) {
    at += before.size();
    size_t end = at;
    while (end < text.size() && text[end] >= 'a' && text[end] <= 'z') ++end;
    if (end > at) result.push_back(text.substr(at, end - at));
  }
  return result;
}

std::set<fs::path> links_of(const fs::path &document) {
  std::set<fs::path> result;
  for (const std::string &target : link_targets(read_all(document))) {
    if (target.find("://") != std::string::npos) continue;
    result.insert((document.parent_path() / target).lexically_normal());
  }
  return result;
}

TEST(Documents, LinksAreSeen) {
  EXPECT_EQ(link_targets("a [b](c.md), [d](e/f.md#g) [h](#i) [j](k l) [m](n.md"),
            (std::vector<std::string>{"c.md", "e/f.md"}));
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
  const std::vector<std::string> scripts = names_after(read_all(kRoot / "README.md"), "script/");
  for (const std::string &script : scripts) EXPECT_TRUE(fs::exists(kRoot / "script" / script)) << script;
  EXPECT_GT(scripts.size(), 3U);
}

}  // namespace
