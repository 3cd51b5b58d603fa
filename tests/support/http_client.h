#pragma once
// Small test clients: libcurl for ordinary requests, raw loopback sockets for byte-level control.

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace quill::test {

struct Fetched {
  long status = 0;
  std::string body;
  std::map<std::string, std::string> headers;  // lower-case names
  std::string error;                           // set when the transfer failed
  long newConnections = 0;                     // connections libcurl had to open
};

// One libcurl easy handle, reused so keep-alive connections are reused too.
class Client {
 public:
  Client();
  ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  Fetched fetch(const std::string& method, const std::string& url, const std::string& body = "",
                const std::vector<std::string>& headers = {});

 private:
  void* curl_;
};

// A blocking TCP connection to 127.0.0.1:port.
class RawConnection {
 public:
  explicit RawConnection(std::uint16_t port);
  ~RawConnection();
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;
  bool connected() const { return fd_ >= 0; }
  bool send(const std::string& bytes);
  // Reads until `marker` has arrived (or close/timeout); returns everything read.
  std::string readUntil(const std::string& marker, std::chrono::milliseconds timeout);
  // Reads until the peer closes or `timeout` passes; returns what arrived.
  std::string readAll(std::chrono::milliseconds timeout) { return readUntil("", timeout); }
  // True when the peer closed the connection within `timeout`.
  bool closedByPeer(std::chrono::milliseconds timeout) {
    readAll(timeout);
    return closed_;
  }

 private:
  int fd_ = -1;
  bool closed_ = false;
};

// A port on 127.0.0.1 that was free a moment ago.
std::uint16_t freePort();

}  // namespace quill::test
