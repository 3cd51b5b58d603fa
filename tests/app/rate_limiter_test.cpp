#include "app/rate_limiter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <string>

#include "support/numbered.h"

namespace quill {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;
constexpr Budget kCred = Budget::Credential, kAnon = Budget::Anonymous,
                 kStart = Budget::SignInStart;

// One row: move the clock by `ms`, then `allowed` charges must pass and, when `retry` is set,
// the next one is refused with that Retry-After. Steps are chosen so every token count is exact
// in binary floating point.
struct Step {
  std::int64_t ms;
  const char* key;
  Budget budget;
  int allowed;
  std::int64_t retry = 0;
};

// A limiter on a hand-driven clock: time moves only when the test says so.
class RateLimiterTest : public ::testing::Test {
 protected:
  RateLimiter limiter{true, [this] { return now; }};
  std::int64_t now = 1'000 * kSecond;

  void run(std::initializer_list<Step> steps) {
    int row = 0;
    for (const Step& s : steps) {
      SCOPED_TRACE(testing::Message() << "row " << row++);
      now += s.ms * kSecond / 1000;
      for (int i = 0; i < s.allowed; ++i) ASSERT_TRUE(limiter.charge(s.key, s.budget).allowed) << i;
      if (s.retry == 0) continue;
      const ChargeResult r = limiter.charge(s.key, s.budget);
      EXPECT_FALSE(r.allowed);
      EXPECT_EQ(r.allowed ? -1 : r.retryAfterSeconds, s.retry);
    }
  }
};

TEST_F(RateLimiterTest, BudgetsStartFullAndAreIndependentPerKeyAndKind) {
  run({{0, "a", kCred, 5, 12},
       {0, "a", kAnon, 30, 2},
       {0, "a", kStart, 30, 2},
       {0, "b", kCred, 5},
       {0, "b", kStart, 30}});
  EXPECT_EQ(limiter.size(), 2u);
}

TEST_F(RateLimiterTest, BudgetsRefillContinuouslyUpToTheirCapacity) {
  run({// Credential: five a minute.
       {0, "a", kCred, 5},
       {1500, "a", kCred, 0, 11},  // 0.125 tokens: 10.5 s to go
       {1500, "a", kCred, 0, 9},   // a refusal keeps what was refilled: 0.25 now
       {9000, "a", kCred, 1, 12},  // exactly one token
       {6000, "a", kCred, 0, 6},   // half a token
       {6000, "a", kCred, 1},
       {3600'000, "a", kCred, 5, 12},  // an idle hour refills no more than the capacity
       {0, "b", kAnon, 30},            // anonymous: thirty a minute
       {10'000, "b", kAnon, 5, 2},     // five tokens
       {500, "b", kAnon, 0, 2},        // 0.25 tokens: 1.5 s to go
       {1500, "b", kAnon, 1},
       {3600'000, "b", kAnon, 30, 2}});
}

TEST_F(RateLimiterTest, RetryAfterIsRoundedUpAndNeverBelowOneSecond) {
  run({{0, "a", kAnon, 30},
       {1990, "a", kAnon, 0, 1},  // 0.995 tokens: 0.01 s to go
       {4, "a", kAnon, 0, 1},     // 0.997 tokens
       {100, "a", kAnon, 1},
       {0, "b", kCred, 5},
       {100, "b", kCred, 0, 12}});  // 1/120 of a token: 11.9 s to go
}

TEST_F(RateLimiterTest, DisabledOrKeylessChargesAreFreeAndUnrecorded) {
  RateLimiter off(false, [this] { return now; });
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(off.charge("a", kCred).allowed);
    EXPECT_TRUE(limiter.charge("", kCred).allowed);
  }
  EXPECT_EQ(off.size(), 0u);
  EXPECT_EQ(limiter.size(), 0u);
}

TEST_F(RateLimiterTest, AFullTableEvictsTheClientSeenLongestAgo) {
  run({{0, "old", kCred, 5}});
  now += 1;
  run({{0, "kept", kCred, 5}});
  for (int i = 0; i < 4094; ++i) {
    now += 1;
    ASSERT_TRUE(limiter.charge(test::numbered("k", i), kAnon).allowed);
  }
  ASSERT_EQ(limiter.size(), 4096u);
  now += 1;
  run({{0, "kept", kCred, 0, 12}});  // seen again: now the newest
  now += 1;
  run({{0, "newcomer", kAnon, 1}});
  EXPECT_EQ(limiter.size(), 4096u);
  // "old" was evicted and starts afresh; "kept" still owes its wait; re-admitting "old" evicted
  // the next oldest, k0.
  now += 1;
  run({{0, "old", kCred, 1}, {0, "kept", kCred, 0, 12}});
  EXPECT_EQ(limiter.size(), 4096u);
}

}  // namespace
}  // namespace quill
