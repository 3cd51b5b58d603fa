#pragma once
// Runs the real quillmoord binary: one-shot commands, and a server in the background.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace quill::test {

struct ProcessResult {
  int exitCode = -1;
  std::string out;  // standard output
  std::string err;  // standard error
};

// Runs `program` with `args` to completion, capturing both output streams.
ProcessResult runProcess(const std::string& program, const std::vector<std::string>& args);

// Starts `words` (the program first) with the given descriptors as its standard input, output and
// error (-1: inherited); -1 when it could not be started.
pid_t spawnProgram(std::vector<std::string> words, int in, int out, int err);

// A server process on 127.0.0.1 with a free port; killed and reaped on destruction.
class ServerProcess {
 public:
  ServerProcess(const std::string& program, std::vector<std::string> args);
  ~ServerProcess();
  ServerProcess(const ServerProcess&) = delete;
  ServerProcess& operator=(const ServerProcess&) = delete;
  // Waits until the port accepts connections; false if the process died or time ran out.
  bool waitUntilListening(std::chrono::milliseconds timeout = std::chrono::seconds(20));
  std::uint16_t port() const { return port_; }
  pid_t pid() const { return pid_; }
  bool running();  // false once the process has ended (it is reaped then)
  std::string url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }
  std::string output() const;  // standard output so far
  std::string errors() const;  // standard error so far
  // Waits for the process to end; its exit status, or -1 when it was killed by a signal or is
  // still running after `timeout`.
  int waitForExit(std::chrono::milliseconds timeout);

 private:
  pid_t pid_ = -1;
  std::uint16_t port_ = 0;
  std::filesystem::path outFile_;
};

}  // namespace quill::test
