// Three nodes on loopback, and clients that find, put and read back while nodes are killed and restarted.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <set>

#include "ruxo/json.h"
#include "test/orlithd/node_process.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

constexpr char kCheck[] = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
constexpr char kName[] = "mem|ST[kind:free]";
constexpr char kEncoded[] = "bWVtfFNUW2tpbmQ6ZnJlZV0=";
const std::vector<std::string> kIds = {"76650c73-426c-48f6-ab8e-b575c1d3d5d1",
                                       "39b8406b-ab01-4224-86ac-5d63faa46ac1",
                                       "e4a84d99-0cbe-43f9-82f6-33232bd4f8b6"};

// A port that nobody listens on at this moment.
int free_port() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof address;
  bind(fd, reinterpret_cast<sockaddr *>(&address), len);
  getsockname(fd, reinterpret_cast<sockaddr *>(&address), &len);
  close(fd);
  return ntohs(address.sin_port);
}

class Cluster : public testing::Test {
 protected:
  void SetUp() override {
    // Another process may take a port between the choice and the node's start: then all is chosen again.
    for (int attempt = 0; attempt < 5; ++attempt) {
      choose_ports();
      if (start(0) && start(1) && start(2)) return;
      for (auto &node : nodes_) node.reset();
    }
    FAIL() << "the nodes do not start";
  }

  void choose_ports() {
    std::string document = "<nodes write_copies=\"2\">";
    for (size_t i = 0; i < kIds.size(); ++i) {
      ports_[i] = free_port();
      document += "<node id=\"" + kIds[i] + "\" address=\"127.0.0.1\" port=\"8112\" apiport=\"" +
                  std::to_string(ports_[i]) + "\" weight=\"32\"/>";
    }
    dir_.write("cluster.xml", document + "</nodes>");
  }
  // At the address that the topology has for it.
  bool start(size_t i) {
    nodes_[i] = std::make_unique<NodeProcess>(
        std::vector<std::string>{"--topology", "cluster.xml", "--me", kIds[i], "--data", kIds[i]},
        dir_.path());
    return nodes_[i]->port() == ports_[i];
  }
  void kill_node(size_t i) { EXPECT_EQ(nodes_[i]->end(SIGKILL), -SIGKILL); }

  std::string boot(size_t i) const { return " --boot 127.0.0.1:" + std::to_string(ports_[i]); }
  std::string metric() const { return std::string(" ") + kCheck + " '" + kName + "' "; }
  // The exit code of the tool.
  int orlith(const std::string &arguments) {
    const std::string line =
        "cd '" + dir_.path() + "' && timeout 60 '" ORLITH_BINARY "' " + arguments + " >out 2>err </dev/null";
    const int status = system(line.c_str());
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  // The places of the owners in kIds, as the tool tells them, asking node `asked`.
  std::vector<size_t> owners(size_t asked) {
    std::vector<size_t> result;
    EXPECT_EQ(orlith("where --json" + boot(asked) + metric()), 0) << dir_.read("err");
    ruxo_json_object *const rows = ruxo_json_parse(dir_.read("out").c_str());
    for (size_t i = 0; i < ruxo_json_array_length(rows); ++i) {
      const ruxo_json_object *row = ruxo_json_array_get(rows, i);
      const std::string id = ruxo_json_string(ruxo_json_object_get(row, "id", nullptr), nullptr);
      result.push_back(static_cast<size_t>(std::find(kIds.begin(), kIds.end(), id) - kIds.begin()));
      EXPECT_EQ(ruxo_json_int(ruxo_json_object_get(row, "api_port", nullptr)), ports_[result.back()]);
    }
    ruxo_json_free(rows);
    return result;
  }
  size_t other_than(const std::vector<size_t> &owners) const {
    for (size_t i = 0; i < kIds.size(); ++i)
      if (std::find(owners.begin(), owners.end(), i) == owners.end()) return i;
    return 0;
  }
  void write_rollup(size_t i, const std::string &bytes) {
    fs::create_directories(dir_.file(kIds[i] + "/60/" + kCheck));
    dir_.write(kIds[i] + "/60/" + kCheck + "/" + kEncoded + ".nnt", bytes);
  }
  HttpResponse proxied(size_t asked) {
    return HttpClient(ports_[asked]).request(get(std::string("/proxy/nnt/60/") + kCheck + "/" + kEncoded));
  }

  TempDir dir_;
  int ports_[3] = {};
  std::unique_ptr<NodeProcess> nodes_[3];
};

TEST_F(Cluster, EveryNodeTellsTheSameOwners) {
  const std::vector<size_t> first = owners(0);
  EXPECT_EQ(std::set<size_t>(first.begin(), first.end()).size(), 2U);
  EXPECT_EQ(owners(1), first);
  EXPECT_EQ(owners(2), first);
  // The tool comes to the same without asking.
  EXPECT_EQ(orlith(std::string("topo place cluster.xml") + metric() + "--copies 1 --json"), 0);
  EXPECT_THAT(dir_.read("out"), HasSubstr(kIds[first[0]]));
}

TEST_F(Cluster, AFileIsReadThroughAnyNode) {
  const std::vector<size_t> owned_by = owners(0);
  std::string bytes(8 << 20, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31 + (i >> 13));
  write_rollup(owned_by[1], bytes);  // the first owner does not have it
  for (size_t asked = 0; asked < 3; ++asked) {
    const HttpResponse response = proxied(asked);
    EXPECT_EQ(response.status, 200) << asked;
    EXPECT_TRUE(response.body == bytes) << asked;
  }
  // Several on one connection, which comes back to its loop each time.
  HttpClient client(ports_[other_than(owned_by)]);
  for (int i = 0; i < 3; ++i) {
    const std::string request = get(std::string("/proxy/nnt/60/") + kCheck + "/" + kEncoded);
    EXPECT_TRUE(client.request(request).body == bytes);
  }
}

TEST_F(Cluster, AnEmptyFileIsRelayed) {
  write_rollup(owners(0)[0], "");
  const HttpResponse response = proxied(other_than(owners(0)));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "");
}

