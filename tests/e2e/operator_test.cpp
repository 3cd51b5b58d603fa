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

// Waits (bounded, 10 s) until `condition` holds.
template <typename Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 200 && !condition(); ++i) std::this_thread::sleep_for(50ms);
  return condition();
}

// One server with an access log and an admin token, per test.
class OperatorTest : public ::testing::Test {
 protected:
  void SetUp() override {
    token_ = offlineAdminToken((dir_.path() / "data").string());
    server_ = std::make_unique<ServerProcess>(
        kBinary, std::vector<std::string>{"--data-dir", (dir_.path() / "data").string(),
                                          "--access-log", log().string()});
    ASSERT_TRUE(server_->waitUntilListening());
  }
  fs::path log() const { return dir_.path() / "access.log"; }
  std::string fileUrl(const std::string& build, const std::string& path) const {
    return server_->url("/api/builds/" + build + "/files?path=" + path);
  }
  void publish(const std::string& build, const std::string& path, const std::string& bytes) {
    ASSERT_EQ(client_.fetch("PUT", fileUrl(build, path), bytes, bearer(token_)).status, 200);
    ASSERT_EQ(
        client_
            .fetch("POST", server_->url("/api/builds/" + build + "/finalize"), "", bearer(token_))
            .status,
        200);
  }

  TempDir dir_;
  std::string token_;
  std::unique_ptr<ServerProcess> server_;
  Client client_;
};

TEST_F(OperatorTest, CurlResumesACutDownloadByteForByte) {
  const std::string bytes = randomBytes(3 * 1024 * 1024 + 17, 7);
  publish("b1", "game.pak", bytes);
  const fs::path out = dir_.path() / "game.pak";
  spit(out, bytes.substr(0, 1024 * 1024 + 5));  // the line broke here
  const std::vector<std::string> resume = {"-sS", "-f",         "-C",
                                           "-",   "-H",         "Authorization: Bearer " + token_,
                                           "-o",  out.string(), fileUrl("b1", "game.pak")};
  auto run = runProcess(kCurl, resume);
  ASSERT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(slurp(out) == bytes);
  // Resuming a complete file changes nothing (curl takes the 416 as done unless told -f).
  run = runProcess(kCurl, {"-sS", "-C", "-", "-H", "Authorization: Bearer " + token_, "-o",
                           out.string(), fileUrl("b1", "game.pak")});
  EXPECT_EQ(run.exitCode, 0) << run.err;
  EXPECT_TRUE(slurp(out) == bytes);
}

TEST_F(OperatorTest, SigtermLetsAnUploadInFlightFinishThenExitsZero) {
  const std::string bytes = randomBytes(4 * 1024 * 1024, 9);
  RawConnection idle(server_->port());
  RawConnection upload(server_->port());
  ASSERT_TRUE(
      upload.send("PUT /api/builds/b2/files?path=big.bin HTTP/1.1\r\nHost: x\r\n"
                  "Authorization: Bearer " +
                  token_ + "\r\nContent-Length: " + std::to_string(bytes.size()) + "\r\n\r\n" +
                  bytes.substr(0, 1 << 20)));
  std::this_thread::sleep_for(300ms);  // the head is judged and the body is arriving
  ASSERT_EQ(::kill(server_->pid(), SIGTERM), 0);

  EXPECT_TRUE(idle.closedByPeer(5s));  // waiting for a request: closed at once
  EXPECT_TRUE(eventually([&] { return !RawConnection(server_->port()).connected(); }));
  ASSERT_TRUE(upload.send(bytes.substr(1 << 20)));
  const std::string answer = upload.readAll(10s);
  EXPECT_EQ(answer.rfind("HTTP/1.1 200 ", 0), 0u) << answer;
  EXPECT_NE(answer.find("Connection: close"), std::string::npos) << answer;
  EXPECT_EQ(server_->waitForExit(10s), 0);
  EXPECT_TRUE(slurp(dir_.path() / "data" / "builds" / "b2" / "files" / "big.bin") == bytes);
}

