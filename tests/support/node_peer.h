#pragma once
// A test peer written for node (tests/sso-peers, tests/rill-peers): it prints "ready <port>" once
// it listens on 127.0.0.1 and exits when its standard input (a pipe from here) closes, so it never
// outlives the test program. Stopped and reaped on destruction.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "support/process.h"

namespace quill::test {

// A program on PATH, or an empty path.
inline std::filesystem::path programOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    if (!dir.empty() && ::access((dir + "/" + name).c_str(), X_OK) == 0) return dir + "/" + name;
  }
  return {};
}

class NodePeer {
 public:
  // Runs `node <nodeFlags...> <script> <args...>` (standard error discarded) and waits up to 90
  // seconds for its "ready" line.
  NodePeer(const std::filesystem::path& script, const std::vector<std::string>& args,
           const std::vector<std::string>& nodeFlags = {}) {
    const auto node = programOnPath("node");
    int in[2], out[2];
    if (node.empty() || ::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
      failure_ = node.empty() ? "node is not installed (scripts/install-deps.sh)" : "pipe failed";
      return;
    }
    std::vector<std::string> words{node.string()};
    words.insert(words.end(), nodeFlags.begin(), nodeFlags.end());
    words.push_back(script.string());
    words.insert(words.end(), args.begin(), args.end());
    const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
    pid_ = spawnProgram(words, in[0], out[1], devNull);
    for (int fd : {devNull, in[0], out[1]}) ::close(fd);
    stdin_ = in[1];
    // The "ready <port>" line; node starts slowly on a loaded machine.
    std::string line;
    pollfd p{out[0], POLLIN, 0};
    for (char buffer[256]; line.size() < 4096 && line.find('\n') == std::string::npos;) {
      const ssize_t n = pid_ > 0 && ::poll(&p, 1, 90'000) > 0 ? ::read(out[0], buffer, 256) : 0;
      if (n <= 0) break;
      line.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    int port = 0;
    if (std::sscanf(line.c_str(), "ready %d", &port) != 1 || port <= 0 || port > 65535) {
      failure_ = pid_ > 0 ? script.filename().string() +
                                " did not start: " + line.substr(0, line.find('\n'))
                          : "cannot start node";
      return;
    }
    port_ = static_cast<std::uint16_t>(port);
  }
  ~NodePeer() {
    if (stdin_ >= 0) ::close(stdin_);
    if (pid_ > 0 && ::kill(pid_, SIGTERM) == 0) ::waitpid(pid_, nullptr, 0);
  }
  NodePeer(const NodePeer&) = delete;
  NodePeer& operator=(const NodePeer&) = delete;

  // Empty when the peer is ready; otherwise why it is not.
  const std::string& failure() const { return failure_; }
  std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  std::uint16_t port_ = 0;
  std::string failure_;
};

}  // namespace quill::test
