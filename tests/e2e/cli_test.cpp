// The command line of the real binary: version, route table, usage errors, dispatch.

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "e2e/e2e_support.h"
#include "support/process.h"

namespace quill::test {
namespace {

const std::string kUsage =
    "Usage: quillmoord [--port <port>] [--bind <address>] [--data-dir <path>] [--rill-only] "
    "[--rate-limit off] [--version] [--dump-routes]\n"
    "       quillmoord token create <name> [--user <user>] [--data-dir <path>]\n"
    "       quillmoord token list [--data-dir <path>]\n"
    "       quillmoord token delete <name> [--data-dir <path>]\n"
    "       quillmoord user create <name> [--role admin|member|publisher] [--channels <a,b>] "
    "[--service] [--data-dir <path>]\n"
    "       quillmoord user list [--data-dir <path>]\n"
    "       quillmoord invite create <user> [--days <N>] [--hours <N>] [--replace] "
    "[--data-dir <path>]\n"
    "       quillmoord backup init --endpoint <url> --bucket <name> --access-key <k> "
    "--secret-key <s> [--region <r>] [--key <key-file>] [--data-dir <path>]\n"
    "       quillmoord backup [--data-dir <path>]              encrypted snapshot -> bucket\n"
    "       quillmoord backup list [--data-dir <path>]\n"
    "       quillmoord backup prune --keep <N> [--data-dir <path>]\n"
    "       quillmoord backup schedule <HH:MM|off> [--keep <N>] [--data-dir <path>]\n"
    "       quillmoord restore <snapshot> --data-dir <empty-dir> --key <key-file|hex> "
    "(--from <backup.json> | --endpoint ... --bucket ... --access-key ... --secret-key ... "
    "[--prefix backups/])\n";

TEST(Cli, VersionActsWhenMet) {
  for (auto args : std::vector<std::vector<std::string>>{
           {"--version"}, {"version"}, {"--version", "extra", "words"}, {"--port", "1", "version"},
           {"--version", "--bogus"}}) {
    auto r = runProcess(kBinary, args);
    EXPECT_EQ(r.exitCode, 0);
    EXPECT_EQ(r.out, "0.7.10+g1b83633\n");
    EXPECT_EQ(r.err, "");
  }
}

TEST(Cli, DumpRoutesPrintsTheTableInOrder) {
  std::ifstream in(QUILL_SOURCE_DIR "/tests/e2e/routes.txt");
  std::stringstream expected;
  expected << in.rdbuf();
  auto r = runProcess(kBinary, {"--dump-routes"});
  EXPECT_EQ(r.exitCode, 0);
  EXPECT_EQ(r.out, expected.str());
  EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 65);
}

TEST(Cli, BadArgumentsPrintTheUsageExactly) {
  for (auto args : std::vector<std::vector<std::string>>{
           {"--bogus", "--version"}, {"--port"}, {""}, {"-h"}, {"--port", "abc"},
           {"--port", "99999"}, {"--days", "x"}, {"--hours", "1h"}, {"--keep", "many"},
           {"user", "create", "alice", "--role"}}) {
    auto r = runProcess(kBinary, args);
    EXPECT_EQ(r.exitCode, 1) << args.front();
    EXPECT_EQ(r.err, kUsage) << args.front();
    EXPECT_EQ(r.out, "");
  }
}

TEST(Cli, WordsMustFormAKnownCommand) {
  for (auto args : std::vector<std::vector<std::string>>{
           {"user", "create"}, {"user"}, {"token", "list", "extra"}, {"frobnicate"},
           {"backup", "schedule"}, {"restore"}}) {
    auto r = runProcess(kBinary, args);
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "unknown command\n");
    EXPECT_EQ(r.out, "");
  }
}

}  // namespace
}  // namespace quill::test
