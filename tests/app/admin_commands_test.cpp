// The command line, and the offline commands run in-process from it: exact output on the right
// stream, exit status, the records they write, and an untouched data directory on a refusal.

#include <gtest/gtest.h>

#include <ctime>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

#include "app/command_line.h"
#include "app/commands.h"
#include "handler/context.h"
#include "store/documents.h"
#include "store/tokens.h"
#include "store/users.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"

namespace quill {
namespace {

namespace fs = std::filesystem;
using Words = std::vector<std::string>;

// Words split at each space ("\s" is a space inside a word, '' an empty word).
Words words(const std::string& line) {
  Words args;
  std::istringstream in(line);
  for (std::string word; in >> word;) {
    std::string spaced;  // appended, not replaced in place: GCC 12 at -O3 misjudges replace()
    for (std::size_t i = 0; i < word.size(); ++i) {
      const bool escape = word.compare(i, 2, "\\s") == 0;
      spaced += escape ? ' ' : word[i];
      i += escape ? 1 : 0;
    }
    args.push_back(spaced == "''" ? "" : spaced);
  }
  return args;
}

Json::Value take(Json::Value& doc, const char* member) {
  Json::Value value;
  doc.removeMember(member, &value);
  return value;
}

// The lines of `text` in sorted order; an unfinished last line is left out.
std::multiset<std::string> lines(const std::string& text) {
  std::multiset<std::string> all;
  for (std::size_t at = 0, end; (end = text.find('\n', at)) != std::string::npos; at = end + 1) {
    all.insert(text.substr(at, end - at));
  }
  return all;
}

TEST(CommandLine, OptionsAndWordsMixInAnyOrderAndVersionActsWhenMet) {
  CommandLine s;
  ASSERT_EQ(parseCommandLine(words("user --role admin create --data-dir /d alice --service "
                                   "--claimpin -1234 --days -3 --access-key k --secret-key s "
                                   "--keep 7 --port 9090 --rate-limit OFF"),
                             s),
            ParseOutcome::Proceed);
  // A value option takes the next word even when it starts with a dash.
  EXPECT_EQ(std::tie(s.command.words, s.command.role, s.server.dataDir, s.command.service,
                     s.server.claimPin, s.command.days, s.command.backup.keep, s.server.port),
            std::make_tuple(Words{"user", "create", "alice"}, "admin", fs::path("/d"), true,
                            "-1234", -3, 7, 9090));
  EXPECT_EQ(s.command.backup.bucket.accessKey + s.command.backup.bucket.secretKey, "ks");
  EXPECT_TRUE(s.server.rateLimit) << "only the exact word off turns rate limiting off";
  parseCommandLine(words("--rate-limit off"), s);
  EXPECT_FALSE(s.server.rateLimit);
  EXPECT_EQ(parseCommandLine(words("--version extra --bogus"), s), ParseOutcome::ShowVersion);
  EXPECT_EQ(parseCommandLine(words("version"), s), ParseOutcome::ShowVersion);
  EXPECT_EQ(parseCommandLine(words("--dump-routes ''"), s), ParseOutcome::DumpRoutes);
  for (const char* line :
       {"--bogus --version", "--port", "''", "-x", "--claimable --nope", "--port 80a",
        "--port 70000", "--port 0", "--hours ''", "--keep 3.5", "--days 99999999999"}) {
    CommandLine t;
    EXPECT_EQ(parseCommandLine(words(line), t), ParseOutcome::Usage) << line;
  }
  // A value option swallows the word "version" as its value.
  EXPECT_EQ(parseCommandLine(words("--user version"), s), ParseOutcome::Proceed);
  EXPECT_EQ(s.command.user, "version");
}

const std::regex kTokenOutput(
    "Token '([^']*)' created for user '([^']*)'\\. Save it now - it is shown only once:\n\n"
    "  ([A-Za-z0-9]{48})\n");
const std::regex kInviteOutput(
    "Invite for user 'u' created, valid until "
    "([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z)\\. Single use, shown only once:\n\n"
    "  ([A-Za-z0-9]{24})\n");

class AdminCommands : public test::ApiTest {
 protected:
  // The stored record less its creation time, which must be there.
  Json::Value stored(const fs::path& path) {
    Json::Value doc = readDoc(path);
    EXPECT_TRUE(take(doc, "created_at").isString()) << path;
    return doc;
  }
  // Runs a command line: its exit status, output and error output.
  std::tuple<int, std::string, std::string> run(const std::string& line) {
    CommandLine parsed;
    EXPECT_EQ(parseCommandLine(words(line), parsed), ParseOutcome::Proceed) << line;
    parsed.server.dataDir = data().root();
    Context ctx(parsed.server);
    std::ostringstream out, err;
    const int code = runCommand(ctx, parsed.command, out, err);
    return {code, out.str(), err.str()};
  }
  // A command that must succeed quietly on standard error; returns its output.
  std::string ok(const std::string& line) {
    const auto [code, out, err] = run(line);
    EXPECT_EQ(std::tie(code, err), std::make_tuple(0, std::string())) << line;
    return out;
  }
  // Creates a token and returns its secret.
  std::string mintToken(const std::string& line) {
    const std::string out = ok(line);
    std::smatch m;
    EXPECT_TRUE(std::regex_match(out, m, kTokenOutput)) << out;
    return m[3];
  }
  // Every file and directory under the data directory with its bytes.
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> entries;
    for (const auto& entry : fs::recursive_directory_iterator(data().root())) {
      entries[entry.path().string()] =
          entry.is_directory() ? "<dir>" : test::readBytes(entry.path());
    }
    return entries;
  }
  std::vector<fs::path> invitesFor(const std::string& user) const {
    std::vector<fs::path> found;
    for (auto& [path, doc] : store::listJsonDir(data().invites())) {
      if (store::textOf(doc, "user") == user) found.push_back(path);
    }
    return found;
  }
  // Runs `invite create u ...`, checks the output, the record and the lifetime; returns the code.
  std::string expectInvite(const std::string& options, std::int64_t lifetime) {
    SCOPED_TRACE(options);
    const std::int64_t before = std::time(nullptr);
    const std::string out = ok("invite create u " + options);
    const std::int64_t after = std::time(nullptr);
    std::smatch m;
    EXPECT_TRUE(std::regex_match(out, m, kInviteOutput)) << out;
    Json::Value doc = stored(invitePath(m[2]));
    EXPECT_TRUE(std::regex_match(take(doc, "id").asString(), std::regex("[A-Za-z0-9]{8}")));
    const std::int64_t expires = take(doc, "expires_epoch").asInt64();
    EXPECT_EQ(doc, test::parseJson(R"({"groups":[],"schema_version":1,"user":"u"})"));
    EXPECT_GE(expires, before + lifetime);
    EXPECT_LE(expires, after + lifetime);
    EXPECT_EQ(m[1], store::formatUtc(expires));
    EXPECT_EQ(test::readBytes(invitePath(m[2])).find(m[2]), std::string::npos);
    return m[2];
  }
};

TEST_F(AdminCommands, UserCreatePrintsOneOfFourTextsAndWritesTheRecord) {
  writeChannel("a"), writeChannel("b");
  const std::string give = "Give them access with:\n  quillmoord token create <token-name> --user ";
  const std::string base = R"("groups":[],"schema_version":1,"name":)";
  // --service alone makes a publisher with no channels; with channels they are kept.
  const std::tuple<std::string, std::string, std::string> rows[] = {
      {"alice --role admin", "User 'alice' created (role: admin). " + give + "alice\n",
       R"("alice","role":"admin")"},
      {"mo", "User 'mo' created (role: member). " + give + "mo\n", R"("mo","role":"member")"},
      {"pub --role publisher --channels b,a",
       "User 'pub' created (role: publisher; may promote to: b,a).\n" + give + "pub\n",
       R"("pub","role":"publisher","channels":["b","a"])"},
      {"bare --role publisher",
       "User 'bare' created (role: publisher; may promote to: (no channels)).\n" + give + "bare\n",
       R"("bare","role":"publisher","channels":[])"},
      {"ci --role member --service",
       "Service account 'ci' created (role: publisher; tokens only, cannot be invited or "
       "promoted).\nGive your CI access with:\n  quillmoord token create <token-name> --user ci\n",
       R"("ci","role":"publisher","channels":[],"service":true)"},
      {"ci2 --role publisher --channels a --service", "",
       R"("ci2","role":"publisher","channels":["a"],"service":true)"}};
  for (const auto& [args, output, doc] : rows) {
    const std::string out = ok("user create " + args);
    EXPECT_EQ(out, output.empty() ? out : output);
    EXPECT_EQ(stored(userPath(args.substr(0, args.find(' ')))),
              test::parseJson("{" + base + doc + "}"))
        << args;
  }
}

// Each refusal fails with its message on standard error alone, exit 1, and writes nothing. Where
// two checks could both fire, the row says which comes first.
TEST_F(AdminCommands, RefusalsComeInOrderAndWriteNothing) {
  writeChannel("a"), writeChannel("b");
  // The invite is there so that a refused --replace can be seen to keep it.
  for (const char* line :
       {"user create taken", "user create u", "token create used", "invite create u"})
    ok(line);
  const std::string roles = "--role must be admin, member or publisher";
  const std::string onlyPublisher = "--channels only applies to --role publisher";
  const std::pair<std::string, std::string> rows[] = {
      {"user create bad\\sname --role owner", "invalid user name"},
      {"user create " + std::string(129, 'u'), "invalid user name"},
      {"user create x --role root --channels a", roles},
      {"user create x --role Admin", roles},
      {"user create x --role admin --channels a", onlyPublisher},
      {"user create x --role member --channels a --service", onlyPublisher},
      {"user create p --role publisher --channels a,c",
       "channel 'c' is not declared on this server"},
      {"user create p --role publisher --channels a,,a", "invalid channel name in --channels"},
      {"user create taken --role publisher --channels zz",
       "channel 'zz' is not declared on this server"},
      {"user create taken --role admin --service", "user 'taken' already exists"},
      {"user create x --role admin --service", "--service accounts always have role publisher"},
      {"token create bad\\sname --user bad\\suser", "invalid token name"},
      {"token create used --user bad\\suser", "token 'used' already exists"},
      {"token create fresh --user a/b", "invalid user name"},
      {"token delete never", "no token named 'never'"},
      // A name that is no name never reaches the file system, not even a user's record.
      {"token delete ../users/u", "invalid token name"},
      {"invite create prn", "invalid user name"},
      {"invite create ghost --days 1 --hours 1", "user 'ghost' does not exist"},
      {"invite create u --days 1 --hours 1 --replace", "use --days or --hours, not both"},
      {"invite create u --days 0 --hours 0", "use --days or --hours, not both"},
      {"invite create u --days 0 --replace", "--days must be 1..3650"},
      {"invite create u --days 3651", "--days must be 1..3650"},
      {"invite create u --hours 0 --replace", "--hours must be 1..87600"},
      {"invite create u --hours 87601", "--hours must be 1..87600"},
  };
  for (const auto& [line, message] : rows) {
    const auto before = snapshot();
    EXPECT_EQ(run(line), std::make_tuple(1, std::string(), message + "\n")) << line;
    EXPECT_EQ(snapshot(), before) << line;
  }
}

TEST_F(AdminCommands, ListsTokensAndTheirRevocation) {
  EXPECT_EQ(ok("user list") + ok("token list"), "");
  writeChannel("a"), writeChannel("b");
  ok("user create alice --role admin");
  ok("user create pub --role publisher --channels a,b");
  ok("user create ship --service");
  writeText(data().users() / "broken.json", "{ not json");
  writeText(data().users() / "notes.txt", R"({"name":"notes","role":"admin"})");
  writeText(data().tokens() / "README.txt", "not a token");
  const std::string alpha = mintToken("token create alpha --user alice");
  mintToken("token create beta --user alice");
  // One line per readable record, in no set order; no secret is ever listed.
  EXPECT_EQ(lines(ok("user list")),
            (std::multiset<std::string>{"alice (admin)", "ship (publisher: (no channels))",
                                        "pub (publisher: a,b)"}));
  const std::string tokens = ok("token list");
  EXPECT_EQ(lines(tokens), (std::multiset<std::string>{"alpha", "beta"}));
  EXPECT_EQ(tokens.find(alpha), std::string::npos);
  // Without --user: a member named like the token, holding its hash and never its secret.
  const std::string secret = mintToken("token create ci-bot");
  EXPECT_EQ(stored(userPath("ci-bot")),
            test::parseJson(R"({"groups":[],"name":"ci-bot","role":"member","schema_version":1})"));
  EXPECT_EQ(
      stored(tokenPath("ci-bot")),
      test::parseJson(R"({"name":"ci-bot","schema_version":1,"user":"ci-bot","token_hash":")" +
                      store::hashToken(secret) + "\"}"));
  EXPECT_EQ(test::readBytes(tokenPath("ci-bot")).find(secret), std::string::npos);
  EXPECT_EQ((*store::resolveToken(data(), secret))["name"], "ci-bot");
  // An existing owner is left untouched; deleting a token revokes it at once.
  const std::string ship = test::readBytes(userPath("ship"));
  const std::string laptop = mintToken("token create laptop --user ship");
  EXPECT_EQ(test::readBytes(userPath("ship")), ship);
  EXPECT_FALSE(fs::exists(userPath("laptop")));
  EXPECT_EQ((*store::resolveToken(data(), laptop))["role"], "publisher");
  EXPECT_EQ(ok("token delete laptop"), "Token 'laptop' deleted - access revoked immediately.\n");
  EXPECT_FALSE(store::resolveToken(data(), laptop).has_value());
  EXPECT_TRUE(fs::exists(userPath("ship")));
}

