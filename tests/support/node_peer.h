#pragma once
// A test peer written for node (tests/sso-peers, tests/rill-peers): it prints "ready <port>" once
// it listens on 127.0.0.1 and exits when its standard input (a pipe from here) closes, so it never
// outlives the test program. Stopped and reaped on destruction.

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace quill::test {

// A program on PATH, or an empty path.
std::filesystem::path programOnPath(const std::string& name);

class NodePeer {
 public:
  // Runs `node <nodeFlags...> <script> <args...>` (standard error discarded) and waits up to 90
  // seconds for its "ready" line.
  NodePeer(const std::filesystem::path& script, const std::vector<std::string>& args,
           const std::vector<std::string>& nodeFlags = {});
  ~NodePeer();
  NodePeer(const NodePeer&) = delete;
  NodePeer& operator=(const NodePeer&) = delete;

  // Empty when the peer is ready; otherwise why it is not.
  const std::string& failure() const { return failure_; }
  std::uint16_t port() const { return port_; }
  std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  std::uint16_t port_ = 0;
  std::string failure_;
};

}  // namespace quill::test
