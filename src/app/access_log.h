#pragma once
// The access log (`--access-log <path>`, "-" for standard output): one line per answered
// request, in the combined format of common web servers followed by the time taken:
//
//   203.0.113.7 - alice [24/Nov/2026:23:45:24 +0000] "GET /a?path=x HTTP/1.1" 206 1048576 "-"
//   "curl/7.88.1" 0.004      (one line)
//
// The client is the address the gate charges (a loopback proxy's first X-Forwarded-For hop), the
// user the caller's name or "-". Query values that may be secrets (sign-in codes and states,
// PINs, anything not known to be harmless) are left out, so no token or code ever reaches the
// log; text from the client is escaped, so no request can forge a line.
//
// Thread safety: every member may be called from any thread.

#include <chrono>
#include <cstdint>
#include <ctime>
#include <mutex>
#include <string>
#include <string_view>

#include "base/result.h"

namespace quill {

struct AccessEntry {
  std::string client;  // empty: "-"
  std::string user;    // empty: "-"
  std::string method;  // empty: the request could not be read
  std::string target;  // as sent
  unsigned version = 11;
  unsigned status = 0;
  std::uint64_t bytes = 0;
  std::string userAgent;
  std::chrono::microseconds took{};
  std::time_t when = 0;
};

// `target` with the value of every query parameter not known to be harmless replaced by "-".
std::string loggableTarget(std::string_view target);

// The log line for `entry`, without the newline.
std::string formatAccessLine(const AccessEntry& entry);

class AccessLog {
 public:
  AccessLog() = default;
  ~AccessLog();
  AccessLog(const AccessLog&) = delete;
  AccessLog& operator=(const AccessLog&) = delete;

  // Opens `path` for appending (created owner-only if missing), or standard output for "-".
  // Fails with "cannot open access log <path>: <reason>".
  base::Result<bool> open(const std::string& path);
  // Opens the same path again (after a log rotation moved the file away); standard output stays.
  // A failure is reported on standard error and the old file kept.
  void reopen();
  bool enabled() const { return fd_ >= 0; }
  // Appends `line` and a newline in one write.
  void write(std::string line);

 private:
  std::mutex mutex_;
  std::string path_;
  int fd_ = -1;
};

}  // namespace quill
