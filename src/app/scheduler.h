#pragma once
// Periodic tasks of the running server (the scheduled-backup check), on one thread of their own
// that no request uses. A task should hand long work to a thread of its own.
//
// Thread safety: every() before start(); stop() from any thread but a task's.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace quill {

class Scheduler {
 public:
  Scheduler() = default;
  ~Scheduler() { stop(); }
  Scheduler(const Scheduler&) = delete;
  Scheduler& operator=(const Scheduler&) = delete;

  // Runs `task` every `period`, the first time one period after start().
  void every(std::chrono::milliseconds period, std::function<void()> task);
  void start();
  // Runs no task after this; waits for one that is running, then returns.
  void stop();

 private:
  struct Task {
    std::chrono::milliseconds period;
    std::function<void()> run;
    std::chrono::steady_clock::time_point due;
  };
  void loop();

  std::vector<Task> tasks_;
  std::mutex mutex_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace quill
