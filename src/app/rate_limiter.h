#pragma once
// Per-client token buckets, one per budget: a small credential budget for the sign-in style
// endpoints, a larger anonymous budget for requests without a valid token, and a budget of its
// own for starting browser sign-ins (each start holds a place in the bounded pending store).
// Every budget refills its whole capacity continuously over a minute.
//
// The table holds at most 4096 clients. A new client in a full table first clears entries whose
// stored budgets are all full, then, if still full, evicts the client seen longest ago, so a
// flood of distinct addresses cannot grow memory. Every operation is constant time.
//
// Thread safety: charge() and size() may be called from any thread.

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <unordered_map>

namespace quill {

enum class Budget { Credential, Anonymous, SignInStart };

struct ChargeResult {
  bool allowed = true;
  std::int64_t retryAfterSeconds = 0;  // set when refused; at least 1
};

class RateLimiter {
 public:
  static constexpr std::size_t kMaxEntries = 4096;
  static constexpr std::size_t kBudgets = 3;
  // Tokens each budget starts with and refills per minute, indexed by Budget.
  static constexpr std::array<double, kBudgets> kCapacity = {5.0, 30.0, 30.0};

  using Clock = std::function<std::int64_t()>;  // monotonic nanoseconds
  explicit RateLimiter(bool enabled, Clock clock = steadyNanoseconds);

  // Takes one token from `key`'s `budget`. An empty key, or a disabled limiter, is always allowed
  // and records nothing.
  ChargeResult charge(const std::string& key, Budget budget);
  std::size_t size() const;

  static std::int64_t steadyNanoseconds();

 private:
  struct Bucket {
    double tokens = 0;
    std::int64_t refilled = 0;
  };
  struct Entry {
    std::array<Bucket, kBudgets> buckets;
    std::list<std::string>::iterator recency;  // position in recency_ (front: seen last)
  };
  static bool isFull(const Entry& e);
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
