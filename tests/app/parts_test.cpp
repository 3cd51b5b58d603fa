// The server's own small parts: the rate limiter, the access log's line and the scheduler.

#include <gtest/gtest.h>

#include <atomic>

#include "app/access_log.h"
#include "app/rate_limiter.h"
#include "app/scheduler.h"
#include "support/numbered.h"

namespace quill {
namespace {

using namespace std::chrono_literals;
constexpr std::int64_t kSecond = 1'000'000'000;
constexpr Budget kCred = Budget::Credential, kAnon = Budget::Anonymous,
                 kStart = Budget::SignInStart;

// One row: move the clock by `ms`, then `allowed` charges must pass and, when `retry` is set, the
// next one is refused with that Retry-After. Token counts stay exact in binary floating point.
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
      EXPECT_EQ(r.allowed ? -1 : r.retryAfterSeconds, s.retry);
    }
  }
};

TEST_F(RateLimiterTest, BudgetsArePerKeyAndKindRefillContinuouslyAndRoundRetryUp) {
  run({{0, "a", kCred, 5, 12},
       {0, "a", kAnon, 30, 2},
       {0, "a", kStart, 30, 2},
       {0, "b", kCred, 5},
       {0, "b", kStart, 30}});
  EXPECT_EQ(limiter.size(), 2u);
  run({// Credential: five a minute.
       {0, "c", kCred, 5},
       {1500, "c", kCred, 0, 11},  // 0.125 tokens: 10.5 s to go
       {1500, "c", kCred, 0, 9},   // a refusal keeps what was refilled: 0.25 now
       {9000, "c", kCred, 1, 12},  // exactly one token
       {6000, "c", kCred, 0, 6},   // half a token
       {6000, "c", kCred, 1},
       {3600'000, "c", kCred, 5, 12},  // an idle hour refills no more than the capacity
       {0, "d", kAnon, 30},            // anonymous: thirty a minute
       {10'000, "d", kAnon, 5, 2},     // five tokens
       {500, "d", kAnon, 0, 2},        // 0.25 tokens: 1.5 s to go
       {1500, "d", kAnon, 1},
       {3600'000, "d", kAnon, 30, 2},
       {1990, "d", kAnon, 0, 1},  // 0.995 tokens: 0.01 s to go, never below one second
       {4, "d", kAnon, 0, 1},
       {100, "d", kAnon, 1},
       {0, "e", kCred, 5},
       {100, "e", kCred, 0, 12}});  // 1/120 of a token: 11.9 s to go
}

TEST_F(RateLimiterTest, DisabledOrKeylessChargesAreFreeAndUnrecorded) {
  RateLimiter off(false, [this] { return now; });
  for (int i = 0; i < 100; ++i) {
    EXPECT_TRUE(off.charge("a", kCred).allowed);
    EXPECT_TRUE(limiter.charge("", kCred).allowed);
  }
  EXPECT_EQ(off.size() + limiter.size(), 0u);
}

// Every charge below is a nanosecond after the one before.
TEST_F(RateLimiterTest, AFullTableEvictsTheClientSeenLongestAgo) {
  const auto charge = [&](const std::string& key, Budget budget) {
    ++now;
    return limiter.charge(key, budget).allowed;
  };
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(charge("old", kCred) && charge("kept", kCred));
  for (int i = 0; i < 4094; ++i) ASSERT_TRUE(charge(test::numbered("k", i), kAnon));
  ASSERT_EQ(limiter.size(), 4096u);
  EXPECT_FALSE(charge("kept", kCred));  // seen again: now the newest
  EXPECT_TRUE(charge("newcomer", kAnon));
  EXPECT_EQ(limiter.size(), 4096u);
  // "old" was evicted and starts afresh; "kept" still owes its wait; re-admitting "old" evicted
  // the next oldest, k0.
  EXPECT_TRUE(charge("old", kCred));
  EXPECT_FALSE(charge("kept", kCred));
  EXPECT_EQ(limiter.size(), 4096u);
}

// Client text escaped; query values that may be secrets left out.
TEST(AccessLogTest, KeepsOnlyHarmlessQueryValuesAndEscapesClientText) {
  for (const auto& [target, logged] :
       {std::pair{"/api/version", "/api/version"},
        {"/x?", "/x?"},
        {"/api/builds/b1/files?path=a%20b.pak", "/api/builds/b1/files?path=a%20b.pak"},
        {"/api/invites/redeem?code=abc&machine=pc", "/api/invites/redeem?code=-&machine=pc"},
        {"/api/sso/callback?state=s&code=c", "/api/sso/callback?state=-&code=-"},
        {"/api/claim?pin=1234&machine=x", "/api/claim?pin=-&machine=x"},
        {"/x?token=t&flag&=v&", "/x?token=-&flag&=-&"}}) {
    EXPECT_EQ(loggableTarget(target), logged) << target;
  }
  AccessEntry e{.client = "203.0.113.7",
                .user = "alice",
                .method = "GET",
                .target = "/a?code=secret",
                .status = 206,
                .bytes = 1048576,
                .userAgent = "evil\"\n127.0.0.1 - admin",
                .took = std::chrono::microseconds(4321),
                .when = 1795995924};  // 2026-11-29 23:45:24
  EXPECT_EQ(formatAccessLine(e),
            "203.0.113.7 - alice [29/Nov/2026:23:45:24 +0000] \"GET /a?code=- HTTP/1.1\" 206 "
            "1048576 \"-\" \"evil\\x22\\x0A127.0.0.1 - admin\" 0.004");
  e = AccessEntry{}, e.status = 400;  // a request whose head could not be read
  EXPECT_EQ(formatAccessLine(e).substr(0, 4), "- - ");
  EXPECT_NE(formatAccessLine(e).find("] \"-\" 400 0 \"-\" \"-\" 0.000"), std::string::npos);
}

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

}  // namespace
}  // namespace quill
