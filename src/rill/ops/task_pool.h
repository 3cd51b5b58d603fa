#pragma once
// A fixed set of worker threads that run submitted tasks in submission order, for the
// request-bound stages of publishing and pulling. Memory bounds are the caller's business: a task
// should hold its large buffers only while it runs.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace quill::rill {

class TaskPool {
 public:
  // Starts `threads` workers (at least one).
  explicit TaskPool(std::size_t threads);
  // Waits for every submitted task, then stops the workers.
  ~TaskPool();
  TaskPool(const TaskPool&) = delete;
  TaskPool& operator=(const TaskPool&) = delete;

  // Queues `task`; it runs on one of the workers. Thread-safe.
  void submit(std::function<void()> task);
  // Returns once every task submitted so far has finished.
  void wait();

 private:
  void work();

  std::mutex mutex_;
  std::condition_variable ready_;  // a task was queued, or the pool stops
  std::condition_variable idle_;   // a task finished
  std::deque<std::function<void()>> queue_;
  std::size_t running_ = 0;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

// How many worker threads a stage gets when the caller does not say: the number of cores for
// work that keeps a core busy; more for transfers, which mostly wait on the network; and many for
// existence checks, which carry no body and only wait.
std::size_t defaultCpuThreads();
std::size_t defaultTransferThreads();
std::size_t defaultCheckThreads();

}  // namespace quill::rill
