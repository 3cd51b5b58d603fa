#include "support/node_peer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>

#include "support/process.h"

namespace quill::test {

std::filesystem::path programOnPath(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::stringstream dirs(path ? path : "");
  for (std::string dir; std::getline(dirs, dir, ':');) {
    const std::filesystem::path candidate = std::filesystem::path(dir) / name;
    if (!dir.empty() && ::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

NodePeer::NodePeer(const std::filesystem::path& script, const std::vector<std::string>& args,
                   const std::vector<std::string>& nodeFlags) {
  const auto node = programOnPath("node");
  int in[2], out[2];
  if (node.empty()) {
    failure_ = "node is not installed (scripts/install-deps.sh)";
    return;
  }
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) {
    failure_ = "pipe failed";
    return;
  }
  std::vector<std::string> words{node.string()};
  words.insert(words.end(), nodeFlags.begin(), nodeFlags.end());
  words.push_back(script.string());
  words.insert(words.end(), args.begin(), args.end());
  const int devNull = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
  pid_ = spawnProgram(words, in[0], out[1], devNull);
  ::close(devNull);
  ::close(in[0]);
  ::close(out[1]);
  stdin_ = in[1];
  // The "ready <port>" line, read byte by byte within 90 seconds (node starts slowly when busy).
  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(90);
  for (char c = 0; pid_ > 0 && c != '\n';) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd p{out[0], POLLIN, 0};
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0 ||
        ::read(out[0], &c, 1) != 1) {
      break;
    }
    if (c != '\n') line.push_back(c);
  }
  ::close(out[0]);
  std::istringstream parts(line);
  std::string ready;
  int port = 0;
  parts >> ready >> port;
  if (ready != "ready" || port <= 0 || port > 65535) {
    failure_ = pid_ > 0 ? script.filename().string() + " did not start: " + line
                        : "cannot start node";
    return;
  }
  port_ = static_cast<std::uint16_t>(port);
}

NodePeer::~NodePeer() {
  if (stdin_ >= 0) ::close(stdin_);
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }
}

}  // namespace quill::test
