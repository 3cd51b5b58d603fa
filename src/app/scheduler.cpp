#include "app/scheduler.h"

#include <algorithm>

namespace quill {

void Scheduler::every(std::chrono::milliseconds period, std::function<void()> task) {
  tasks_.push_back({period, std::move(task), {}});
}

void Scheduler::start() {
  const auto now = std::chrono::steady_clock::now();
  for (Task& task : tasks_) task.due = now + task.period;
  thread_ = std::thread([this] { loop(); });
}

void Scheduler::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
}

void Scheduler::loop() {
  std::unique_lock lock(mutex_);
  while (!stopping_ && !tasks_.empty()) {
    auto next = std::min_element(tasks_.begin(), tasks_.end(),
                                 [](const Task& a, const Task& b) { return a.due < b.due; });
    if (wake_.wait_until(lock, next->due, [this] { return stopping_; })) return;
    // A clock that jumped (a suspended machine) gives one late run, not a burst of them.
    next->due = std::max(next->due + next->period, std::chrono::steady_clock::now());
    lock.unlock();
    next->run();
    lock.lock();
  }
}

}  // namespace quill
