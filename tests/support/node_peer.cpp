#include "support/node_peer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <sstream>

extern char** environ;

namespace quill::test {

namespace {

std::string readLine(int fd, std::chrono::milliseconds timeout) {
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

}  // namespace

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
  if (node.empty()) {
    failure_ = "node is not installed (scripts/install-deps.sh)";
    return;
  }
  int in[2];
  int out[2];
  if (::pipe2(in, O_CLOEXEC) != 0) {
    failure_ = "pipe failed";
    return;
  }
  if (::pipe2(out, O_CLOEXEC) != 0) {
    ::close(in[0]);
    ::close(in[1]);
    failure_ = "pipe failed";
    return;
  }
  std::vector<std::string> words{node.string()};
  words.insert(words.end(), nodeFlags.begin(), nodeFlags.end());
  words.push_back(script.string());
  words.insert(words.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
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
  std::istringstream parts(line);
  std::string ready;
  int port = 0;
  parts >> ready >> port;
  if (ready != "ready" || port <= 0 || port > 65535) {
    failure_ = script.filename().string() + " did not start: " + line;
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