TEST_F(OperatorTest, AccessLogLinesHoldNoSecretAndFollowARotation) {
  publish("b3", "a.txt", "hello");
  client_.fetch("GET", server_->url("/api/version"));
  client_.fetch("GET", fileUrl("b3", "a.txt"), "", bearer(token_));
  client_.fetch("POST", server_->url("/api/invites/redeem?code=SECRETINVITE42&machine=pc"));
  client_.fetch("GET", server_->url("/api/sso/callback?code=SECRETCODE42&state=SECRETSTATE42"));
  client_.fetch("GET", server_->url("/api/me"), "", {"X-Forwarded-For: 203.0.113.9, 10.0.0.1"});

  // client - user [time] "request" status bytes "-" "agent" seconds
  const std::regex line(
      R"re(([^ ]+) - ([^ ]+) \[[0-9]{2}/[A-Z][a-z]{2}/[0-9]{4}:[0-9]{2}:[0-9]{2}:[0-9]{2} \+0000\] "([A-Z]+) ([^ "]+) HTTP/1\.1" ([0-9]{3}) ([0-9]+) "-" "[^"]*" [0-9]+\.[0-9]{3})re");
  struct Expected {
    const char* client;
    const char* user;
    const char* request;
    const char* status;
    const char* bytes;  // nullptr: any
  };
  const Expected expected[] = {
      {"127.0.0.1", "ci", "PUT /api/builds/b3/files?path=a.txt", "200", nullptr},
      {"127.0.0.1", "ci", "POST /api/builds/b3/finalize", "200", nullptr},
      {"127.0.0.1", "-", "GET /api/version", "200", nullptr},
      {"127.0.0.1", "ci", "GET /api/builds/b3/files?path=a.txt", "200", "5"},
      {"127.0.0.1", "-", "POST /api/invites/redeem?code=-&machine=pc", "404", nullptr},
      {"127.0.0.1", "-", "GET /api/sso/callback?code=-&state=-", "400", nullptr},
      {"203.0.113.9", "-", "GET /api/me", "401", nullptr},
  };
  std::string text;
  ASSERT_TRUE(eventually([&] {
    text = slurp(log());
    return std::count(text.begin(), text.end(), '\n') >= 7;
  })) << text;
  std::istringstream lines(text);
  std::string got;
  for (const Expected& e : expected) {
    ASSERT_TRUE(std::getline(lines, got));
    std::smatch m;
    ASSERT_TRUE(std::regex_match(got, m, line)) << got;
    EXPECT_EQ(m.str(1), e.client) << got;
    EXPECT_EQ(m.str(2), e.user) << got;
    EXPECT_EQ(m.str(3) + " " + m.str(4), e.request) << got;
    EXPECT_EQ(m.str(5), e.status) << got;
    if (e.bytes) {
      EXPECT_EQ(m.str(6), e.bytes) << got;
    }
  }
  for (const std::string secret : {"SECRET", token_.c_str()}) {
    EXPECT_EQ(text.find(secret), std::string::npos) << secret;
  }
  // A failed sign-in is one line on standard error, without the request's secrets.
  EXPECT_NE(server_->errors().find("sign-in failed (400)"), std::string::npos) << server_->errors();
  EXPECT_EQ(server_->errors().find("SECRET"), std::string::npos);

  // logrotate moves the file and sends SIGHUP: the next lines go to a new file.
  fs::rename(log(), dir_.path() / "access.log.1");
  ASSERT_EQ(::kill(server_->pid(), SIGHUP), 0);
  EXPECT_TRUE(eventually([&] {
    client_.fetch("GET", server_->url("/api/version"));
    return slurp(log()).find("\"GET /api/version HTTP/1.1\" 200") != std::string::npos;
  }));
  EXPECT_EQ(slurp(dir_.path() / "access.log.1").rfind(text, 0), 0u);
  EXPECT_TRUE(server_->running());
}

}  // namespace
}  // namespace quill::test
