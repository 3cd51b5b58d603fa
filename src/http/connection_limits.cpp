#include "http/connection_limits.h"

#include "http/request.h"

namespace quill::http {

ConnectionLimits::ConnectionLimits(std::size_t total, std::size_t perClient, bool exemptLoopback)
    : total_(total), perClient_(perClient), exemptLoopback_(exemptLoopback) {}

bool ConnectionLimits::exempt(const std::string& address) const {
  return perClient_ == 0 || (exemptLoopback_ && isLoopbackAddress(address));
}

bool ConnectionLimits::admit(const std::string& address) {
  std::lock_guard lock(mutex_);
  if (!exempt(address)) {
    std::size_t& held = byAddress_[address];
    if (held >= perClient_) return false;
    ++held;
  }
  ++open_;
  return true;
}

bool ConnectionLimits::release(const std::string& address) {
  std::lock_guard lock(mutex_);
  if (!exempt(address)) {
    auto it = byAddress_.find(address);
    if (it != byAddress_.end() && --it->second == 0) byAddress_.erase(it);
  }
  if (open_ > 0) --open_;
  if (!paused_ || (total_ != 0 && open_ >= total_)) return false;
  paused_ = false;
  return true;
}

bool ConnectionLimits::pauseIfFull() {
  std::lock_guard lock(mutex_);
  if (total_ == 0 || open_ < total_) return false;
  paused_ = true;
  return true;
}

std::size_t ConnectionLimits::open() const {
  std::lock_guard lock(mutex_);
  return open_;
}

}  // namespace quill::http
