#include "app/rate_limiter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "support/numbered.h"

namespace quill {
namespace {

constexpr std::int64_t kSecond = 1'000'000'000;

// A limiter on a hand-driven clock: time moves only when the test says so.
class RateLimiterTest : public ::testing::Test {
 protected:
  RateLimiter limiter{true, [this] { return now; }};
  std::int64_t now = 1'000 * kSecond;

  void exhaust(const std::string& key, Budget budget, int tokens) {
    for (int i = 0; i < tokens; ++i) ASSERT_TRUE(limiter.charge(key, budget).allowed) << i;
  }
  std::int64_t refusedFor(const std::string& key, Budget budget) {
    ChargeResult r = limiter.charge(key, budget);
    EXPECT_FALSE(r.allowed);
    return r.allowed ? -1 : r.retryAfterSeconds;
  }
};

TEST_F(RateLimiterTest, BudgetsStartFullAndAreIndependentPerKeyAndKind) {
  exhaust("a", Budget::Credential, 5);
  EXPECT_EQ(refusedFor("a", Budget::Credential), 12);
  exhaust("a", Budget::Anonymous, 30);
  EXPECT_EQ(refusedFor("a", Budget::Anonymous), 2);
  exhaust("a", Budget::SignInStart, 30);
  EXPECT_EQ(refusedFor("a", Budget::SignInStart), 2);
  exhaust("b", Budget::Credential, 5);
  exhaust("b", Budget::SignInStart, 30);
  EXPECT_EQ(limiter.size(), 2u);
}

TEST_F(RateLimiterTest, CredentialBudgetRefillsContinuouslyAtFivePerMinuteUpToItsCapacity) {
  // Steps are chosen so every token count is exact in binary floating point.
  exhaust("a", Budget::Credential, 5);
  now += 1500 * kSecond / 1000;  // 0.125 tokens: 10.5 s to go
  EXPECT_EQ(refusedFor("a", Budget::Credential), 11);
  now += 1500 * kSecond / 1000;  // a refusal keeps what was refilled: 0.25 now
  EXPECT_EQ(refusedFor("a", Budget::Credential), 9);
  now += 9 * kSecond;  // exactly one token
  EXPECT_TRUE(limiter.charge("a", Budget::Credential).allowed);
  EXPECT_EQ(refusedFor("a", Budget::Credential), 12);
  now += 6 * kSecond;  // half a token
  EXPECT_EQ(refusedFor("a", Budget::Credential), 6);
  now += 6 * kSecond;
  EXPECT_TRUE(limiter.charge("a", Budget::Credential).allowed);
  now += 3600 * kSecond;
  exhaust("a", Budget::Credential, 5);
  EXPECT_EQ(refusedFor("a", Budget::Credential), 12);
}

TEST_F(RateLimiterTest, AnonymousBudgetRefillsAtThirtyPerMinuteUpToItsCapacity) {
  exhaust("a", Budget::Anonymous, 30);
  now += 10 * kSecond;  // five tokens
  exhaust("a", Budget::Anonymous, 5);
  EXPECT_EQ(refusedFor("a", Budget::Anonymous), 2);
  now += 500 * kSecond / 1000;  // 0.25 tokens: 1.5 s to go
  EXPECT_EQ(refusedFor("a", Budget::Anonymous), 2);
  now += 1500 * kSecond / 1000;
  EXPECT_TRUE(limiter.charge("a", Budget::Anonymous).allowed);
  // An idle hour refills no more than the capacity.
  now += 3600 * kSecond;
  exhaust("a", Budget::Anonymous, 30);
  EXPECT_EQ(refusedFor("a", Budget::Anonymous), 2);
}

TEST_F(RateLimiterTest, RetryAfterIsRoundedUpAndNeverBelowOneSecond) {
  exhaust("a", Budget::Anonymous, 30);
  now += 1990 * kSecond / 1000;  // 0.995 tokens: 0.01 s to go
  EXPECT_EQ(refusedFor("a", Budget::Anonymous), 1);
  now += 4 * kSecond / 1000;  // 0.997 tokens
  EXPECT_EQ(refusedFor("a", Budget::Anonymous), 1);
  now += 100 * kSecond / 1000;
  EXPECT_TRUE(limiter.charge("a", Budget::Anonymous).allowed);

  exhaust("b", Budget::Credential, 5);
  now += 100 * kSecond / 1000;  // 1/120 of a token: 11.9 s to go
  EXPECT_EQ(refusedFor("b", Budget::Credential), 12);
}

TEST_F(RateLimiterTest, DisabledOrKeylessChargesAreFreeAndUnrecorded) {
  RateLimiter off(false, [this] { return now; });
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(off.charge("a", Budget::Credential).allowed);
    EXPECT_TRUE(limiter.charge("", Budget::Credential).allowed);
  }
  EXPECT_EQ(off.size(), 0u);
  EXPECT_EQ(limiter.size(), 0u);
}

TEST_F(RateLimiterTest, AFullTableEvictsTheClientSeenLongestAgo) {
  exhaust("old", Budget::Credential, 5);
  now += 1;
  exhaust("kept", Budget::Credential, 5);
  for (int i = 0; i < 4094; ++i) {
    now += 1;
    ASSERT_TRUE(limiter.charge(test::numbered("k", i), Budget::Anonymous).allowed);
  }
  ASSERT_EQ(limiter.size(), 4096u);
  now += 1;
  EXPECT_EQ(refusedFor("kept", Budget::Credential), 12);  // seen again: now the newest

  now += 1;
  EXPECT_TRUE(limiter.charge("newcomer", Budget::Anonymous).allowed);
  EXPECT_EQ(limiter.size(), 4096u);
  // "old" was evicted and starts afresh; "kept" still owes its wait.
  now += 1;
  EXPECT_TRUE(limiter.charge("old", Budget::Credential).allowed);
  EXPECT_EQ(refusedFor("kept", Budget::Credential), 12);
  // Re-admitting "old" evicted the next oldest, k0, which also starts afresh.
  EXPECT_EQ(limiter.size(), 4096u);
}

}  // namespace
}  // namespace quill
