// The real programs as an operator starts them: quillmoord's version, route table, usage errors,
// dispatch, banners, first admin and default data directory; quillmoor-rill's refusals.

#include <cstdlib>
#include <fstream>

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

// Waits for the banner, then for anything printed after it.
void expectBanner(ServerProcess& server, const std::string& mode, const std::string& dir,
                  const std::string& hint) {
  const std::string expected = "quillmoord 0.7.10+g1b83633\n  listening on http://127.0.0.1:" +
                               std::to_string(server.port()) + mode + "\n  data dir: " + dir +
                               "\n" + hint;
  eventually([&] { return server.output().size() >= expected.size(); });
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(server.output(), expected);
}

TEST(StartUp, BannersTheClaimOfflineCommandsAndTheDefaultDataDirectory) {
  TempDir tmp;
  const std::string dir = (tmp.path() / "nested" / "data").string();
  Served fresh({"--claimable", "--claimpin", "1234"}, dir);
  ASSERT_TRUE(fresh.up);
  expectBanner(*fresh.server, "", dir,
               std::regex_replace(R"(
  No tokens exist yet - every request will be rejected with 401.
  Mint your first (admin) token with:

    quillmoord user create <name> --role admin --data-dir DIR
    quillmoord token create <token-name> --user <name> --data-dir DIR

  Configure clients with:  quillmoor config set token <token>

)",
                                  std::regex("DIR"), dir));
  for (const char* sub :
       {"users", "tokens", "channels", "groups", "invites", "access-requests", "builds"}) {
    EXPECT_TRUE(fs::is_directory(fs::path(dir) / sub)) << sub;
  }
  Client& client = fresh.client;  // the claim, enabled on the command line
  const auto me = [&](const std::string& token) {
    return client.fetch("GET", fresh.url("/api/me"), "", bearer(token)).body;
  };
  const auto claimed = client.fetch("POST", fresh.url("/api/claim?pin=1234"));
  EXPECT_EQ(me(parseJson(claimed.body)["token"].asString()),
            R"({"channels":[],"groups":[],"name":"admin","role":"admin","schema_version":1})");
  // Offline commands beside the running server take effect at its next request.
  const std::string token = offlineAdminToken(dir);
  EXPECT_EQ(parseJson(me(token))["name"], "ci");
  EXPECT_EQ(runProcess(kBinary, {"token", "delete", "ci", "--data-dir", dir}).exitCode, 0);
  EXPECT_EQ(me(token), R"({"error":"missing or invalid token"})");

  // Where a token exists there is no hint; a document write a crash left before start-up is swept.
  const fs::path leftover = fs::path(dir) / "users" / "admin.json.AbCdEfGh1234.tmp";
  std::ofstream(leftover) << "{";
  fs::last_write_time(leftover, fs::file_time_type::clock::now() - std::chrono::hours(1));
  fresh.server.reset();
  fresh.server = std::make_unique<ServerProcess>(kBinary, Args{"--data-dir", dir, "--rill-only"});
  ASSERT_TRUE(fresh.server->waitUntilListening());
  expectBanner(*fresh.server, "  (Rill-only)", dir, "");
  EXPECT_FALSE(fs::exists(leftover));

  ::setenv("LOCALAPPDATA", tmp.path().c_str(), 1);
  ServerProcess byDefault(kBinary, {});
  ::unsetenv("LOCALAPPDATA");
  ASSERT_TRUE(byDefault.waitUntilListening());
  EXPECT_TRUE(fs::is_directory(tmp.path() / "Quillmoor" / "quillmoord-data" / "users"));
}

}  // namespace
}  // namespace quill::test
