// What a running node answers, over a socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

#include "ruxo/json.h"
#include "test/orlithd/node_process.h"
#include "test/support/tls_identity.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kCheck[] = "6f2d1c66-9d0e-4c35-8a35-0123456789ab";
// mem|ST[kind:free] in base64, whose 64 characters hold none that the path form changes here.
constexpr char kMemFree[] = "bWVtfFNUW2tpbmQ6ZnJlZV0=";

struct FreeJson {
  void operator()(ruxo_json_object *o) const { ruxo_json_free(o); }
};

std::string member(const std::string &text, const char *key) {
  const std::unique_ptr<ruxo_json_object, FreeJson> parsed(ruxo_json_parse(text.c_str()));
  const char *value = ruxo_json_string(ruxo_json_object_get(parsed.get(), key, nullptr), nullptr);
  return value == nullptr ? "(none)" : value;
}

class Endpoints : public testing::Test {
 protected:
  // Where a rollup file lies below the data folder.
  void write_rollup(const std::string &path, const std::string &bytes) {
    fs::create_directories(fs::path(folder_.dir.file("data/" + path)).parent_path());
    folder_.dir.write("data/" + path, bytes);
  }
  void start(
      std::vector<std::string> more = {}, const std::function<void()> &prepare = [] {}) {
    std::vector<std::string> arguments = folder_.arguments();
    arguments.insert(arguments.end(), more.begin(), more.end());
    node_ = std::make_unique<NodeProcess>(arguments, folder_.dir.path(), prepare);
    ASSERT_NE(node_->port(), 0) << node_->err();
  }
  HttpResponse ask(const std::string &request) { return node_->client().request(request); }
  std::string incoming() const {
    std::string names;
    for (const auto &entry : fs::directory_iterator(folder_.dir.file("data/incoming")))
      names += entry.path().filename().string() + " ";
    return names;
  }

  NodeFolder folder_;
  std::unique_ptr<NodeProcess> node_;
};

