#include "app/scheduler.h"

#include <gtest/gtest.h>

#include <atomic>

namespace quill {

using namespace std::chrono_literals;

TEST(SchedulerTest, RunsRepeatedlyUntilStoppedAndNeverAfter) {
  std::atomic<int> fast{0}, slow{0};
  Scheduler scheduler;
  scheduler.every(20ms, [&] { ++fast; });
  scheduler.every(1h, [&] { ++slow; });
  scheduler.start();
  for (int i = 0; i < 250 && fast < 3; ++i) std::this_thread::sleep_for(20ms);
  const auto asked = std::chrono::steady_clock::now();
  scheduler.stop();  // does not wait for the hourly task
  EXPECT_LT(std::chrono::steady_clock::now() - asked, 5s);
  const int stopped = fast;
  EXPECT_GE(stopped, 3);
  EXPECT_EQ(slow, 0);
  std::this_thread::sleep_for(60ms);
  EXPECT_EQ(fast, stopped);
}

}  // namespace quill
