#pragma once
// A small in-memory map whose entries live for a fixed time and can be taken once. Ages are
// measured on a steady clock; expired entries are purged whenever the store is used. The store
// is bounded: when full, the oldest entry makes room, but never one younger than the store's
// protected age, so a flood of new entries cannot push out the ones people are still using; the
// new entry is refused instead.
//
// Thread safety: all members may be called from any thread.

#include <algorithm>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace quill::sso {

template <class V>
class ExpiringStore {
 public:
  using Clock = std::function<std::chrono::steady_clock::time_point()>;

  // Entries live `lifetime`; at most `capacity` (at least 1) are held; a full store drops only
  // entries at least `protectedAge` old to make room (zero: always the oldest).
  ExpiringStore(std::chrono::seconds lifetime, std::size_t capacity,
                std::chrono::seconds protectedAge, Clock clock)
      : lifetime_(lifetime),
        capacity_(capacity),
        protectedAge_(protectedAge),
        clock_(std::move(clock)) {}

  struct PutResult {
    bool stored = true;
    std::chrono::seconds retryAfter{0};  // when refused: until the oldest entry may go, >= 1 s
  };

  // Stores `value` under `key`, dropping the oldest entry when the store is full and that entry is
  // old enough to go; otherwise stores nothing.
  PutResult put(const std::string& key, V value) {
    std::lock_guard lock(mutex_);
    const auto now = clock_();
    purge(now);
    if (entries_.size() >= capacity_ && !entries_.contains(key)) {
      auto oldest = oldestEntry();
      const auto age = now - oldest->second.createdAt;
      if (age < protectedAge_) return {false, retryAfter(protectedAge_ - age)};
      entries_.erase(oldest);
    }
    entries_.insert_or_assign(key, Entry{std::move(value), now});
    return {};
  }

  // Removes and returns the entry under `key`; nullopt when unknown, taken or expired.
  std::optional<V> take(const std::string& key) {
    std::lock_guard lock(mutex_);
    purge(clock_());
    auto it = entries_.find(key);
    if (it == entries_.end()) return std::nullopt;
    V value = std::move(it->second.value);
    entries_.erase(it);
    return value;
  }

  std::size_t size() {
    std::lock_guard lock(mutex_);
    purge(clock_());
    return entries_.size();
  }

 private:
  struct Entry {
    V value;
    std::chrono::steady_clock::time_point createdAt;
  };
  using Entries = std::map<std::string, Entry>;

  // An entry is good up to and including its lifetime; a moment later it is gone.
  void purge(std::chrono::steady_clock::time_point now) {
    std::erase_if(entries_,
                  [&](const auto& item) { return now - item.second.createdAt > lifetime_; });
  }

  // The entry created first; the store must not be empty.
  typename Entries::iterator oldestEntry() {
    auto oldest = entries_.begin();
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (it->second.createdAt < oldest->second.createdAt) oldest = it;
    }
    return oldest;
  }

  static std::chrono::seconds retryAfter(std::chrono::steady_clock::duration wait) {
    return std::max(std::chrono::ceil<std::chrono::seconds>(wait), std::chrono::seconds(1));
  }

  std::chrono::seconds lifetime_;
  std::size_t capacity_;
  std::chrono::seconds protectedAge_;
  Clock clock_;
  std::mutex mutex_;
  Entries entries_;
};

}  // namespace quill::sso
