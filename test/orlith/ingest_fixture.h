// What the tests of `orlith ingest` share: a check, clusters of three nodes and of one, a session with a data folder.
#ifndef TEST_ORLITH_INGEST_FIXTURE_H
#define TEST_ORLITH_INGEST_FIXTURE_H

#include <gtest/gtest.h>
#include <libxml/tree.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "orlith/ingest_run.h"
#include "test/orlith/tool_fixture.h"
#include "test/support/temp_dir.h"

inline const std::string kCheck = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
inline const std::string kNodes[] = {"7a0a2f4e-52a1-4f0b-9a3c-000000000001",
                                     "7a0a2f4e-52a1-4f0b-9a3c-000000000002",
                                     "7a0a2f4e-52a1-4f0b-9a3c-000000000003"};
// The clock of ToolSession starts here.
inline constexpr uint64_t kNow_s = 1'700'000'000 + 5;

inline std::string node_element(const std::string &id) {
  return "<node id=\"" + id + "\" weight=\"10\" address=\"127.0.0.1\" port=\"1\" apiport=\"2\"/>";
}

inline std::string topology_text() {
  std::string text = "<nodes write_copies=\"2\">";
  for (const std::string &node : kNodes) text += node_element(node);
  return text + "</nodes>";
}

// A name as file names have it: base64 with '_' for '/'. Of the tests' own.
inline std::string base64(const std::string &bytes) {
  static const char *const alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+_";
  std::string result;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    unsigned group = 0;
    for (size_t k = 0; k < 3; ++k)
      group = group << 8 | (i + k < bytes.size() ? static_cast<uint8_t>(bytes[i + k]) : 0U);
    for (size_t k = 0; k < 4; ++k)
      result += i + k > bytes.size() ? '=' : alphabet[group >> (18 - 6 * k) & 63];
  }
  return result;
}

// The regular files under a folder, relative to it and in order; its index is the matter of other tests.
inline std::vector<std::string> files_below(const std::string &folder) {
  std::vector<std::string> result;
  if (!std::filesystem::exists(folder)) return result;
  for (const auto &entry : std::filesystem::recursive_directory_iterator(folder)) {
    const std::string path = std::filesystem::relative(entry.path(), folder).string();
    if (entry.is_regular_file() && path != "metrics.index") result.push_back(path);
  }
  std::sort(result.begin(), result.end());
  return result;
}

// A topology of one node, for runs that are driven without the command line.
struct LoneNode {
  LoneNode() {
    const std::string text = "<nodes write_copies=\"1\">" + node_element(kNodes[0]) + "</nodes>";
    document = topo_parse_document(text.data(), text.size(), nullptr);
    topology = topo_compile(document, nullptr, nullptr);
  }
  ~LoneNode() {
    topo_free(topology);
    xmlFreeDoc(document);
  }
  LoneNode(const LoneNode &) = delete;
  LoneNode &operator=(const LoneNode &) = delete;

  IngestOptions options(const std::string &data) const {
    IngestOptions result;
    result.data_folder = data;
    result.periods_s = {60};
    result.topology = topology;
    result.me = {true};
    return result;
  }

  xmlDoc *document;
  topo_config *topology;
};

class IngestTest : public testing::Test {
 protected:
  // Runs `orlith ingest` on the test's data folder; out() and err() are of the last run.
  int ingest(std::vector<std::string> arguments) {
    tool_.out.text.clear();
    tool_.err.text.clear();
    arguments.insert(arguments.begin(), {"ingest", "--data", data()});
    return tool_.run(arguments);
  }
  std::string data() const { return dir_.file("data"); }
  const std::string &out() const { return tool_.out.text; }
  const std::string &err() const { return tool_.err.text; }

  TempDir dir_;
  ToolSession tool_;
};

#endif
