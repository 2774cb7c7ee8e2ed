// Responses with pieces of files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "ruxo/http.h"
#include "test/support/http_client.h"
#include "test/support/http_host.h"
#include "test/support/temp_dir.h"

namespace {

const std::string kGet = "GET /file HTTP/1.1\r\nHost: a\r\n\r\n";

std::string pattern(size_t size) {
  std::string bytes(size, ' ');
  for (size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 2654435761U >> 13);
  return bytes;
}

class HttpFile : public testing::Test {
 protected:
  ~HttpFile() override { host_.stop(5000); }

  void answer(std::function<void(ruxo_http_session_ctx *ctx)> work) {
    host_.answer("GET", "/file", std::move(work));
    host_.listen();
  }
  int open_file(const std::string &bytes) const {
    return open(dir_.write("file", bytes).c_str(), O_RDONLY | O_CLOEXEC);
  }

  TempDir dir_;
  HttpHost host_;
};

bool append(ruxo_http_session_ctx *ctx, int fd, size_t len, off_t offset) {
  return ruxo_http_response_append_mmap_from_fd(ctx, fd, len, MAP_SHARED, offset);
}

TEST_F(HttpFile, IsSentWhole) {
  const std::string bytes = pattern(5000001);
  answer([&](ruxo_http_session_ctx *ctx) {
    const int fd = open_file(bytes);
    EXPECT_TRUE(append(ctx, fd, bytes.size(), 0));
    close(fd);  // it has its own
    ruxo_http_response_end(ctx);
  });
  HttpClient client(host_.port());
  for (int i = 0; i < 3; ++i) {
    const HttpResponse response = client.request(kGet);
    EXPECT_EQ(response.header("Content-Length"), "5000001");
    EXPECT_TRUE(response.body == bytes);
  }
}

TEST_F(HttpFile, MixesWithMemory) {
  const std::string bytes = pattern(100000);
  const int fd = open_file(bytes);
  answer([&](ruxo_http_session_ctx *ctx) {
    ruxo_http_response_append(ctx, "<", 1);
    EXPECT_TRUE(append(ctx, fd, 1, 0));
    EXPECT_TRUE(append(ctx, fd, 4097, 4095));
    ruxo_http_response_append(ctx, "|", 1);
    ruxo_http_response_append(ctx, "|", 1);
    EXPECT_TRUE(append(ctx, fd, 1, 99999));
    EXPECT_TRUE(append(ctx, fd, 100000, 0));
    ruxo_http_response_append(ctx, ">", 1);
    ruxo_http_response_end(ctx);
  });
  HttpClient client(host_.port(), 4096);
  const std::string expected =
      "<" + bytes.substr(0, 1) + bytes.substr(4095, 4097) + "||" + bytes.substr(99999) + bytes + ">";
  EXPECT_TRUE(client.request(kGet).body == expected);
  EXPECT_TRUE(client.request(kGet).body == expected);
  close(fd);
}

TEST_F(HttpFile, LeavesThePositionOfTheDescriptorAlone) {
  const int fd = open_file("0123456789");
  lseek(fd, 3, SEEK_SET);
  answer([&](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(append(ctx, fd, 4, 5));
    ruxo_http_response_end(ctx);
  });
  EXPECT_EQ(HttpClient(host_.port()).request(kGet).body, "5678");
  EXPECT_EQ(lseek(fd, 0, SEEK_CUR), 3);
  close(fd);
}

TEST_F(HttpFile, ReachesBeyondFourGigabytes) {
  constexpr off_t kFar = off_t{5} << 30;
  const int fd = open(dir_.file("sparse").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(pwrite(fd, "the end", 7, kFar), 7);
  answer([&](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(append(ctx, fd, 9, kFar - 2));
    ruxo_http_response_end(ctx);
  });
  EXPECT_EQ(HttpClient(host_.port()).request(kGet).body, std::string("\0\0the end", 9));
  close(fd);
}

TEST_F(HttpFile, AHeadOfItSendsNothing) {
  const int fd = open_file("0123456789");
  answer([&](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(append(ctx, fd, 10, 0));
    ruxo_http_response_end(ctx);
  });
  HttpClient client(host_.port());
  client.send("HEAD /file HTTP/1.1\r\nHost: a\r\n\r\n");
  EXPECT_EQ(client.response(true).header("Content-Length"), "10");
  EXPECT_EQ(client.request(kGet).body, "0123456789");
  close(fd);
}

TEST_F(HttpFile, WhatTheFileDoesNotHoldIsRefused) {
  const int fd = open_file("0123456789");
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  const int folder = open(dir_.path().c_str(), O_RDONLY | O_CLOEXEC);
  answer([&](ruxo_http_session_ctx *ctx) {
    EXPECT_FALSE(append(ctx, fd, 0, 0));
    EXPECT_FALSE(append(ctx, fd, 11, 0));
    EXPECT_FALSE(append(ctx, fd, 1, 10));
    EXPECT_FALSE(append(ctx, fd, 6, 5));
    EXPECT_FALSE(append(ctx, fd, 1, -1));
    EXPECT_FALSE(append(ctx, fd, SIZE_MAX, 1));
    EXPECT_FALSE(append(ctx, -1, 1, 0));
    EXPECT_FALSE(append(ctx, ends[0], 1, 0));
    EXPECT_FALSE(append(ctx, folder, 1, 0));
    ruxo_http_respond(ctx, 200, "text/plain", "nothing");
  });
  EXPECT_EQ(HttpClient(host_.port()).request(kGet).body, "nothing");
  for (const int one : {fd, ends[0], ends[1], folder}) close(one);
}

TEST_F(HttpFile, OneThatBecomesShorterClosesTheConnection) {
  constexpr size_t kSize = size_t{20} << 20;
  const std::string path = dir_.write("file", pattern(kSize));
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  host_.answer("GET", "/hello",
               [](ruxo_http_session_ctx *ctx) { ruxo_http_respond(ctx, 200, "text/plain", "hello"); });
  answer([&](ruxo_http_session_ctx *ctx) {
    EXPECT_TRUE(append(ctx, fd, kSize, 0));
    EXPECT_EQ(truncate(path.c_str(), 1000), 0);  // before a byte of it has left
    ruxo_http_response_end(ctx);
  });
  HttpClient client(host_.port());
  client.send(kGet + kGet);
  const HttpResponse response = client.response();
  EXPECT_EQ(response.status, 0);  // not complete
  EXPECT_EQ(response.header("Content-Length"), std::to_string(kSize));
  EXPECT_EQ(response.body, pattern(1000));
  EXPECT_EQ(HttpClient(host_.port()).request("GET /hello HTTP/1.1\r\nHost: a\r\n\r\n").body, "hello");
  close(fd);
}

TEST_F(HttpFile, ItsDescriptorsAreClosed) {
  const int fd = open_file("0123456789");
  answer([&](ruxo_http_session_ctx *ctx) {
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(append(ctx, fd, 10, 0));
    ruxo_http_response_end(ctx);
  });
  const auto count = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
  HttpClient client(host_.port());
  EXPECT_EQ(client.request(kGet).body.size(), 100U);
  let_loop_pass(eventer_choose_owner(0));
  const auto before = count();
  for (int i = 0; i < 10; ++i) EXPECT_EQ(client.request(kGet).body.size(), 100U);
  let_loop_pass(eventer_choose_owner(0));
  EXPECT_EQ(count(), before);
  close(fd);
}

}  // namespace
