#pragma once
// A small in-memory map whose entries live for a fixed time and can be taken once. Ages are
// measured on a steady clock; expired entries are purged whenever the store is used. The store
// is bounded: when full, the oldest entry makes room, so a flood of sign-in starts cannot grow
// memory without limit.
//
// Thread safety: all members may be called from any thread.

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

  ExpiringStore(std::chrono::seconds lifetime, std::size_t capacity, Clock clock)
      : lifetime_(lifetime), capacity_(capacity), clock_(std::move(clock)) {}

  void put(const std::string& key, V value) {
    std::lock_guard lock(mutex_);
    const auto now = clock_();
    purge(now);
    while (entries_.size() >= capacity_) dropOldest();
    entries_.insert_or_assign(key, Entry{std::move(value), now});
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

  // An entry is good up to and including its lifetime; a moment later it is gone.
  void purge(std::chrono::steady_clock::time_point now) {
    std::erase_if(entries_,
                  [&](const auto& item) { return now - item.second.createdAt > lifetime_; });
  }

  void dropOldest() {
    auto oldest = entries_.begin();
    for (auto it = entries_.begin(); it != entries_.end(); ++it) {
      if (it->second.createdAt < oldest->second.createdAt) oldest = it;
    }
    if (oldest != entries_.end()) entries_.erase(oldest);
  }

  std::chrono::seconds lifetime_;
  std::size_t capacity_;
  Clock clock_;
  std::mutex mutex_;
  std::map<std::string, Entry> entries_;
};

}  // namespace quill::sso
