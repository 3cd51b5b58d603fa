#include "support/static_provider.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <string_view>

namespace quill::test {

namespace {

// Reads one request: the head, then as many body bytes as Content-Length announces.
bool readRequest(int fd, std::string& head, std::string& body) {
  std::string data;
  char buffer[4096];
  std::size_t headEnd = std::string::npos;
  std::size_t length = 0;
  for (;;) {
    if (headEnd != std::string::npos && data.size() >= headEnd + 4 + length) break;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, 5000) <= 0) return false;
    const ssize_t n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) return false;
    data.append(buffer, static_cast<std::size_t>(n));
    if (headEnd == std::string::npos && (headEnd = data.find("\r\n\r\n")) != std::string::npos) {
      std::string lower = data.substr(0, headEnd);
      for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
      const std::size_t at = lower.find("content-length:");
      if (at != std::string::npos) length = std::strtoul(lower.c_str() + at + 15, nullptr, 10);
    }
  }
  head = data.substr(0, headEnd);
  body = data.substr(headEnd + 4, length);
  return true;
}

}  // namespace

StaticProvider::StaticProvider() {
  listenFd_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ::bind(listenFd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  ::listen(listenFd_, 16);
  socklen_t len = sizeof addr;
  ::getsockname(listenFd_, reinterpret_cast<sockaddr*>(&addr), &len);
  port_ = ntohs(addr.sin_port);
  thread_ = std::thread([this] { run(); });
}

StaticProvider::~StaticProvider() {
  stop_ = true;
  thread_.join();
  ::close(listenFd_);
}

void StaticProvider::serve(const std::string& path, std::string body, int status) {
  std::lock_guard lock(mutex_);
  answers_[path] = {status, std::move(body)};
}

int StaticProvider::hits(const std::string& path) {
  std::lock_guard lock(mutex_);
  return hits_[path];
}

std::string StaticProvider::lastBody(const std::string& path) {
  std::lock_guard lock(mutex_);
  return lastBodies_[path];
}

void StaticProvider::run() {
  while (!stop_) {
    pollfd p{listenFd_, POLLIN, 0};
    if (::poll(&p, 1, 50) <= 0) continue;
    const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) continue;
    answer(fd);
    ::close(fd);
  }
}

void StaticProvider::answer(int fd) {
  std::string head, body;
  if (!readRequest(fd, head, body)) return;
  // "GET /path?query HTTP/1.1"
  const std::size_t start = head.find(' ') + 1;
  std::string path = head.substr(start, head.find(' ', start) - start);
  path = path.substr(0, path.find('?'));
  Answer found;
  {
    std::lock_guard lock(mutex_);
    ++hits_[path];
    lastBodies_[path] = body;
    if (auto it = answers_.find(path); it != answers_.end()) found = it->second;
  }
  const std::string response = "HTTP/1.1 " + std::to_string(found.status) +
                               " X\r\nContent-Type: application/json\r\nContent-Length: " +
                               std::to_string(found.body.size()) + "\r\nConnection: close\r\n\r\n" +
                               found.body;
  ::send(fd, response.data(), response.size(), MSG_NOSIGNAL);
}

}  // namespace quill::test
