#pragma once
// Mutual exclusion by name within this process: one lock per key, held by a guard, with no entry
// kept for a key that nobody holds.
//
// Thread safety: every member may be called from any thread.

#include <condition_variable>
#include <mutex>
#include <set>
#include <string>

namespace quill::store {

class KeyedMutex {
 public:
  // Holds the lock of one key until it is destroyed.
  class Guard {
   public:
    Guard(KeyedMutex& owner, std::string key) : owner_(owner), key_(std::move(key)) {}
    ~Guard() { owner_.unlock(key_); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    KeyedMutex& owner_;
    std::string key_;
  };

  // Blocks until no other guard holds `key`, then returns the guard that holds it.
  [[nodiscard]] Guard lock(const std::string& key);

 private:
  void unlock(const std::string& key);

  std::mutex mutex_;
  std::condition_variable released_;
  std::set<std::string> held_;
};

}  // namespace quill::store
