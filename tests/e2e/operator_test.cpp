// What an operator relies on, with the real binary on 127.0.0.1: a cut download resumed by the
// real curl program, a graceful stop that lets an upload in flight finish, and the access log
// (its format, the secrets it never holds, its reopening on SIGHUP).

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>

#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr const char* kCurl = "/usr/bin/curl";

std::string slurp(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

void spit(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// One server with an access log and an admin token, per test.
class OperatorTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(s_.up); }
  fs::path log() const { return logs_.path() / "access.log"; }
  std::string fileUrl(const std::string& build, const std::string& path) const {
    return s_.url("/api/builds/" + build + "/files?path=" + path);
  }
  void publish(const std::string& build, const std::string& path, const std::string& bytes) {
    ASSERT_EQ(s_.admin("PUT", "/api/builds/" + build + "/files?path=" + path, bytes).status, 200);
    ASSERT_EQ(s_.admin("POST", "/api/builds/" + build + "/finalize").status, 200);
  }

  TempDir logs_;
  Served s_{{"--access-log", (logs_.path() / "access.log").string()}};
};

TEST_F(OperatorTest, CurlResumesACutDownloadByteForByte) {
  const std::string bytes = randomBytes(3 * 1024 * 1024 + 17, 7);
  publish("b1", "game.pak", bytes);
  const fs::path out = logs_.path() / "game.pak";
  spit(out, bytes.substr(0, 1024 * 1024 + 5));  // the line broke here
  const std::vector<std::string> resume = {"-sS", "-f",         "-C",
                                           "-",   "-H",         "Authorization: Bearer " + s_.token,
                                           "-o",  out.string(), fileUrl("b1", "game.pak")};
  auto run = runProcess(kCurl, resume);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(slurp(out) == bytes);
  // Resuming a complete file changes nothing (curl takes the 416 as done unless told -f).
  run = runProcess(kCurl, {"-sS", "-C", "-", "-H", "Authorization: Bearer " + s_.token, "-o",
                           out.string(), fileUrl("b1", "game.pak")});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(slurp(out) == bytes);
}

TEST_F(OperatorTest, SigtermLetsAnUploadInFlightFinishThenExitsZero) {
  const std::string bytes = randomBytes(4 * 1024 * 1024, 9);
  RawConnection idle(s_.server->port());
  RawConnection upload(s_.server->port());
  ASSERT_TRUE(
      upload.send("PUT /api/builds/b2/files?path=big.bin HTTP/1.1\r\nHost: x\r\n"
                  "Authorization: Bearer " +
                  s_.token + "\r\nContent-Length: " + std::to_string(bytes.size()) + "\r\n\r\n" +
                  bytes.substr(0, 1 << 20)));
  std::this_thread::sleep_for(300ms);  // the head is judged and the body is arriving
  ASSERT_EQ(::kill(s_.server->pid(), SIGTERM), 0);

  EXPECT_TRUE(idle.closedByPeer(5s));  // waiting for a request: closed at once
  EXPECT_TRUE(eventually([&] { return !RawConnection(s_.server->port()).connected(); }));
  ASSERT_TRUE(upload.send(bytes.substr(1 << 20)));
  const std::string answer = upload.readAll(10s);
  EXPECT_EQ(answer.rfind("HTTP/1.1 200 ", 0), 0u) << answer;
  EXPECT_NE(answer.find("Connection: close"), std::string::npos) << answer;
  EXPECT_EQ(s_.server->waitForExit(10s), 0);
  EXPECT_TRUE(slurp(fs::path(s_.data()) / "builds" / "b2" / "files" / "big.bin") == bytes);
}

TEST_F(OperatorTest, AccessLogLinesHoldNoSecretAndFollowARotation) {
  publish("b3", "a.txt", "hello");
  s_.client.fetch("GET", s_.server->url("/api/version"));
  s_.client.fetch("GET", fileUrl("b3", "a.txt"), "", bearer(s_.token));
  s_.client.fetch("POST", s_.server->url("/api/invites/redeem?code=SECRETINVITE42&machine=pc"));
  s_.client.fetch("GET", s_.server->url("/api/sso/callback?code=SECRETCODE42&state=SECRETSTATE42"));
  s_.client.fetch("GET", s_.server->url("/api/me"), "", {"X-Forwarded-For: 203.0.113.9, 10.0.0.1"});

  // client - user [time] "request" status bytes "-" "agent" seconds
  const std::regex line(
      R"re(([^ ]+) - ([^ ]+) \[[0-9]{2}/[A-Z][a-z]{2}/[0-9]{4}:[0-9]{2}:[0-9]{2}:[0-9]{2} \+0000\] "([A-Z]+) ([^ "]+) HTTP/1\.1" ([0-9]{3}) ([0-9]+) "-" "[^"]*" [0-9]+\.[0-9]{3})re");
  // client, user, request, status and, where given, bytes.
  const char* expected[] = {
      "127.0.0.1 ci PUT /api/builds/b3/files?path=a.txt 200",
      "127.0.0.1 ci POST /api/builds/b3/finalize 200",
      "127.0.0.1 - GET /api/version 200",
      "127.0.0.1 ci GET /api/builds/b3/files?path=a.txt 200 5",
      "127.0.0.1 - POST /api/invites/redeem?code=-&machine=pc 404",
      "127.0.0.1 - GET /api/sso/callback?code=-&state=- 400",
      "203.0.113.9 - GET /api/me 401",
  };
  std::string text;
  ASSERT_TRUE(eventually([&] {
    text = slurp(log());
    return std::count(text.begin(), text.end(), '\n') >= 7;
  })) << text;
  std::istringstream lines(text);
  std::string got;
  for (const std::string row : expected) {
    ASSERT_TRUE(std::getline(lines, got));
    std::smatch m;
    ASSERT_TRUE(std::regex_match(got, m, line)) << got;
    const std::string fields = m.str(1) + " " + m.str(2) + " " + m.str(3) + " " + m.str(4) + " " +
                               m.str(5) + " " + m.str(6) + " ";
    EXPECT_TRUE(fields.starts_with(row + " ")) << got;
  }
  for (const std::string secret : {"SECRET", s_.token.c_str()}) {
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
  }
  // A failed sign-in is one line on standard error, without the request's secrets.
  EXPECT_NE(s_.server->errors().find("sign-in failed (400)"), std::string::npos) << s_.server->errors();
  EXPECT_EQ(s_.server->errors().find("SECRET"), std::string::npos);

  // logrotate moves the file and sends SIGHUP: the next lines go to a new file.
  fs::rename(log(), logs_.path() / "access.log.1");
  ASSERT_EQ(::kill(s_.server->pid(), SIGHUP), 0);
  EXPECT_TRUE(eventually([&] {
    s_.client.fetch("GET", s_.server->url("/api/version"));
    return slurp(log()).find("\"GET /api/version HTTP/1.1\" 200") != std::string::npos;
  }));
  EXPECT_EQ(slurp(logs_.path() / "access.log.1").rfind(text, 0), 0u);
  EXPECT_TRUE(s_.server->running());
}

}  // namespace
}  // namespace quill::test
