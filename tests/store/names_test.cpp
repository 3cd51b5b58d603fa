// The store's text rules: names, relative paths, UTC time stamps and random text.

#include "store/names.h"

#include <gtest/gtest.h>

#include <ctime>
#include <limits>
#include <set>

#include "store/random.h"
#include "store/utc_time.h"

namespace quill::store {
namespace {

const std::string kNul("a\0b", 3);

void expectAll(bool (*rule)(std::string_view), bool expected,
               std::initializer_list<std::string> texts) {
  for (const std::string& text : texts) {
    EXPECT_EQ(rule(text), expected) << testing::PrintToString(text);
  }
}

TEST(Names, DeviceNamesValidNamesAndSafeRelativePaths) {
  expectAll(isReservedDeviceName, true, {"CON", "nul", "Com1.json", "lpt9.tar.gz", "PRN.", "aux"});
  expectAll(isReservedDeviceName, false,
            {"console", "COM0", "LPT10", "CON-1", ".con", "", "a.CON"});
  expectAll(isValidName, true,
            {"a", std::string(128, 'a'), "Build_2026-05.01", "...", ".hidden", "a..b"});
  expectAll(isValidName, false,
            {"", ".", "..", "con", "Con", "nul.json", "a b", "a/b", "a\\b", "a:b",
             "\xC3\xA9t\xC3\xA9", "a+b", std::string(129, 'a'), kNul});
  expectAll(isSafeRelativePath, true,
            {"bin/game.exe", "a", "Game Data/\xC3\xA9t\xC3\xA9.pak", "a.b/c..d/e", "dir/.hidden",
             "\xF0\x9F\x98\x80.png"});
  // Escapes, bad segments, bad bytes.
  expectAll(isSafeRelativePath, false,
            {"", "/bin/game.exe", "bin//game.exe", "bin/", "bin\\game.exe", "../game.exe",
             "bin/../x", "./x", "bin/.", "C:/x", "bin/aux.dll", "bin./x", "bin/x.", " bin/x"});
  expectAll(isSafeRelativePath, false,
            {"bin/x ", "a\"b", "a*b", "a<b", "a>b", "a?b", "a|b", "a\x1F", "a\x7F", "a\tb", kNul});
  // Strict UTF-8: over-long forms (NUL, "/", 4-byte), surrogates, above 10FFFF, a 5-byte lead,
  // a stray continuation, a sequence cut short, a bad continuation.
  expectAll(isSafeRelativePath, false,
            {"\xC0\x80", "\xE0\x80\xAF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
             "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "a\xBF", "\xE2\x82", "\xE2\x28\xA1"});
  // The smallest and largest value of each length, and both sides of the surrogate block.
  expectAll(isSafeRelativePath, true,
            {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
             "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"});
  // At most 32 segments, 1024 bytes, 255 bytes a segment (bytes, not letters).
  std::string deep = "a", accented = "x";
  for (int i = 1; i < 32; ++i) deep += "/a";
  for (int i = 0; i < 127; ++i) accented += "\xC3\xA9";
  const std::string seg(255, 'a');
  const std::string full = seg + "/" + seg + "/" + seg + "/" + std::string(254, 'a') + "/b";
  ASSERT_EQ(full.size(), 1024u);
  expectAll(isSafeRelativePath, true, {deep, full, accented});
  expectAll(isSafeRelativePath, false,
            {deep + "/a", full + "d", seg + "a", "dir/" + seg + "a", accented + "a"});
}

TEST(UtcTime, FormatParseAndNow) {
  for (const auto& [seconds, text] :
       {std::pair<std::int64_t, const char*>{0, "1970-01-01T00:00:00Z"},
        {-1, "1969-12-31T23:59:59Z"},
        {951782400, "2000-02-29T00:00:00Z"},
        {1777627800, "2026-05-01T09:30:00Z"}}) {
    EXPECT_EQ(formatUtc(seconds), text);
    EXPECT_EQ(parseUtc(text), seconds) << text;
  }
  EXPECT_EQ(formatUtc(std::numeric_limits<std::int64_t>::max()), "invalid");
  EXPECT_EQ(parseUtc("2026-05-01T09:30:00"), 1777627800);  // the zone is ignored
  EXPECT_NEAR(parseUtc(nowUtcText()).value(), std::time(nullptr), 5);
  // Six numbers are needed, and the int offsets of a calendar time must not overflow.
  for (const char* text :
       {"", "invalid", "2026-05-01", "2026-05-01T09:30", "2026/05/01T09:30:00",
        "2026-05-01 09:30:00Z", "-2147483648-01-01T00:00:00Z", "2026--2147483648-01T00:00:00Z"}) {
    EXPECT_EQ(parseUtc(text), std::nullopt) << text;
  }
}

TEST(RandomString, RequestedLengthOfAllSixtyTwoLettersAndDigitsOnly) {
  for (const std::size_t length : {0u, 1u, 48u}) EXPECT_EQ(randomString(length).size(), length);
  // With 20000 draws the chance that one of the 62 characters never appears is below 1e-130.
  const std::string drawn = randomString(20000);
  const std::string all = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  EXPECT_EQ(std::set<char>(drawn.begin(), drawn.end()), std::set<char>(all.begin(), all.end()));
}

}  // namespace
}  // namespace quill::store
