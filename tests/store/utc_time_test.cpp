#include "store/utc_time.h"

#include <gtest/gtest.h>

#include <ctime>
#include <cstdint>
#include <cstdlib>
#include <limits>

namespace quill::store {
namespace {

TEST(UtcTime, FormatAndParseRoundTrip) {
  const std::pair<std::int64_t, const char*> known[] = {{0, "1970-01-01T00:00:00Z"},
                                                        {-1, "1969-12-31T23:59:59Z"},
                                                        {951782400, "2000-02-29T00:00:00Z"},
                                                        {1777627800, "2026-05-01T09:30:00Z"}};
  for (const auto& [seconds, text] : known) {
    EXPECT_EQ(formatUtc(seconds), text);
    EXPECT_EQ(parseUtc(text), seconds) << text;
  }
  EXPECT_EQ(formatUtc(std::numeric_limits<std::int64_t>::max()), "invalid");
  const auto now = parseUtc(nowUtcText());
  ASSERT_TRUE(now.has_value());
  EXPECT_LE(std::abs(*now - static_cast<std::int64_t>(std::time(nullptr))), 5);
}

TEST(UtcTime, ParseIgnoresTheZoneButNeedsSixNumbers) {
  EXPECT_EQ(parseUtc("2026-05-01T09:30:00"), 1777627800);
  for (const char* text : {"", "invalid", "2026-05-01", "2026-05-01T09:30", "2026/05/01T09:30:00",
                           "2026-05-01 09:30:00Z",
                           // the int offsets of a calendar time must not overflow
                           "-2147483648-01-01T00:00:00Z", "2026--2147483648-01T00:00:00Z"}) {
    EXPECT_EQ(parseUtc(text), std::nullopt) << text;
  }
}

}  // namespace
}  // namespace quill::store
