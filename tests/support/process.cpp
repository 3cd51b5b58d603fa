#include "support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "support/http_client.h"

extern char** environ;

namespace quill::test {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

fs::path scratchFile() {
  static int counter = 0;
  return fs::temp_directory_path() /
         ("quill-proc-" + std::to_string(::getpid()) + "-" + std::to_string(++counter));
}

// Runs `program` with standard output into `out` and standard error into `out`.err.
pid_t spawnInto(const std::string& program, std::vector<std::string> args, const fs::path& out) {
  args.insert(args.begin(), program);
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  const int outFd = ::open(out.c_str(), flags, 0600);
  const int errFd = ::open((out.string() + ".err").c_str(), flags, 0600);
  const pid_t pid = spawnProgram(std::move(args), -1, outFd, errFd);
  ::close(outFd), ::close(errFd);
  return pid;
}

}  // namespace

pid_t spawnProgram(std::vector<std::string> words, int in, int out, int err) {
  std::vector<char*> argv;
  for (auto& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  for (const auto& [from, to] : {std::pair{in, 0}, {out, 1}, {err, 2}}) {
    if (from >= 0) posix_spawn_file_actions_adddup2(&actions, from, to);
  }
  pid_t pid = -1;
  if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  return pid;
}

ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args) {
  const fs::path out = scratchFile(), err = out.string() + ".err";
  const pid_t pid = spawnInto(program, args, out);
  int status = 0;
  const bool exited = pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status);
  ProcessResult result{exited ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
  fs::remove(out), fs::remove(err);
  return result;
}

ServerProcess::ServerProcess(const std::string& program, std::vector<std::string> args)
    : port_(freePort()), outFile_(scratchFile()) {
  args.insert(args.end(), {"--bind", "127.0.0.1", "--port", std::to_string(port_)});
  pid_ = spawnInto(program, args, outFile_);
}

ServerProcess::~ServerProcess() {
  if (pid_ > 0 && ::kill(pid_, SIGKILL) == 0) ::waitpid(pid_, nullptr, 0);
  std::error_code ec;
  fs::remove(outFile_, ec);
  fs::remove(outFile_.string() + ".err", ec);
}

bool ServerProcess::waitUntilListening(std::chrono::milliseconds timeout) {
  for (auto end = Clock::now() + timeout; Clock::now() < end && running();
       std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    if (RawConnection(port_).connected()) return true;
  }
  return false;
}

std::string ServerProcess::output() const { return slurp(outFile_); }
std::string ServerProcess::errors() const { return slurp(outFile_.string() + ".err"); }

int ServerProcess::waitForExit(std::chrono::milliseconds timeout) {
  for (auto end = Clock::now() + timeout; pid_ > 0 && Clock::now() < end;
       std::this_thread::sleep_for(std::chrono::milliseconds(20))) {
    int status = 0;
    if (::waitpid(pid_, &status, WNOHANG) != pid_) continue;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  return -1;
}

bool ServerProcess::running() {
  if (pid_ > 0 && ::waitpid(pid_, nullptr, WNOHANG) == 0) return true;
  pid_ = -1;
  return false;
}

}  // namespace quill::test
