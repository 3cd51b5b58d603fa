#include "support/static_provider.h"

#include <arpa/inet.h>
#include <poll.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

namespace quill::test {

StaticProvider::StaticProvider() {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof addr;
  ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), len);
  ::listen(listenFd_, 16);
  ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] {
    for (pollfd p{listenFd_, POLLIN, 0}; !stop_;) {
      if (::poll(&p, 1, 50) > 0) answer(::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC));
    }
  });
}

StaticProvider::~StaticProvider() {
  stop_ = true;
  thread_.join();
  ::close(listenFd_);
}

void StaticProvider::serve(const std::string& path, std::string body, int status) {
  std::lock_guard lock(mutex_);
  paths_[path].status = status;
  paths_[path].body = std::move(body);
}

int StaticProvider::hits(const std::string& path) {
  std::lock_guard lock(mutex_);
  return paths_[path].hits;
}

std::string StaticProvider::lastBody(const std::string& path) {
  std::lock_guard lock(mutex_);
  return paths_[path].lastBody;
}

// One request: its head, then as many body bytes as Content-Length announces; one answer.
void StaticProvider::answer(int fd) {
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
    ++paths_[path].hits;
    paths_[path].lastBody = data.substr(headEnd + 4, length);
  }
  const std::string response = "HTTP/1.1 " + std::to_string(seen.status) +
                               " X\r\nContent-Type: application/json\r\nContent-Length: " +
                               std::to_string(seen.body.size()) + "\r\nConnection: close\r\n\r\n" +
                               seen.body;
  ::send(fd, response.data(), response.size(), MSG_NOSIGNAL);
  ::close(fd);
}

}  // namespace quill::test
