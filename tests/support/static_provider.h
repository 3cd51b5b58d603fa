#pragma once
// A small HTTP server on 127.0.0.1 that answers fixed documents by path, for provider failures a
// real identity provider cannot be made to produce (wrong issuer or audience, expired tokens, a
// key set without RSA keys). Answers can be changed while it runs, from any thread.

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace quill::test {

class StaticProvider {
 public:
  StaticProvider();  // listening on a free loopback port
  ~StaticProvider();
  std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Answers `path` (without query) with `status` and `body` from now on; other paths answer 404.
  void serve(const std::string& path, std::string body, int status = 200);
  // How many requests reached `path`, and the body of the last one.
  int hits(const std::string& path);
  std::string lastBody(const std::string& path);

 private:
  struct Seen {
    int status = 404, hits = 0;
    std::string body, lastBody;
  };
  void answer(int fd);

  int listenFd_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::map<std::string, Seen> paths_;
  std::thread thread_;
};

}  // namespace quill::test
