#pragma once
// A small HTTP server on 127.0.0.1 that answers fixed documents by path, for provider failures a
// real identity provider cannot be made to produce (wrong issuer or audience, expired tokens, a
// key set without RSA keys). Answers can be changed while it runs, from any thread.

#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>
#include <thread>

namespace quill::test {

class StaticProvider {
 public:
  struct Seen {
    int status = 404;
    std::string body, lastBody;  // the answer, and the body of the last request
  };
  StaticProvider() : fd_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(fd_, reinterpret_cast<sockaddr*>(&addr), len);
    ::listen(fd_, 16);
    ::getsockname(fd_, reinterpret_cast<sockaddr*>(&addr), &len);
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] {
      for (pollfd p{fd_, POLLIN, 0}; !stop_;)
        if (::poll(&p, 1, 50) > 0) answer(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
    });
  }
  ~StaticProvider() {
    stop_ = true;
    thread_.join();
    ::close(fd_);
  }
  std::string origin() const { return "http://127.0.0.1:" + std::to_string(port_); }
  // Answers `path` (without query) with `status` and `body` from now on; other paths answer 404.
  void serve(const std::string& path, std::string body, int status = 200) {
    std::lock_guard lock(mutex_);
    paths_[path].status = status;
    paths_[path].body = std::move(body);
  }
  Seen seen(const std::string& path) {
    std::lock_guard lock(mutex_);
    return paths_[path];
  }

 private:
  // One request: its head, then as many body bytes as Content-Length announces; one answer.
  void answer(int fd) {
    if (fd < 0) return;
    std::string data;
    std::size_t headEnd = std::string::npos, length = 0;
    for (char buffer[4096]; headEnd == std::string::npos || data.size() < headEnd + 4 + length;) {
      pollfd p{fd, POLLIN, 0};
      const ssize_t n = ::poll(&p, 1, 5000) > 0 ? ::recv(fd, buffer, sizeof buffer, 0) : -1;
      if (n <= 0) return (void)::close(fd);
      data.append(buffer, static_cast<std::size_t>(n));
      if (headEnd == std::string::npos && (headEnd = data.find("\r\n\r\n")) != std::string::npos) {
        for (std::size_t at = data.find('\n'); at < headEnd; at = data.find('\n', at + 1)) {
          if (!::strncasecmp(data.c_str() + at + 1, "content-length:", 15))
            length = std::strtoul(data.c_str() + at + 16, nullptr, 10);
        }
      }
    }
    // "GET /path?query HTTP/1.1"
    const std::size_t start = data.find(' ') + 1;
    const std::string path = data.substr(start, data.find_first_of(" ?", start) - start);
    Seen seen;
    {
      std::lock_guard lock(mutex_);
      seen = paths_[path];
      paths_[path].lastBody = data.substr(headEnd + 4, length);
    }
    const std::string response = "HTTP/1.1 " + std::to_string(seen.status) +
                                 " X\r\nContent-Type: application/json\r\nContent-Length: " +
                                 std::to_string(seen.body.size()) +
                                 "\r\nConnection: close\r\n\r\n" + seen.body;
    ::send(fd, response.data(), response.size(), MSG_NOSIGNAL);
    ::close(fd);
  }

  int fd_ = -1;
  std::uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::map<std::string, Seen> paths_;
  std::thread thread_;
};

}  // namespace quill::test
