#include "store/keyed_mutex.h"

namespace quill::store {

KeyedMutex::Guard KeyedMutex::lock(const std::string& key) {
  std::unique_lock<std::mutex> lock(mutex_);
  // Contention is rare (one build finalized while its last files arrive), so one condition for
  // every key is enough.
  released_.wait(lock, [&] { return held_.count(key) == 0; });
  held_.insert(key);
  return Guard(*this, key);
}

void KeyedMutex::unlock(const std::string& key) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    held_.erase(key);
  }
  released_.notify_all();
}

}  // namespace quill::store
