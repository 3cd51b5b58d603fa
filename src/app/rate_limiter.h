#pragma once
// Per-client token buckets: a small credential budget for the sign-in style endpoints and a larger
// anonymous budget for requests without a valid token. Buckets refill continuously.
//
// The table holds at most 4096 clients. A new client in a full table first clears entries whose
// stored budgets are both full, then, if still full, evicts the client seen longest ago, so a
// flood of distinct addresses cannot grow memory. Every operation is constant time.
//
// Thread safety: charge() and size() may be called from any thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

namespace quill {

enum class Budget { Credential, Anonymous };

struct ChargeResult {
  bool allowed = true;
  std::int64_t retryAfterSeconds = 0;  // set when refused; at least 1
};

class RateLimiter {
 public:
  static constexpr std::size_t kMaxEntries = 4096;
  static constexpr double kCredentialCapacity = 5.0;
  static constexpr double kAnonymousCapacity = 30.0;

  using Clock = std::function<std::int64_t()>;  // monotonic nanoseconds
  explicit RateLimiter(bool enabled, Clock clock = steadyNanoseconds);

  // Takes one token from `key`'s `budget`. An empty key, or a disabled limiter, is always allowed
  // and records nothing.
  ChargeResult charge(const std::string& key, Budget budget);
  std::size_t size() const;

  static std::int64_t steadyNanoseconds();

 private:
  struct Entry {
    double credential = kCredentialCapacity;
    std::int64_t credentialRefilled = 0;
    double anonymous = kAnonymousCapacity;
    std::int64_t anonymousRefilled = 0;
    std::list<std::string>::iterator recency;  // position in recency_ (front: seen last)
  };
  static bool isFull(const Entry& e) {
    return e.credential >= kCredentialCapacity && e.anonymous >= kAnonymousCapacity;
  }
  Entry& admit(const std::string& key, std::int64_t now);
  void erase(std::unordered_map<std::string, Entry>::iterator it);

  const bool enabled_;
  const Clock clock_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, Entry> entries_;
  std::list<std::string> recency_;
  std::size_t fullEntries_ = 0;  // entries for which isFull() holds
};

}  // namespace quill
