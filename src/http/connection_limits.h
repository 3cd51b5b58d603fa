#pragma once
// Bounds on the connections a server holds open: in all, so that descriptors remain for the files
// that requests open, and per client address, so that one client cannot take every slot.
//
// The server stops accepting while the total is reached (waiting connections stay in the
// kernel's backlog) and resumes when one closes. A client address over its share is accepted and
// closed at once. Loopback peers (a reverse proxy on the same machine) may be exempt from the
// per-address share, since every client behind the proxy shares their address.
//
// Thread safety: every member may be called from any thread.

#include <cstddef>
#include <mutex>
#include <string>
#include <unordered_map>

namespace quill::http {

class ConnectionLimits {
 public:
  // `total` and `perClient` of 0 mean "no bound".
  ConnectionLimits(std::size_t total, std::size_t perClient, bool exemptLoopback);

  // Counts a new connection from `address` (an IP address as text). False, counting nothing,
  // when the address already holds its share.
  bool admit(const std::string& address);
  // Uncounts a connection that admit() counted. True when accepting was paused by pauseIfFull()
  // and may resume now.
  bool release(const std::string& address);
  // True (and remembers the pause) when the total is reached: the caller stops accepting until a
  // release() says to resume.
  bool pauseIfFull();

  std::size_t open() const;

 private:
  bool exempt(const std::string& address) const;

  const std::size_t total_;
  const std::size_t perClient_;
  const bool exemptLoopback_;
  mutable std::mutex mutex_;
  std::size_t open_ = 0;
  bool paused_ = false;
  std::unordered_map<std::string, std::size_t> byAddress_;
};

}  // namespace quill::http
