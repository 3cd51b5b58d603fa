#include "support/http_client.h"

#include <arpa/inet.h>
#include <curl/curl.h>
#include <poll.h>
#include <unistd.h>

#include <cctype>

namespace quill::test {
namespace {

size_t collectBody(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

size_t collectHeader(char* data, size_t size, size_t count, void* out) {
  const std::string line(data, size * count);
  const auto colon = line.find(':');
  if (colon == std::string::npos) return size * count;
  std::string name = line.substr(0, colon), value = line.substr(colon + 1);
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  value.erase(0, value.find_first_not_of(" \t"));
  value.erase(value.find_last_not_of("\r\n \t") + 1);
  (*static_cast<std::map<std::string, std::string>*>(out))[name] = value;
  return size * count;
}

sockaddr_in loopback(std::uint16_t port) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(port);
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return addr;
}

}  // namespace

Client::Client() : curl_(curl_easy_init()) {}
Client::~Client() { curl_easy_cleanup(static_cast<CURL*>(curl_)); }

Fetched Client::fetch(const std::string& method, const std::string& url, const std::string& body,
                      const std::vector<std::string>& headers) {
  Fetched out;
  CURL* c = static_cast<CURL*>(curl_);
  curl_easy_reset(c);
  curl_easy_setopt(c, CURLOPT_URL, url.c_str());
  curl_easy_setopt(c, CURLOPT_CUSTOMREQUEST, method.c_str());
  curl_easy_setopt(c, CURLOPT_NOBODY, method == "HEAD" ? 1L : 0L);
  if (!body.empty() || method == "POST" || method == "PUT") {
    curl_easy_setopt(c, CURLOPT_POSTFIELDS, body.data());
    curl_easy_setopt(c, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
  }
  curl_slist* list = nullptr;
  for (const auto& h : headers) list = curl_slist_append(list, h.c_str());
  curl_easy_setopt(c, CURLOPT_HTTPHEADER, list);
  curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, collectBody);
  curl_easy_setopt(c, CURLOPT_WRITEDATA, &out.body);
  curl_easy_setopt(c, CURLOPT_HEADERFUNCTION, collectHeader);
  curl_easy_setopt(c, CURLOPT_HEADERDATA, &out.headers);
  curl_easy_setopt(c, CURLOPT_TIMEOUT, 20L);
  if (CURLcode rc = curl_easy_perform(c); rc != CURLE_OK) out.error = curl_easy_strerror(rc);
  curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &out.status);
  curl_easy_getinfo(c, CURLINFO_NUM_CONNECTS, &out.newConnections);
  curl_slist_free_all(list);
  return out;
}

RawConnection::RawConnection(std::uint16_t port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
  sockaddr_in addr = loopback(port);
  if (fd_ < 0 || ::connect(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return;
  ::close(fd_);
  fd_ = -1;
}

RawConnection::~RawConnection() { ::close(fd_); }

bool RawConnection::send(const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) return false;
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

std::string RawConnection::readUntil(const std::string& marker, std::chrono::milliseconds timeout) {
  std::string data;
  char buf[65536];
  pollfd p{fd_, POLLIN, 0};
  using Clock = std::chrono::steady_clock;
  for (auto end = Clock::now() + timeout;
       marker.empty() || data.find(marker) == std::string::npos;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
    if (left.count() <= 0 || ::poll(&p, 1, static_cast<int>(left.count())) <= 0) break;
    const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
    if ((closed_ = n <= 0)) break;
    data.append(buf, static_cast<std::size_t>(n));
  }
  return data;
}

std::uint16_t freePort() {
  const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in addr = loopback(0);
  socklen_t len = sizeof addr;
  ::bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  ::close(fd);
  return ntohs(addr.sin_port);
}

}  // namespace quill::test