TEST_F(Cluster, AFileThatNobodyHas) {
  for (size_t asked = 0; asked < 3; ++asked) {
    const HttpResponse response = proxied(asked);
    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.body, "{\"error\":\"no owner has such a rollup file\"}");
  }
}

TEST_F(Cluster, OneNodeIsKilledAndRestarted) {
  const std::vector<size_t> owned_by = owners(0);
  const size_t outside = other_than(owned_by);
  dir_.write("lines.txt", "some lines");
  EXPECT_EQ(orlith("put" + boot(0) + metric() + "lines.txt --path 'in/1 %.txt'"), 0) << dir_.read("err");
  for (const size_t i : owned_by) EXPECT_EQ(dir_.read(kIds[i] + "/spool/in/1 %.txt"), "some lines");
  EXPECT_FALSE(fs::exists(dir_.file(kIds[outside] + "/spool/in")));
  write_rollup(owned_by[0], "rollup");
  write_rollup(owned_by[1], "rollup");

  kill_node(owned_by[0]);
  EXPECT_EQ(orlith("where" + boot(owned_by[0]) + metric()), 4);
  EXPECT_THAT(dir_.read("err"), HasSubstr("no node given by --boot has answered with its topology"));
  EXPECT_EQ(orlith("where" + boot(owned_by[0]) + boot(owned_by[1]) + metric()), 0);
  EXPECT_EQ(orlith("put --json" + boot(outside) + metric() + "lines.txt --path in/2"), 4);
  EXPECT_THAT(dir_.read("err"), HasSubstr("node " + kIds[owned_by[0]] + " has not stored the file"));
  EXPECT_THAT(dir_.read("out"), HasSubstr("\"stored\":false"));
  EXPECT_THAT(dir_.read("out"), HasSubstr("\"stored\":true"));
  EXPECT_EQ(dir_.read(kIds[owned_by[1]] + "/spool/in/2"), "some lines");
  EXPECT_EQ(proxied(outside).body, "rollup");

  kill_node(owned_by[1]);
  EXPECT_EQ(proxied(outside).status, 502);
  EXPECT_EQ(HttpClient(ports_[outside]).request(get("/readyz")).status, 200);

  ASSERT_TRUE(start(owned_by[0])) << nodes_[owned_by[0]]->err();
  EXPECT_EQ(proxied(outside).body, "rollup");
  ASSERT_TRUE(start(owned_by[1])) << nodes_[owned_by[1]]->err();
  EXPECT_EQ(orlith("put" + boot(outside) + metric() + "lines.txt --path in/2"), 0) << dir_.read("err");
  for (const size_t i : owned_by) EXPECT_EQ(dir_.read(kIds[i] + "/spool/in/2"), "some lines");
}

TEST_F(Cluster, PutsThatAreRefused) {
  dir_.write("lines.txt", "some lines");
  EXPECT_EQ(orlith("put" + boot(0) + metric() + "none.txt"), 3);
  EXPECT_EQ(orlith("put" + boot(0) + metric() + "."), 1);
  EXPECT_EQ(orlith("put" + boot(0) + metric() + "lines.txt --path ../outside"), 4);
  EXPECT_EQ(orlith("put" + boot(0) + " nonsense cpu lines.txt"), 64);
  EXPECT_EQ(orlith("put" + metric() + "lines.txt"), 64);  // without --boot
  for (const std::string &id : kIds) EXPECT_FALSE(fs::exists(dir_.file(id + "/outside")));
}

TEST_F(Cluster, ProxyRefusesWhatIsNoRollupFile) {
  for (const char *path : {"", "60", "60/x/y", "60/6f2d1c66-9d0e-4c35-8a35-0123456789ab/../x", "..%2f..",
                           "60/6f2d1c66-9d0e-4c35-8a35-0123456789ab/%2e%2e", "060/6f2d1c66/YQ=="})
    EXPECT_EQ(HttpClient(ports_[0]).request(get(std::string("/proxy/nnt/") + path)).status, 400) << path;
}

TEST_F(Cluster, NobodyElseWaitsForAPeerThatStalls) {
  const std::vector<size_t> owned_by = owners(0);
  const size_t outside = other_than(owned_by);
  // A peer that takes the request and never answers.
  nodes_[owned_by[0]]->send(SIGSTOP);
  nodes_[owned_by[1]]->send(SIGSTOP);
  HttpClient client(ports_[outside]);
  client.send(get(std::string("/proxy/nnt/60/") + kCheck + "/" + kEncoded));
  EXPECT_EQ(HttpClient(ports_[outside]).request(get("/livez")).status, 200);  // nobody else waits
  nodes_[owned_by[0]]->send(SIGKILL);
  nodes_[owned_by[1]]->send(SIGKILL);
  EXPECT_EQ(client.response().status, 502);
  EXPECT_EQ(nodes_[outside]->end(SIGTERM), 0);
}

}  // namespace
