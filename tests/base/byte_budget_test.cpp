#include "base/byte_budget.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace quill::base {
namespace {

using namespace std::chrono_literals;

// Holds `bytes` of `budget` on a thread of its own until `release` is set.
std::thread holder(ByteBudget& budget, std::uint64_t bytes, std::atomic<bool>& in,
                   std::atomic<bool>& release) {
  return std::thread([&budget, bytes, &in, &release] {
    const auto lease = budget.take(bytes);
    in = true;
    while (!release) std::this_thread::sleep_for(1ms);
  });
}

bool becomes(const std::atomic<bool>& flag) {
  for (int i = 0; i < 5000 && !flag; ++i) std::this_thread::sleep_for(1ms);
  return flag;
}

TEST(ByteBudget, TakersShareWhatFitsAndWaitInTheirTurn) {
  ByteBudget budget(100);
  std::atomic<bool> bigIn{false}, midIn{false}, smallIn{false}, release{false};
  std::thread big = holder(budget, 60, bigIn, release);
  ASSERT_TRUE(becomes(bigIn));
  std::thread mid = holder(budget, 50, midIn, release);  // does not fit beside the 60
  std::this_thread::sleep_for(100ms);
  std::thread small = holder(budget, 10, smallIn, release);  // fits, but comes after the 50
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(midIn);
  EXPECT_FALSE(smallIn);
  release = true;
  big.join();
  EXPECT_TRUE(becomes(midIn));
  EXPECT_TRUE(becomes(smallIn));
  mid.join();
  small.join();
  const auto whole = budget.take(1000);  // more than all counts as all
}

}  // namespace
}  // namespace quill::base
