#include "app/rate_limiter.h"

#include <algorithm>
#include <cmath>

namespace quill {

namespace {
constexpr double kRefillWindowSeconds = 60.0;
}

RateLimiter::RateLimiter(bool enabled, Clock clock) : enabled_(enabled), clock_(std::move(clock)) {}

std::int64_t RateLimiter::steadyNanoseconds() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

std::size_t RateLimiter::size() const {
  std::lock_guard lock(mutex_);
  return entries_.size();
}

bool RateLimiter::isFull(const Entry& e) {
  for (std::size_t i = 0; i < kBudgets; ++i) {
    if (e.buckets[i].tokens < kCapacity[i]) return false;
  }
  return true;
}

void RateLimiter::erase(std::unordered_map<std::string, Entry>::iterator it) {
  if (isFull(it->second)) --fullEntries_;
  recency_.erase(it->second.recency);
  entries_.erase(it);
}

RateLimiter::Entry& RateLimiter::admit(const std::string& key, std::int64_t now) {
  if (entries_.size() >= kMaxEntries && fullEntries_ > 0) {
    // Stored values are compared as they stand, without refilling them first.
    for (auto it = entries_.begin(); it != entries_.end();) {
      auto next = std::next(it);
      if (isFull(it->second)) erase(it);
      it = next;
    }
  }
  if (entries_.size() >= kMaxEntries) erase(entries_.find(recency_.back()));
  recency_.push_front(key);
  Entry entry;
  for (std::size_t i = 0; i < kBudgets; ++i) entry.buckets[i] = {kCapacity[i], now};
  entry.recency = recency_.begin();
  ++fullEntries_;
  return entries_.emplace(key, entry).first->second;
}

ChargeResult RateLimiter::charge(const std::string& key, Budget budget) {
  if (!enabled_ || key.empty()) return {};
  std::lock_guard lock(mutex_);
  const std::int64_t now = clock_();
  auto found = entries_.find(key);
  Entry& entry = found != entries_.end() ? found->second : admit(key, now);
  recency_.splice(recency_.begin(), recency_, entry.recency);

  const bool wasFull = isFull(entry);
  const auto index = static_cast<std::size_t>(budget);
  const double capacity = kCapacity[index];
  double& tokens = entry.buckets[index].tokens;
  std::int64_t& refilled = entry.buckets[index].refilled;

  const double elapsed = static_cast<double>(now - refilled) / 1e9;
  refilled = now;
  tokens = std::min(capacity, tokens + elapsed * capacity / kRefillWindowSeconds);

  ChargeResult result;
  if (tokens >= 1.0) {
    tokens -= 1.0;
  } else {
    result.allowed = false;
    auto wait =
        static_cast<std::int64_t>(std::ceil((1.0 - tokens) * kRefillWindowSeconds / capacity));
    result.retryAfterSeconds = std::max<std::int64_t>(1, wait);
  }
  if (wasFull != isFull(entry)) wasFull ? --fullEntries_ : ++fullEntries_;
  return result;
}

}  // namespace quill
