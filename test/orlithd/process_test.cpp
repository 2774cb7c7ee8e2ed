// How the daemon starts and ends.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "test/orlithd/node_process.h"

namespace {

using testing::HasSubstr;

class Process : public testing::Test {
 protected:
  // Runs it to its end; nothing else is expected of these arguments.
  int run(const std::vector<std::string> &arguments) {
    NodeProcess node(arguments, folder_.dir.path());
    const int code = node.end();
    err_ = node.err();
    return code;
  }

  NodeFolder folder_;
  std::string err_;
};

TEST_F(Process, EndsInOrderBySigterm) {
  NodeProcess node(folder_.arguments(), folder_.dir.path());
  ASSERT_NE(node.port(), 0) << node.err();
  EXPECT_EQ(node.end(SIGTERM), 0);
}

TEST_F(Process, TellsThatItWasInterrupted) {
  NodeProcess node(folder_.arguments(), folder_.dir.path());
  ASSERT_NE(node.port(), 0) << node.err();
  EXPECT_EQ(node.end(SIGINT), 130);
}

TEST_F(Process, LetsRequestsFinish) {
  NodeProcess node(folder_.arguments(), folder_.dir.path());
  HttpClient client = node.client();
  client.send("PUT /upload/slow HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
  EXPECT_EQ(client.response().status, 100);  // so it has begun
  node.send(SIGTERM);
  ASSERT_TRUE(node.wait_for("stopping"));
  client.send("slow");
  EXPECT_EQ(client.response().status, 200);
  EXPECT_EQ(node.end(), 0);
  EXPECT_EQ(folder_.dir.read("data/spool/slow"), "slow");
}

TEST_F(Process, CutsRequestsAfterTheTimeOfGrace) {
  std::vector<std::string> arguments = folder_.arguments();
  arguments.insert(arguments.end(), {"--grace", "0"});
  NodeProcess node(arguments, folder_.dir.path());
  HttpClient client = node.client();
  client.send("PUT /upload/slow HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
  EXPECT_EQ(client.response().status, 100);
  EXPECT_EQ(node.end(SIGTERM), 0);
  EXPECT_THAT(node.err(), HasSubstr("1 requests were cut"));
  EXPECT_FALSE(std::filesystem::exists(folder_.dir.file("data/spool/slow")));
  EXPECT_TRUE(std::filesystem::is_empty(folder_.dir.file("data/incoming")));
}

TEST_F(Process, ASecondSignalEndsItAtOnce) {
  NodeProcess node(folder_.arguments(), folder_.dir.path());
  HttpClient client = node.client();
  client.send("PUT /upload/slow HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 4\r\n\r\n");
  EXPECT_EQ(client.response().status, 100);
  node.send(SIGTERM);
  ASSERT_TRUE(node.wait_for("stopping"));
  EXPECT_EQ(node.end(SIGTERM), -SIGTERM);
}

TEST_F(Process, OneADataFolder) {
  NodeProcess first(folder_.arguments(), folder_.dir.path());
  ASSERT_NE(first.port(), 0) << first.err();
  EXPECT_EQ(run(folder_.arguments()), 1);
  EXPECT_THAT(err_, testing::ContainsRegex("orlithd: data: in use by process [0-9]+\n"));
  // Another folder is fine, and the first one still serves.
  NodeProcess second(folder_.arguments(kNodeB, "data2"), folder_.dir.path());
  EXPECT_EQ(second.client().request(get("/livez")).status, 200);
  EXPECT_EQ(first.client().request(get("/livez")).status, 200);
}

TEST_F(Process, ComesBackAfterItWasKilled) {
  {
    NodeProcess node(folder_.arguments(), folder_.dir.path());
    EXPECT_EQ(node.client().request(put("/upload/kept", "kept")).status, 200);
    HttpClient client = node.client();
    client.send("PUT /upload/half HTTP/1.1\r\nHost: a\r\nExpect: 100-continue\r\nContent-Length: 9\r\n\r\n");
    EXPECT_EQ(client.response().status, 100);
    EXPECT_EQ(node.end(SIGKILL), -SIGKILL);
  }
  EXPECT_FALSE(std::filesystem::is_empty(folder_.dir.file("data/incoming")));
  NodeProcess node(folder_.arguments(), folder_.dir.path());
  EXPECT_EQ(node.client().request(get("/livez")).status, 200);
  EXPECT_TRUE(std::filesystem::is_empty(folder_.dir.file("data/incoming")));
  EXPECT_EQ(folder_.dir.read("data/spool/kept"), "kept");
  EXPECT_FALSE(std::filesystem::exists(folder_.dir.file("data/spool/half")));
}

TEST_F(Process, OpensItsLogAnew) {
  std::vector<std::string> arguments = folder_.arguments();
  arguments.insert(arguments.end(), {"--log", "log", "--log-json"});
  NodeProcess node(arguments, folder_.dir.path());
  EXPECT_EQ(node.client().request(get("/livez")).status, 200);
  // Until the signal has been handled, lines may still go to the old file.
  std::filesystem::rename(folder_.dir.file("log"), folder_.dir.file("log.1"));
  node.send(SIGHUP);
  // It says nothing when it has been: the new file is the sign, and the test's own time limit ends a vain wait.
  while (!std::filesystem::exists(folder_.dir.file("log"))) usleep(1000);
  EXPECT_EQ(node.client().request(get("/state")).status, 200);
  EXPECT_EQ(node.end(SIGTERM), 0);
  EXPECT_THAT(folder_.dir.read("log.1"), HasSubstr("GET /livez 200"));
  EXPECT_THAT(folder_.dir.read("log"), HasSubstr("GET /state 200"));
  EXPECT_EQ(folder_.dir.read("log").front(), '{');
  EXPECT_THAT(node.err(), testing::Not(HasSubstr("GET")));
}

TEST_F(Process, ReadsAConfiguration) {
  std::filesystem::create_directory(folder_.dir.file("etc"));
  folder_.dir.write("etc/orlithd.xml", std::string("<orlith><topology file=\"../cluster.xml\"/><node id=\"") +
                                           kNodeB +
                                           "\" data=\"kept\" listen=\"[::1]:0\" threads=\"1\"/></orlith>");
  // The command line outweighs it.
  NodeProcess node({"--config", "etc/orlithd.xml", "--listen", "127.0.0.1:0"}, folder_.dir.path());
  EXPECT_THAT(node.client().request(get("/state")).body, HasSubstr(kNodeB));
  EXPECT_TRUE(std::filesystem::exists(folder_.dir.file("etc/kept/orlithd.lock")));
}

TEST_F(Process, StartsThatAreRefused) {
  folder_.dir.write("broken.xml", "<nodes><node></nodes>");
  folder_.dir.write("bad.xml", "<orlith><node threads=\"0\"/></orlith>");
  folder_.dir.write("file", "");
  const struct {
    std::vector<std::string> arguments;
    int code;
    std::string says;
  } cases[] = {
      {{}, 64, "orlithd: --topology is needed\n"},
      {{"--topology", "cluster.xml"}, 64, "orlithd: --me is needed\n"},
      {{"--topology", "cluster.xml", "--me", kNodeA}, 64, "orlithd: --data is needed\n"},
      {{"--topolgy", "x"}, 64, "unknown option '--topolgy'; did you mean '--topology'?\n"},
      {{"serve"}, 64, "unexpected argument 'serve'\n"},
      {{"--threads", "0"}, 64, "--threads"},
      {{"--threads", "257"}, 64, "--threads"},
      {folder_.arguments("39b8406b"), 64, "--me is '39b8406b', expected the 36 characters of a UUID\n"},
      {folder_.arguments(kNodeA, "file"), 1, "orlithd: file: Not a directory\n"},
      {folder_.arguments("00000000-0000-0000-0000-000000000001"), 3,
       "cluster.xml: no node has the id '00000000-0000-0000-0000-000000000001'\n"},
      {{"--topology", "none.xml", "--me", kNodeA, "--data", "data"},
       3,
       "none.xml: No such file or directory\n"},
      {{"--topology", "broken.xml", "--me", kNodeA, "--data", "data"}, 2, "broken.xml: line 1: "},
      {{"--config", "none.xml"}, 1, "none.xml: No such file or directory\n"},
      {{"--config", "bad.xml"}, 2, "bad.xml: /orlith/node/@threads: expected a whole number from 1 to 256\n"},
  };
  for (const auto &[arguments, code, says] : cases) {
    EXPECT_EQ(run(arguments), code) << says << err_;
    EXPECT_THAT(err_, HasSubstr(says));
    EXPECT_THAT(err_, testing::StartsWith("orlithd: ")) << says;
  }
  for (const char *listen : {"127.0.0.1", "8113", ":8113", "127.0.0.1:", "127.0.0.1:65536", "127.0.0.1:-1",
                             "::1:80", "[127.0.0.1]:80", "[::1]", "localhost:80", "127.0.0.1:80x"}) {
    EXPECT_EQ(run({"--topology", "cluster.xml", "--me", kNodeA, "--data", "data", "--listen", listen}), 64)
        << listen;
    EXPECT_THAT(err_, HasSubstr("expected ADDR:PORT")) << listen;
  }
}

TEST_F(Process, RefusesATlsKeyThatIsNone) {
  std::vector<std::string> arguments = folder_.arguments();
  arguments.insert(arguments.end(), {"--tls-cert", "cluster.xml", "--tls-key", "cluster.xml"});
  EXPECT_EQ(run(arguments), 1);
  EXPECT_THAT(err_, HasSubstr("cluster.xml"));
  EXPECT_EQ(run({"--topology", "cluster.xml", "--me", kNodeA, "--data", "data", "--tls-key", "k"}), 64);
}

TEST_F(Process, RefusesAnAddressThatIsTaken) {
  NodeProcess first(folder_.arguments(), folder_.dir.path());
  std::vector<std::string> arguments = folder_.arguments(kNodeB, "data2");
  arguments.back() = "127.0.0.1:" + std::to_string(first.port());
  EXPECT_EQ(run(arguments), 1);
  EXPECT_THAT(err_, HasSubstr("in use"));
}

TEST_F(Process, HelpAndVersion) {
  EXPECT_EQ(run({"--version"}), 0);
  EXPECT_THAT(folder_.dir.read("out"), testing::MatchesRegex("orlithd [0-9]+\\.[0-9]+\\.[0-9]+\n"));
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_THAT(folder_.dir.read("out"), HasSubstr("--topology"));
  EXPECT_EQ(err_, "");
}

// The words of a line, which are separated by blanks.
std::vector<std::string> words_of(const std::string &line) {
  std::vector<std::string> words;
  std::istringstream in(line);
  for (std::string word; in >> word;) words.push_back(word);
  return words;
}

TEST_F(Process, TheExamplesOfTheHelpServe) {
  EXPECT_EQ(run({"--help"}), 0);
  const std::string help = folder_.dir.read("out");
  folder_.dir.write(
      "cluster.xml",
      "<nodes write_copies=\"1\"><node id=\"1b4e28ba-2fa1-11d2-883f-0016d3cca427\" address=\"127.0.0.1\" "
      "port=\"8112\" apiport=\"8113\" weight=\"32\"/></nodes>");
  folder_.dir.write(
      "orlithd.xml",
      "<orlith><topology file=\"cluster.xml\"/><node id=\"1b4e28ba-2fa1-11d2-883f-0016d3cca427\" "
      "data=\"node-1\" listen=\"127.0.0.1:0\"/></orlith>");
  int examples = 0;
  std::istringstream lines(help.substr(help.find("Examples:")));
  for (std::string line; std::getline(lines, line);) {
    std::vector<std::string> words = words_of(line);
    if (words.empty() || words.front() != "orlithd") continue;
    words.erase(words.begin());
    NodeProcess node(words, folder_.dir.path());
    EXPECT_EQ(node.client().request(get("/readyz")).status, 200) << line;
    EXPECT_EQ(node.end(SIGTERM), 0) << line;
    ++examples;
  }
  EXPECT_EQ(examples, 2);
}

}  // namespace
