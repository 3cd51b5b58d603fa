// The command lines of the real programs: quillmoord's version, route table, usage errors and
// dispatch, and quillmoor-rill's refusals.

#include "app/command_line.h"
#include "e2e/e2e_support.h"

namespace quill::test {
namespace {

TEST(Cli, TheServerPrintsItsVersionRoutesAndUsageAndDispatches) {
  const std::string routes = readFile(QUILL_SOURCE_DIR "/tests/e2e/routes.txt");
  EXPECT_EQ(std::count(routes.begin(), routes.end(), '\n'), 65);
  // clang-format off
  const std::tuple<std::vector<Args>, int, std::string, std::string> cases[] = {
      {{{"--version"}, {"version"}, {"--version", "extra"}, {"--port", "1", "version"},
        {"--version", "--bogus"}}, 0, "0.7.10+g1b83633\n", ""},
      {{{"--dump-routes"}}, 0, routes, ""},
      {{{"--bogus", "--version"}, {"--port"}, {""}, {"-h"}, {"--port", "abc"}, {"--port", "99999"},
        {"--days", "x"}, {"--hours", "1h"}, {"--keep", "many"}, {"user", "create", "a", "--role"}},
       1, "", usageText()},
      {{{"user", "create"}, {"user"}, {"token", "list", "extra"}, {"frobnicate"},
        {"backup", "schedule"}, {"restore"}}, 1, "", "unknown command\n"}};
  // clang-format on
  for (const auto& [argsList, code, out, err] : cases) {
    for (const Args& args : argsList) {
      const auto r = runProcess(kBinary, args);
      EXPECT_EQ(std::tie(r.exitCode, r.out, r.err), std::tie(code, out, err)) << args[0];
    }
  }
}

TEST(Cli, TheToolRefusesBadCommandLines) {
  EXPECT_EQ(runProcess(kTool, {"publish", "--help"}).exitCode, 0);
  const std::string closed = "http://127.0.0.1:" + std::to_string(freePort());
  // clang-format off
  const std::pair<Args, std::string> cases[] = {
      {{}, "a command is required: publish, pull or keygen\n"},
      {{"push"}, "unknown command 'push'\n"},
      {{"publish", "dir"}, "--channel is required\n"},
      {{"publish", "dir", "--channel", "bad name"}, "invalid channel name\n"},
      {{"publish", "dir", "--channel", "c", "--endpoint"}, "--endpoint needs a value\n"},
      {{"pull", "c", "dir", "--wat"}, "unknown option --wat\n"},
      {{"publish", "d", "--channel", "c", "--endpoint", "ftp://x", "--bucket", "b", "--access-key",
        "a", "--secret-key", "s"},
       "endpoint must start with https:// (or http:// for a local test server)\n"},
      {{"pull", "c", "dir", "--server", closed}, "cannot reach server: curl: "}};
  // clang-format on
  for (const auto& [args, err] : cases) {
    const auto r = runProcess(kTool, args);
    EXPECT_EQ(std::make_pair(r.exitCode, r.err.substr(0, err.size())), std::make_pair(1, err));
  }
}

}  // namespace
}  // namespace quill::test
