#include "app/command_line.h"

#include <gtest/gtest.h>

namespace quill {
namespace {

ParseOutcome parse(std::vector<std::string> args, Settings& s) { return parseCommandLine(args, s); }

TEST(CommandLine, OptionsAndWordsMixInAnyOrder) {
  Settings s;
  ASSERT_EQ(parse({"user", "--role", "admin", "create", "--data-dir", "/d", "alice", "--service"}, s),
            ParseOutcome::Proceed);
  EXPECT_EQ(s.words, (std::vector<std::string>{"user", "create", "alice"}));
  EXPECT_EQ(s.role, "admin");
  EXPECT_EQ(s.dataDir, "/d");
  EXPECT_TRUE(s.service);
}

TEST(CommandLine, Defaults) {
  Settings s;
  ASSERT_EQ(parse({}, s), ParseOutcome::Proceed);
  EXPECT_EQ(s.port, 8080);
  EXPECT_EQ(s.bind, "0.0.0.0");
  EXPECT_EQ(s.role, "member");
  EXPECT_TRUE(s.rateLimit);
  EXPECT_EQ(s.days, -1);
  EXPECT_EQ(s.hours, -1);
  EXPECT_EQ(s.keep, -1);
  EXPECT_TRUE(s.words.empty());
}

TEST(CommandLine, VersionAndDumpRoutesActWhenMet) {
  Settings s;
  EXPECT_EQ(parse({"--version", "extra", "--bogus"}, s), ParseOutcome::ShowVersion);
  EXPECT_EQ(parse({"version"}, s), ParseOutcome::ShowVersion);
  EXPECT_EQ(parse({"--dump-routes", ""}, s), ParseOutcome::DumpRoutes);
  EXPECT_EQ(parse({"--bogus", "--version"}, s), ParseOutcome::Usage);
  // A value option swallows the word "version" as its value.
  Settings t;
  EXPECT_EQ(parse({"--user", "version"}, t), ParseOutcome::Proceed);
  EXPECT_EQ(t.user, "version");
}

TEST(CommandLine, UsageErrors) {
  for (std::vector<std::string> args : std::vector<std::vector<std::string>>{
           {"--port"}, {""}, {"-x"}, {"--claimable", "--nope"}, {"--port", "80a"},
           {"--port", "70000"}, {"--port", "-1"}, {"--port", "0"}, {"--days", "two"},
           {"--hours", ""}, {"--keep", "3.5"}, {"--days", "99999999999"}}) {
    Settings s;
    EXPECT_EQ(parse(args, s), ParseOutcome::Usage) << args.front();
  }
}

TEST(CommandLine, ValueOptionConsumesDashWords) {
  Settings s;
  ASSERT_EQ(parse({"--claimpin", "-1234", "--days", "-3"}, s), ParseOutcome::Proceed);
  EXPECT_EQ(s.claimPin, "-1234");
  EXPECT_EQ(s.days, -3);
}

TEST(CommandLine, RateLimitOnlyOffTurnsItOff) {
  Settings s;
  parse({"--rate-limit", "no"}, s);
  EXPECT_TRUE(s.rateLimit);
  parse({"--rate-limit", "OFF"}, s);
  EXPECT_TRUE(s.rateLimit);
  parse({"--rate-limit", "off"}, s);
  EXPECT_FALSE(s.rateLimit);
}

TEST(CommandLine, BackupOptions) {
  Settings s;
  ASSERT_EQ(parse({"--endpoint", "http://127.0.0.1:9000", "--bucket", "b", "--access-key", "k",
                   "--secret-key", "s", "--region", "r", "--prefix", "p/", "--key", "f", "--from",
                   "x.json", "--keep", "7", "--port", "9090", "--bind", "127.0.0.1"},
                  s),
            ParseOutcome::Proceed);
  EXPECT_EQ(s.backup.endpoint, "http://127.0.0.1:9000");
  EXPECT_EQ(s.backup.bucket, "b");
  EXPECT_EQ(s.backup.accessKey, "k");
  EXPECT_EQ(s.backup.secretKey, "s");
  EXPECT_EQ(s.backup.region, "r");
  EXPECT_EQ(s.backup.prefix, "p/");
  EXPECT_EQ(s.backup.key, "f");
  EXPECT_EQ(s.backup.from, "x.json");
  EXPECT_EQ(s.keep, 7);
  EXPECT_EQ(s.port, 9090);
  EXPECT_EQ(s.bind, "127.0.0.1");
}

}  // namespace
}  // namespace quill
