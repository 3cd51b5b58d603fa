#include "rill/ops/task_pool.h"

#include <algorithm>

namespace quill::rill {

TaskPool::TaskPool(std::size_t threads) {
  for (std::size_t i = 0; i < std::max<std::size_t>(1, threads); ++i) {
    workers_.emplace_back([this] { work(); });
  }
}

TaskPool::~TaskPool() {
  wait();
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  ready_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

void TaskPool::submit(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    queue_.push_back(std::move(task));
  }
  ready_.notify_one();
}

void TaskPool::wait() {
  std::unique_lock lock(mutex_);
  idle_.wait(lock, [this] { return queue_.empty() && running_ == 0; });
}

void TaskPool::work() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      ready_.wait(lock, [this] { return stopping_ || !queue_.empty(); });
      if (queue_.empty()) return;
      task = std::move(queue_.front());
      queue_.pop_front();
      ++running_;
    }
    task();
    {
      std::lock_guard lock(mutex_);
      --running_;
    }
    idle_.notify_all();
  }
}

std::size_t defaultCpuThreads() { return std::max(1u, std::thread::hardware_concurrency()); }

std::size_t defaultTransferThreads() { return std::max<std::size_t>(8, 4 * defaultCpuThreads()); }

std::size_t defaultCheckThreads() { return 64; }

}  // namespace quill::rill
