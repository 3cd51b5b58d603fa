// The command line of the real binary: version, route table, usage errors, dispatch.

#include <algorithm>
#include <fstream>

#include "e2e/e2e_support.h"

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

TEST(Cli, VersionUsageAndDispatch) {
  std::ifstream in(QUILL_SOURCE_DIR "/tests/e2e/routes.txt");
  const std::string routes{std::istreambuf_iterator<char>(in), {}};
  EXPECT_EQ(std::count(routes.begin(), routes.end(), '\n'), 65);
  using Args = std::vector<std::string>;
  const struct {
    std::vector<Args> args;
    int code;
    std::string out, err;
  } cases[] = {
      {{{"--version"}, {"version"}, {"--version", "extra", "words"}, {"--port", "1", "version"},
        {"--version", "--bogus"}},
       0, "0.7.10+g1b83633\n", ""},
      {{{"--dump-routes"}}, 0, routes, ""},
      {{{"--bogus", "--version"}, {"--port"}, {""}, {"-h"}, {"--port", "abc"}, {"--port", "99999"},
        {"--days", "x"}, {"--hours", "1h"}, {"--keep", "many"}, {"user", "create", "a", "--role"}},
       1, "", kUsage},
      {{{"user", "create"}, {"user"}, {"token", "list", "extra"}, {"frobnicate"},
        {"backup", "schedule"}, {"restore"}},
       1, "", "unknown command\n"},
  };
  for (const auto& c : cases) {
    for (const Args& args : c.args) {
      const auto r = runProcess(kBinary, args);
      EXPECT_EQ(r.exitCode, c.code) << args.front();
      EXPECT_EQ(r.out, c.out) << args.front();
      EXPECT_EQ(r.err, c.err) << args.front();
    }
  }
}

}  // namespace
}  // namespace quill::test
