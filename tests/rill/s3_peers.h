#pragma once
// The S3 test peers: s3rver behind a signature-verifying front (tests/rill-peers/peers.mjs), both
// on 127.0.0.1, started once per test program on first use and stopped when it exits. The node
// process also exits by itself when this process dies, because its standard input closes.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "rill/s3_client.h"
#include "support/temp_dir.h"

extern char** environ;

namespace quill::rill::test {

// A program on PATH, or an empty path.
inline std::filesystem::path findOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::filesystem::path candidate = std::filesystem::path(dir) / name;
    if (!dir.empty() && ::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

inline const std::string kPeerBucket = "quill-test";
inline const std::string kPeerAccessKey = "S3RVER";
inline const std::string kPeerSecretKey = "S3RVER";
// Every listing through the front is paged this small, so continuation tokens are always used.
inline constexpr int kPeerPageSize = 2;

class S3Peers {
 public:
  // The running peers, started on the first call. `skipReason` is set instead when node is not
  // installed; a peer that fails to start is reported in `failure`.
  static S3Peers& shared() {
    static S3Peers peers;
    return peers;
  }

  ~S3Peers() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
    if (stdin_ >= 0) ::close(stdin_);
  }
  S3Peers(const S3Peers&) = delete;
  S3Peers& operator=(const S3Peers&) = delete;

  const std::string& skipReason() const { return skipReason_; }
  const std::string& failure() const { return failure_; }

  std::string endpoint() const { return "http://127.0.0.1:" + std::to_string(frontPort_); }

  S3Settings settings(const std::string& secretKey = kPeerSecretKey) const {
    return {endpoint(), "", kPeerBucket, kPeerAccessKey, secretKey};
  }

 private:
  S3Peers() {
    const auto node = findOnPath("node");
    if (node.empty()) {
      skipReason_ = "node is not installed; the S3 tests need it (scripts/install-deps.sh)";
      return;
    }
    const auto peers = std::filesystem::path(__FILE__).parent_path().parent_path() / "rill-peers";
    if (!std::filesystem::exists(peers / "node_modules" / "s3rver")) {
      failure_ = "s3rver is not installed in " + peers.string() + " (run scripts/install-deps.sh)";
      return;
    }
    start(node, peers);
  }

  void start(const std::filesystem::path& node, const std::filesystem::path& peers) {
    int in[2];
    int out[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
      failure_ = "pipe failed";
      return;
    }
    std::vector<std::string> args{node.string(),
                                  "--openssl-legacy-provider",
                                  (peers / "peers.mjs").string(),
                                  "--dir",
                                  data_.path().string(),
                                  "--bucket",
                                  kPeerBucket,
                                  "--max-keys",
                                  std::to_string(kPeerPageSize)};
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    const int rc = posix_spawn(&pid_, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    ::close(in[0]);
    ::close(out[1]);
    stdin_ = in[1];
    if (rc != 0) {
      pid_ = -1;
      ::close(out[0]);
      failure_ = "cannot start node";
      return;
    }
    const std::string line = readLine(out[0], std::chrono::seconds(30));
    ::close(out[0]);
    std::istringstream words(line);
    std::string ready;
    words >> ready >> frontPort_;
    if (ready != "ready" || frontPort_ == 0) failure_ = "the S3 peers did not start: " + line;
  }

  static std::string readLine(int fd, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::string line;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{fd, POLLIN, 0};
      if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) return line;
      char c;
      if (::read(fd, &c, 1) != 1 || c == '\n') return line;
      line.push_back(c);
    }
  }

  quill::test::TempDir data_;
  pid_t pid_ = -1;
  int stdin_ = -1;
  int frontPort_ = 0;
  std::string skipReason_;
  std::string failure_;
};

// Skips the current test when node is missing; fails it when the peers could not start.
#define QUILL_REQUIRE_S3_PEERS()                                           \
  do {                                                                     \
    auto& s3Peers_ = ::quill::rill::test::S3Peers::shared();               \
    if (!s3Peers_.skipReason().empty()) GTEST_SKIP() << s3Peers_.skipReason(); \
    ASSERT_EQ(s3Peers_.failure(), "");                                     \
  } while (false)

}  // namespace quill::rill::test
