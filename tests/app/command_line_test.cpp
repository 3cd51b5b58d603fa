#include "app/command_line.h"

#include <gtest/gtest.h>

#include <string_view>

namespace quill {
namespace {

ParseOutcome parse(std::vector<std::string> args, CommandLine& s) {
  return parseCommandLine(args, s);
}

TEST(CommandLine, OptionsAndWordsMixInAnyOrder) {
  CommandLine s;
  ASSERT_EQ(parse({"user",         "--role",    "admin",        "create", "--data-dir", "/d",
                   "alice",        "--service", "--claimpin",   "-1234",  "--days",     "-3",
                   "--access-key", "k",         "--secret-key", "s",      "--keep",     "7",
                   "--port",       "9090",      "--rate-limit", "OFF"},
                  s),
            ParseOutcome::Proceed);
  EXPECT_EQ(s.command.words, (std::vector<std::string>{"user", "create", "alice"}));
  EXPECT_EQ(s.command.role, "admin");
  EXPECT_EQ(s.server.dataDir, "/d");
  EXPECT_TRUE(s.command.service);
  // A value option takes the next word even when it starts with a dash.
  EXPECT_EQ(s.server.claimPin, "-1234");
  EXPECT_EQ(s.command.days, -3);
  EXPECT_EQ(s.command.backup.bucket.accessKey + s.command.backup.bucket.secretKey, "ks");
  EXPECT_EQ(s.command.backup.keep, 7);
  EXPECT_EQ(s.server.port, 9090);
  EXPECT_TRUE(s.server.rateLimit) << "only the exact word off turns rate limiting off";
  parse({"--rate-limit", "off"}, s);
  EXPECT_FALSE(s.server.rateLimit);
}

TEST(CommandLine, VersionAndDumpRoutesActWhenMet) {
  CommandLine s;
  EXPECT_EQ(parse({"--version", "extra", "--bogus"}, s), ParseOutcome::ShowVersion);
  EXPECT_EQ(parse({"version"}, s), ParseOutcome::ShowVersion);
  EXPECT_EQ(parse({"--dump-routes", ""}, s), ParseOutcome::DumpRoutes);
  EXPECT_EQ(parse({"--bogus", "--version"}, s), ParseOutcome::Usage);
  // A value option swallows the word "version" as its value.
  CommandLine t;
  EXPECT_EQ(parse({"--user", "version"}, t), ParseOutcome::Proceed);
  EXPECT_EQ(t.command.user, "version");
}

TEST(CommandLine, UsageErrors) {
  // Words split at each space, so "--hours " ends in an empty word.
  for (std::string_view line :
       {"--port", "", "-x", "--claimable --nope", "--port 80a", "--port 70000", "--port 0",
        "--hours ", "--keep 3.5", "--days 99999999999"}) {
    std::vector<std::string> args(1);
    for (char c : line) c == ' ' ? (void)args.emplace_back() : args.back().push_back(c);
    CommandLine s;
    EXPECT_EQ(parse(args, s), ParseOutcome::Usage) << line;
  }
}

}  // namespace
}  // namespace quill