TEST_F(AdminCommands, InviteLifetimeTwiceAndReplace) {
  ok("user create u");
  fs::remove_all(data().invites());
  // Negative means not given; the first also creates the missing invites directory.
  const std::string first = expectInvite("", 7 * 86400);
  expectInvite("--days 3650", 3650LL * 86400);
  expectInvite("--days -7 --hours 87600", 87600LL * 3600);
  expectInvite("--days 2 --hours -5", 2 * 86400);
  EXPECT_NE(first, expectInvite("", 7 * 86400));
  EXPECT_EQ(invitesFor("u").size(), 5u);
  ok("user create v");
  ok("invite create v");
  writeText(data().invites() / "torn.json", R"({"user": "u", )");
  // --replace keeps only the newest of that user's invites.
  const std::string newest = expectInvite("--replace", 7 * 86400);
  EXPECT_EQ(invitesFor("u"), (std::vector{invitePath(newest)}));
  EXPECT_EQ(invitesFor("v").size(), 1u);
  EXPECT_TRUE(fs::exists(data().invites() / "torn.json"));
  // A file where the directory belongs: the record cannot be stored.
  for (const fs::path& where : {data().invites(), data().tokens()}) {
    fs::remove_all(where), writeText(where, "x");
  }
  for (const char* line :
       {"invite create u", "invite create u --replace", "token create laptop --user u"}) {
    const std::string err = line[0] == 't' ? "could not store token\n" : "could not store invite\n";
    EXPECT_EQ(run(line), std::make_tuple(1, std::string(), err)) << line;
  }
}

}  // namespace
}  // namespace quill
