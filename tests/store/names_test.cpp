#include "store/names.h"

#include <gtest/gtest.h>

#include <string>

namespace quill::store {
namespace {

using testing::PrintToString;
using Strings = std::initializer_list<std::string>;

TEST(Names, ReservedDeviceNamesMatchTheStemCaseInsensitively) {
  for (const char* name : {"CON", "nul", "Com1.json", "lpt9.tar.gz", "PRN.", "aux"}) {
    EXPECT_TRUE(isReservedDeviceName(name)) << name;
  }
  for (const char* name : {"console", "COM0", "LPT10", "CON-1", ".con", "", "a.CON"}) {
    EXPECT_FALSE(isReservedDeviceName(name)) << name;
  }
}

TEST(Names, ValidNameRule) {
  const Strings valid = {"a", std::string(128, 'a'), "Build_2026-05.01", "...", ".hidden", "a..b"};
  for (const std::string& name : valid) EXPECT_TRUE(isValidName(name)) << name;

  const Strings invalid = {
      "",   ".", "..", "con", "Con", "nul.json", "a b", "a/b", "a\\b", "a:b", "\xC3\xA9t\xC3\xA9",
      "a+b"};
  for (const std::string& name : invalid) EXPECT_FALSE(isValidName(name)) << PrintToString(name);
  EXPECT_FALSE(isValidName(std::string(129, 'a')));
  EXPECT_FALSE(isValidName(std::string("a\0b", 3)));
}

TEST(Names, SafeRelativePathAcceptsOrdinaryPathsAndRefusesEscapesAndBadSegments) {
  for (const char* path : {"bin/game.exe", "a", "Game Data/\xC3\xA9t\xC3\xA9.pak", "a.b/c..d/e",
                           "dir/.hidden", "\xF0\x9F\x98\x80.png"}) {
    EXPECT_TRUE(isSafeRelativePath(path)) << path;
  }
  const Strings escapes = {
      "",         "/bin/game.exe", "bin//game.exe", "bin/", "bin\\game.exe", "../game.exe",
      "bin/../x", "./x",           "bin/.",         "C:/x"};
  const Strings badSegments = {"bin/aux.dll", "bin./x", "bin/x.", " bin/x", "bin/x "};
  const Strings badBytes = {"a\"b", "a*b",   "a<b",   "a>b",  "a?b",
                            "a|b",  "a\x1F", "a\x7F", "a\tb", std::string("a\0b", 3)};
  for (const Strings& list : {escapes, badSegments, badBytes}) {
    for (const std::string& path : list) {
      EXPECT_FALSE(isSafeRelativePath(path)) << PrintToString(path);
    }
  }
}

TEST(Names, SafeRelativePathLimitsCountBytesAndSegments) {
  std::string thirtyTwo = "a";
  for (int i = 1; i < 32; ++i) thirtyTwo += "/a";
  EXPECT_TRUE(isSafeRelativePath(thirtyTwo));
  EXPECT_FALSE(isSafeRelativePath(thirtyTwo + "/a"));

  // 255 + 255 + 255 + 254 + 1 bytes and four slashes make 1024; a file name holds at most 255.
  const std::string longest = std::string(255, 'a');
  const std::string full =
      longest + "/" + longest + "/" + longest + "/" + std::string(254, 'a') + "/b";
  ASSERT_EQ(full.size(), 1024u);
  EXPECT_TRUE(isSafeRelativePath(full));
  EXPECT_FALSE(isSafeRelativePath(full + "d"));
  EXPECT_FALSE(isSafeRelativePath(longest + "a"));
  EXPECT_FALSE(isSafeRelativePath("dir/" + longest + "a"));
  std::string wide = "x";  // 127 two-byte letters after one byte: a 255-byte segment
  for (int i = 0; i < 127; ++i) wide += "\xC3\xA9";
  EXPECT_TRUE(isSafeRelativePath(wide));
  EXPECT_FALSE(isSafeRelativePath(wide + "a"));
}

TEST(Names, SafeRelativePathRequiresStrictUtf8) {
  for (const char* path : {
           "\xC0\x80",              // over-long NUL
           "\xE0\x80\xAF",          // over-long "/" in three bytes
           "\xF0\x8F\xBF\xBF",      // over-long 4-byte
           "\xED\xA0\x80",          // surrogate D800
           "\xED\xBF\xBF",          // surrogate DFFF
           "\xF4\x90\x80\x80",      // above 10FFFF
           "\xF8\x88\x80\x80\x80",  // 5-byte lead
           "a\xBF",                 // continuation without a lead
           "\xE2\x82",              // runs past the end
           "\xE2\x28\xA1",          // bad continuation
       }) {
    EXPECT_FALSE(isSafeRelativePath(path)) << PrintToString(std::string(path));
  }
  // The smallest and largest value of each length, and both sides of the surrogate block.
  for (const char* path : {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
                           "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(isSafeRelativePath(path)) << PrintToString(std::string(path));
  }
}

}  // namespace
}  // namespace quill::store