TEST_F(Endpoints, StateTellsTheActiveTopology) {
  start();
  const HttpResponse response = ask(get("/state"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Type"), "application/json");
  EXPECT_THAT(member(response.body, "current"), MatchesRegex("[0-9a-f]{64}"));
  EXPECT_EQ(member(response.body, "next"), "-");
  EXPECT_EQ(member(response.body, "me"), kNodeA);
  EXPECT_THAT(response.body, HasSubstr("\"uptime_s\":"));
}

TEST_F(Endpoints, TopologyIsTheDocumentOfThatSignature) {
  start();
  const std::string signature = member(ask(get("/state")).body, "current");
  const HttpResponse response = ask(get("/topology/xml/" + signature));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Type"), "application/xml");
  EXPECT_EQ(response.body, kTwoNodes);
}

TEST_F(Endpoints, TopologiesThatAreNotThere) {
  start();
  EXPECT_EQ(ask(get("/topology/xml/" + std::string(64, '0'))).status, 404);
  for (const std::string &path : {std::string(), std::string("-"), std::string(63, 'a'), std::string(65, 'a'),
                                  std::string(64, 'g'), std::string("../state"), std::string(64, 'A')}) {
    const HttpResponse response = ask(get("/topology/xml/" + path));
    EXPECT_EQ(response.status, 400) << path;
    EXPECT_NE(member(response.body, "error"), "(none)") << path;
  }
}

TEST_F(Endpoints, NntIsTheFile) {
  std::string bytes;
  for (int i = 0; i < 300'000; ++i) bytes += static_cast<char>(i * 7 % 251);
  write_rollup(std::string("60/") + kCheck + "/" + kMemFree + ".nnt", bytes);
  start();
  const HttpResponse response = ask(get(std::string("/nnt/60/") + kCheck + "/" + kMemFree));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Type"), "application/octet-stream");
  EXPECT_EQ(response.body, bytes);
  // The id in upper case and escapes name the same file.
  EXPECT_EQ(ask(get("/nnt/60/6F2D1C66-9d0e-4c35-8a35-0123456789ab/bWVtfFNUW2tpbmQ6ZnJlZV0%3d")).body, bytes);
}

TEST_F(Endpoints, NntOfAnEmptyFile) {
  write_rollup(std::string("60/") + kCheck + "/" + kMemFree + ".nnt", "");
  start();
  const HttpResponse response = ask(get(std::string("/nnt/60/") + kCheck + "/" + kMemFree));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Length"), "0");
}

// A name of 400 'a': 134 times "YWFh", the last one cut to "YQ==". Its first 240 characters are a folder.
TEST_F(Endpoints, NntOfALongName) {
  std::string encoded;
  for (int i = 0; i < 133; ++i) encoded += "YWFh";
  encoded += "YQ==";
  std::string path = std::string("60/") + kCheck + "/" + encoded.substr(0, 240) + "/" +
                     encoded.substr(240, 240) + "/" + encoded.substr(480) + ".nnt";
  write_rollup(path, "long");
  start();
  EXPECT_EQ(ask(get(std::string("/nnt/60/") + kCheck + "/" + encoded)).body, "long");
}

TEST_F(Endpoints, NntThatIsNotThere) {
  write_rollup(std::string("60/") + kCheck + "/Y3B1.nnt/x", "");  // a folder of that name
  folder_.dir.write("secret", "secret");
  fs::create_symlink(folder_.dir.file("secret"),
                     folder_.dir.file(std::string("data/60/") + kCheck + "/bWVt.nnt"));
  fs::create_symlink(folder_.dir.path(), folder_.dir.file("data/120"));
  start();
  for (const char *path : {"/nnt/60/6f2d1c66-9d0e-4c35-8a35-0123456789ab/bG9hZA==",  // no such file
                           "/nnt/300/6f2d1c66-9d0e-4c35-8a35-0123456789ab/Y3B1",     // no such period
                           "/nnt/60/6f2d1c66-9d0e-4c35-8a35-0123456789ab/Y3B1",      // a folder
                           "/nnt/60/6f2d1c66-9d0e-4c35-8a35-0123456789ab/bWVt",      // a link
                           "/nnt/120/6f2d1c66-9d0e-4c35-8a35-0123456789ab/Y3B1"}) {  // below a link
    const HttpResponse response = ask(get(path));
    EXPECT_EQ(response.status, 404) << path;
    EXPECT_EQ(member(response.body, "error"), "there is no such rollup file") << path;
  }
}

TEST_F(Endpoints, EveryPathParameterRefusesTraversal) {
  folder_.dir.write("secret.nnt", "secret");
  start();
  for (const char *prefix :
       {"/nnt/", "/nnt/60/", "/nnt/60/6f2d1c66-9d0e-4c35-8a35-0123456789ab/", "/topology/xml/", "/proxy/nnt/",
        "/proxy/nnt/60/", "/proxy/nnt/60/6f2d1c66-9d0e-4c35-8a35-0123456789ab/"}) {
    for (const char *path : {"../secret", "..%2fsecret", "%2e%2e/secret", "%2e%2e%2fsecret",
                             "..%2F..%2Fsecret", "./secret", "/secret", "%2fsecret", "a/../../secret", "..",
                             ".", "", "secret%00", "%", "%zz", "..%5csecret", "a//b", "a%0ab"}) {
      const HttpResponse response = ask(get(std::string(prefix) + path));
      EXPECT_EQ(response.status, 400) << prefix << path;
      EXPECT_THAT(response.body, testing::Not(HasSubstr("secret"))) << prefix << path;
    }
  }
  for (const char *path : {"0", "060", "-60", "60s", "99999999999", "6 0"})
    EXPECT_EQ(ask(get(std::string("/nnt/") + path + "/" + kCheck + "/" + kMemFree)).status, 400) << path;
  for (const char *path : {"bWVt.nnt", "bWV", "bW-t", "bWVt/bWVt"})
    EXPECT_EQ(ask(get(std::string("/nnt/60/") + kCheck + "/" + path)).status, 400) << path;
}

TEST_F(Endpoints, UploadsStayInTheSpool) {
  folder_.dir.write("outside", "before");
  start();
  for (const char *path : {"../outside", "..%2foutside", "%2e%2e/%2e%2e/outside", "a/../../../outside",
                           "/outside", "", ".", "..", "a/", "a//b", "a%00", "%", "a/./b", "%2f", "a%0ab"}) {
    const HttpResponse response = ask(put(std::string("/upload/") + path, "evil"));
    EXPECT_EQ(response.status, 400) << path;
    EXPECT_NE(member(response.body, "error"), "(none)") << path;
  }
  fs::create_directory_symlink(folder_.dir.path(), folder_.dir.file("data/spool/link"));
  EXPECT_EQ(ask(put("/upload/link/outside", "evil")).status, 409);
  EXPECT_EQ(folder_.dir.read("outside"), "before");
  fs::create_symlink(folder_.dir.file("outside"), folder_.dir.file("data/spool/file"));
  EXPECT_EQ(ask(put("/upload/file", "new")).status, 200);  // takes the link's place
  EXPECT_EQ(folder_.dir.read("outside"), "before");
  EXPECT_EQ(folder_.dir.read("data/spool/file"), "new");
  EXPECT_EQ(incoming(), "");
}

TEST_F(Endpoints, UploadIsStored) {
  start();
  std::string bytes(3'000'000, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 31 % 253);
  HttpClient client = node_->client();
  HttpResponse response = client.request(put("/upload/a/b%20c/d", bytes));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "{\"errors\": 0}\n");
  EXPECT_EQ(folder_.dir.read("data/spool/a/b c/d"), bytes);
  // On the same connection, over the older one, and in chunks; an empty one.
  client.send(
      "PUT /upload/a/b%20c/d HTTP/1.1\r\nHost: a\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nnew\r\n0\r\n\r\n");
  EXPECT_EQ(client.response().status, 200);
  EXPECT_EQ(folder_.dir.read("data/spool/a/b c/d"), "new");
  EXPECT_EQ(client.request(put("/upload/empty", "")).status, 200);
  EXPECT_TRUE(fs::exists(folder_.dir.file("data/spool/empty")));
  EXPECT_EQ(incoming(), "");
}

TEST_F(Endpoints, UploadOnAPathThatIsTaken) {
  start();
  EXPECT_EQ(ask(put("/upload/a", "file")).status, 200);
  EXPECT_EQ(ask(put("/upload/b/c", "file")).status, 200);
  EXPECT_EQ(ask(put("/upload/a/b", "below a file")).status, 409);
  EXPECT_EQ(ask(put("/upload/b", "over a folder")).status, 409);
  EXPECT_EQ(ask(put("/upload/" + std::string(256, 'n'), "")).status, 400);
  EXPECT_EQ(folder_.dir.read("data/spool/a"), "file");
  EXPECT_EQ(folder_.dir.read("data/spool/b/c"), "file");
  EXPECT_EQ(incoming(), "");
}

// A file may hold 64 KiB in that process: the write that goes beyond is short, the next one fails.
TEST_F(Endpoints, AWriteThatFailsIsAnErrorOfThatUploadAlone) {
  start({}, [] {
    const rlimit limit = {65536, 65536};
    setrlimit(RLIMIT_FSIZE, &limit);
  });
  const HttpResponse response = ask(put("/upload/large", std::string(65537, 'x')));
  EXPECT_EQ(response.status, 507);
  EXPECT_EQ(member(response.body, "error"), "File too large");
  EXPECT_FALSE(fs::exists(folder_.dir.file("data/spool/large")));
  EXPECT_EQ(ask(put("/upload/fits", std::string(65536, 'x'))).status, 200);
  EXPECT_EQ(folder_.dir.read("data/spool/fits").size(), 65536U);
  EXPECT_EQ(incoming(), "");
}

TEST_F(Endpoints, AnUploadThatIsCutLeavesNothing) {
  start();
  {
    HttpClient client = node_->client();
    client.send("PUT /upload/half HTTP/1.1\r\nHost: a\r\nContent-Length: 100\r\n\r\nhalf");
    client.finish_sending();
    EXPECT_NE(client.response().status, 200);
  }
  EXPECT_EQ(ask(get("/livez")).status, 200);
  EXPECT_FALSE(fs::exists(folder_.dir.file("data/spool/half")));
  EXPECT_EQ(node_->end(SIGTERM), 0);
  EXPECT_EQ(incoming(), "");
}

TEST_F(Endpoints, AnUploadOverTheLimitIsRefused) {
  folder_.dir.write("node.xml", "<orlith><upload max_bytes=\"10\"/></orlith>");
  start({"--config", "node.xml"});
  EXPECT_EQ(ask(put("/upload/a", "0123456789")).status, 200);
  EXPECT_EQ(ask(put("/upload/b", "0123456789a")).status, 413);
  EXPECT_FALSE(fs::exists(folder_.dir.file("data/spool/b")));
  EXPECT_EQ(incoming(), "");
}

TEST_F(Endpoints, LivezAndReadyz) {
  start();
  EXPECT_EQ(ask(get("/livez")).body, "alive\n");
  EXPECT_EQ(ask(get("/readyz")).body, "ready\n");
  const HttpResponse response = ask(get("/readyz?verbose"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "running: ok\ntopology: ok\nroom: ok\nready\n");
}

TEST_F(Endpoints, ReadyzNamesTheCause) {
  folder_.dir.write("node.xml", "<orlith><upload min_free_bytes=\"18446744073709551615\"/></orlith>");
  start({"--config", "node.xml"});
  const HttpResponse response = ask(get("/readyz?verbose"));
  EXPECT_EQ(response.status, 503);
  EXPECT_THAT(response.body, MatchesRegex("running: ok\ntopology: ok\nroom: [0-9]+ bytes are free, expected "
                                          "18446744073709551615\nnot ready\n"));
  EXPECT_THAT(ask(get("/readyz")).body, MatchesRegex("room: [^\n]*\nnot ready\n"));
}

// The value of a metric in a Prometheus text; -1 where it is missing.
double metric(const std::string &text, const std::string &name) {
  const size_t at = ("\n" + text).find("\n" + name + " ");
  return at == std::string::npos ? -1 : std::stod(text.substr(at + name.size() + 1));
}

TEST_F(Endpoints, Metrics) {
  start();
  ask(get("/livez"));
  ask(get("/livez"));
  ask(get("/nothing"));
  const HttpResponse response = ask(get("/metrics"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.header("Content-Type"), "text/plain; version=0.0.4; charset=utf-8");
  EXPECT_EQ(metric(response.body, "orlithd_answers_total{status=\"2xx\"}"), 2);
  EXPECT_EQ(metric(response.body, "orlithd_answers_total{status=\"4xx\"}"), 1);
  EXPECT_EQ(metric(response.body, "orlithd_answer_seconds_count"), 3);
  EXPECT_EQ(metric(response.body, "orlithd_waiting_jobs{queue=\"peers\"}"), 0);
  EXPECT_GT(metric(response.body, "orlithd_free_bytes"), 0);
  EXPECT_GE(metric(response.body, "orlithd_uptime_seconds"), 0);
  EXPECT_THAT(response.body, HasSubstr("# TYPE orlithd_answers_total counter\n"));
}

TEST_F(Endpoints, PathsAndMethodsThatAreUnknown) {
  start();
  EXPECT_EQ(ask(get("/nothing")).status, 404);
  EXPECT_EQ(ask(get("/")).status, 404);
  const HttpResponse response = ask(get("/upload/a"));
  EXPECT_EQ(response.status, 405);
  EXPECT_EQ(response.header("Allow"), "PUT");
  EXPECT_EQ(ask("DELETE /state HTTP/1.1\r\nHost: a\r\n\r\n").status, 405);
}

TEST_F(Endpoints, NonsenseIsRefusedAndNobodyElseWaits) {
  start();
  HttpClient slow = node_->client();
  slow.send("GET /st");
  EXPECT_EQ(ask("GET /state HTTP/1.1\r\n\r\n").status, 400);
  EXPECT_EQ(ask("\x16\x03\x01 nonsense\r\n\r\n").status, 400);
  EXPECT_EQ(ask(get("/" + std::string(9000, 'a'))).status, 414);
  EXPECT_EQ(ask(get("/state")).status, 200);
  slow.send("ate HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(slow.response().status, 200);
}

TEST_F(Endpoints, EveryRequestIsLogged) {
  start();
  ask(get("/livez"));
  ask(get("/nothing\"here"));
  EXPECT_EQ(node_->end(SIGTERM), 0);
  EXPECT_THAT(node_->err(),
              testing::ContainsRegex("stream=request [^\n]* message=\"127.0.0.1:[0-9]+ GET /livez 200 6 "
                                     "[0-9]+ us\"\n"));
}

TEST_F(Endpoints, OldClientsAndCurl) {
  start();
  folder_.dir.write("body", "sent by curl");
  const std::string base = "http://127.0.0.1:" + std::to_string(node_->port());
  const auto curl = [&](const std::string &arguments) {
    const std::string line =
        "cd '" + folder_.dir.path() + "' && curl -sS --max-time 20 " + arguments + " >got 2>&1";
    return system(line.c_str()) == 0 ? folder_.dir.read("got") : "curl failed: " + folder_.dir.read("got");
  };
  EXPECT_EQ(curl("--http1.0 " + base + "/livez"), "alive\n");
  EXPECT_EQ(curl("-T body " + base + "/upload/from/curl"), "{\"errors\": 0}\n");
  EXPECT_EQ(folder_.dir.read("data/spool/from/curl"), "sent by curl");
}

TEST_F(Endpoints, OverTls) {
  const TlsIdentity identity;
  start({"--tls-cert", identity.certificate_file(), "--tls-key", identity.key_file()});
  EXPECT_THAT(node_->err(), HasSubstr("listening on https://127.0.0.1:"));
  const std::string line = "curl -sS --max-time 20 --cacert '" + identity.certificate_file() +
                           "' --resolve localhost:" + std::to_string(node_->port()) +
                           ":127.0.0.1 https://localhost:" + std::to_string(node_->port()) + "/livez >'" +
                           folder_.dir.file("got") + "'";
  EXPECT_EQ(system(line.c_str()), 0);
  EXPECT_EQ(folder_.dir.read("got"), "alive\n");
}

}  // namespace
