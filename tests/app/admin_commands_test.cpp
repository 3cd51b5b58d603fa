// The offline commands, run in-process from their command lines: exact output on the right
// stream, exit status, the records they write, and an untouched data directory whenever one
// refuses.

#include <gtest/gtest.h>
#include <json/value.h>

#include <ctime>
#include <fstream>
#include <map>
#include <regex>
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

struct Outcome {
  int code = -1;
  std::string out, err;
};

const std::regex kTokenOutput(
    "Token '([^']*)' created for user '([^']*)'\\. Save it now - it is shown only once:\n\n"
    "  ([A-Za-z0-9]{48})\n");
const std::regex kInviteOutput(
    "Invite for user '([^']*)' created, valid until "
    "([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z)\\. Single use, shown only once:\n\n"
    "  ([A-Za-z0-9]{24})\n");

void writeFile(const fs::path& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

Words sortedLines(const std::string& text) {
  Words lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

class AdminCommands : public test::TempDirTest {
 protected:
  fs::path root() const { return dir() / "data"; }
  store::DataDir data() const { return store::DataDir(root()); }
  fs::path record(const fs::path& in, const std::string& name) const {
    return store::DataDir::recordPath(in, name);
  }
  Json::Value read(const fs::path& in, const std::string& name) const {
    Json::Value doc;
    EXPECT_TRUE(store::readJsonFile(record(in, name), doc)) << name;
    return doc;
  }

  // Runs a command line (words split on spaces; "\s" is a space inside a word).
  Outcome run(const std::string& line) {
    Words args;
    std::istringstream in(line);
    for (std::string word; in >> word;) {
      for (std::size_t at; (at = word.find("\\s")) != std::string::npos;) {
        word[at] = ' ';
        word.erase(at + 1, 1);
      }
      args.push_back(word == "''" ? "" : word);
    }
    CommandLine parsed;
    EXPECT_EQ(parseCommandLine(args, parsed), ParseOutcome::Proceed) << line;
    parsed.server.dataDir = root();
    Context ctx(parsed.server);
    std::ostringstream out, err;
    const int code = runCommand(ctx, parsed.command, out, err);
    return {code, out.str(), err.str()};
  }
  // A command that must succeed quietly on standard error; returns its output.
  std::string ok(const std::string& line) {
    Outcome r = run(line);
    EXPECT_EQ(r.code, 0) << line << ": " << r.err;
    EXPECT_EQ(r.err, "") << line;
    return r.out;
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
    if (!fs::exists(root())) return entries;
    for (const auto& entry : fs::recursive_directory_iterator(root())) {
      entries[fs::relative(entry.path(), root()).string()] =
          entry.is_directory() ? "<dir>" : test::readBytes(entry.path());
    }
    return entries;
  }
  void declareChannel(const std::string& name) {
    Json::Value doc(Json::objectValue);
    doc["schema_version"] = 1;
    doc["build"] = "";
    ASSERT_TRUE(store::writeJsonFile(record(data().channels(), name), doc));
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
    if (!std::regex_match(out, m, kInviteOutput)) {
      ADD_FAILURE() << out;
      return "";
    }
    EXPECT_EQ(m[1], "u");
    const std::string code = m[3];
    const fs::path path = data().invites() / (store::hashToken(code) + ".json");
    Json::Value doc;
    EXPECT_TRUE(store::readJsonFile(path, doc)) << "no record filed under the code's hash";
    EXPECT_EQ(doc.getMemberNames(),
              (Words{"created_at", "expires_epoch", "groups", "id", "schema_version", "user"}));
    EXPECT_TRUE(std::regex_match(doc["id"].asString(), std::regex("[A-Za-z0-9]{8}")));
    EXPECT_EQ(doc["groups"], Json::Value(Json::arrayValue));
    const std::int64_t expires = doc["expires_epoch"].asInt64();
    EXPECT_GE(expires, before + lifetime);
    EXPECT_LE(expires, after + lifetime);
    EXPECT_EQ(m[2], store::formatUtc(expires));
    EXPECT_EQ(test::readBytes(path).find(code), std::string::npos);
    return code;
  }
};

TEST_F(AdminCommands, UserCreatePrintsOneOfFourTextsAndWritesTheRecord) {
  declareChannel("a");
  declareChannel("b");
  const std::string access = "Give them access with:\n  quillmoord token create <token-name> --user ";
  EXPECT_EQ(ok("user create alice --role admin"),
            "User 'alice' created (role: admin). " + access + "alice\n");
  EXPECT_EQ(ok("user create mo"), "User 'mo' created (role: member). " + access + "mo\n");
  EXPECT_EQ(ok("user create pub --role publisher --channels b,a"),
            "User 'pub' created (role: publisher; may promote to: b,a).\n" + access + "pub\n");
  EXPECT_EQ(ok("user create bare --role publisher"),
            "User 'bare' created (role: publisher; may promote to: (no channels)).\n" + access +
                "bare\n");
  // --service alone makes a publisher with no channels; with channels they are kept.
  EXPECT_EQ(ok("user create ci --role member --service"),
            "Service account 'ci' created (role: publisher; tokens only, cannot be invited or "
            "promoted).\nGive your CI access with:\n  quillmoord token create <token-name> --user "
            "ci\n");
  ok("user create ci2 --role publisher --channels a --service");

  const Json::Value alice = read(data().users(), "alice");
  EXPECT_EQ(alice.getMemberNames(), (Words{"created_at", "groups", "name", "role", "schema_version"}));
  EXPECT_EQ(alice["role"], "admin");
  const Json::Value pub = read(data().users(), "pub");
  EXPECT_EQ(pub["channels"], test::strings({"b", "a"}));
  EXPECT_FALSE(pub.isMember("service"));
  EXPECT_EQ(read(data().users(), "bare")["channels"], Json::Value(Json::arrayValue));
  const Json::Value ci = read(data().users(), "ci");
  EXPECT_EQ(ci["role"], "publisher");
  EXPECT_EQ(ci["service"], true);
  EXPECT_EQ(ci["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(read(data().users(), "ci2")["channels"], test::strings({"a"}));
}

// Each refusal fails with its message on standard error alone, exit 1, and writes nothing. Where
// two checks could both fire, the row says which comes first.
TEST_F(AdminCommands, RefusalsComeInOrderAndWriteNothing) {
  declareChannel("a");
  ok("user create taken");
  ok("user create u");
  ok("token create used");
  ok("invite create u");
  const char* rows[][2] = {
      {"user create bad\\sname --role owner", "invalid user name"},
      {"user create uuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuuu", "invalid user name"},
      {"user create x --role root --channels a", "--role must be admin, member or publisher"},
      {"user create x --role Admin", "--role must be admin, member or publisher"},
      {"user create x --role admin --channels a", "--channels only applies to --role publisher"},
      {"user create x --role member --channels a --service", "--channels only applies to --role publisher"},
      {"user create p --role publisher --channels a,b", "channel 'b' is not declared on this server"},
      {"user create p --role publisher --channels a,,a", "invalid channel name in --channels"},
      {"user create taken --role publisher --channels zz", "channel 'zz' is not declared on this server"},
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
    SCOPED_TRACE(line);
    const auto before = snapshot();
    Outcome r = run(line);
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, std::string(message) + "\n");
    EXPECT_EQ(snapshot(), before);
  }
}

TEST_F(AdminCommands, ListsPrintOneLinePerReadableRecord) {
  EXPECT_EQ(ok("user list"), "");
  EXPECT_EQ(ok("token list"), "");
  declareChannel("a");
  declareChannel("b");
  ok("user create alice --role admin");
  ok("user create pub --role publisher --channels a,b");
  ok("user create ci --service");
  writeFile(data().users() / "broken.json", "{ not json");
  writeFile(data().users() / "notes.txt", R"({"name":"notes","role":"admin"})");
  writeFile(data().tokens() / "README.txt", "not a token");
  const std::string secret = mintToken("token create alpha --user alice");
  mintToken("token create beta --user alice");
  const std::string users = ok("user list");
  EXPECT_EQ(sortedLines(users),
            (Words{"alice (admin)", "ci (publisher: (no channels))", "pub (publisher: a,b)"}));
  EXPECT_TRUE(users.ends_with("\n"));
  const std::string tokens = ok("token list");
  EXPECT_EQ(sortedLines(tokens), (Words{"alpha", "beta"}));
  EXPECT_EQ(tokens.find(secret), std::string::npos);
}

TEST_F(AdminCommands, TokenCreateHashesTheSecretAndDeleteRevokesAtOnce) {
  // Without --user: a member named like the token.
  const std::string secret = mintToken("token create ci-bot");
  const Json::Value user = read(data().users(), "ci-bot");
  EXPECT_EQ(user["role"], "member");
  EXPECT_FALSE(user.isMember("channels"));
  const Json::Value token = read(data().tokens(), "ci-bot");
  EXPECT_EQ(token.getMemberNames(), (Words{"created_at", "name", "schema_version", "token_hash", "user"}));
  EXPECT_EQ(token["token_hash"], store::hashToken(secret));
  EXPECT_EQ(test::readBytes(record(data().tokens(), "ci-bot")).find(secret), std::string::npos);
  EXPECT_EQ((*store::resolveToken(data(), secret))["name"], "ci-bot");

  // An existing owner is left untouched.
  ok("user create ship --service");
  const std::string ship = test::readBytes(record(data().users(), "ship"));
  const std::string laptop = mintToken("token create laptop --user ship");
  EXPECT_EQ(test::readBytes(record(data().users(), "ship")), ship);
  EXPECT_FALSE(fs::exists(record(data().users(), "laptop")));
  EXPECT_EQ((*store::resolveToken(data(), laptop))["role"], "publisher");
  EXPECT_EQ(ok("token delete laptop"), "Token 'laptop' deleted - access revoked immediately.\n");
  EXPECT_FALSE(store::resolveToken(data(), laptop).has_value());
  EXPECT_TRUE(fs::exists(record(data().users(), "ship")));
}

TEST_F(AdminCommands, InviteLifetimeTwiceAndReplace) {
  ok("user create u");
  ASSERT_FALSE(fs::exists(data().invites()));
  // Negative means not given; the first also creates the missing invites directory.
  const std::string first = expectInvite("", 7 * 86400);
  expectInvite("--days -3", 7 * 86400);
  expectInvite("--days 3650", 3650LL * 86400);
  expectInvite("--days -7 --hours 87600", 87600LL * 3600);
  expectInvite("--days 2 --hours -5", 2 * 86400);
  EXPECT_NE(first, expectInvite("", 7 * 86400));
  EXPECT_EQ(invitesFor("u").size(), 6u);
  ok("user create v");
  ok("invite create v");
  const fs::path torn = data().invites() / "torn.json";
  writeFile(torn, R"({"user": "u", )");
  // --replace keeps only the newest of that user's invites.
  const std::string newest = expectInvite("--replace", 7 * 86400);
  ASSERT_EQ(invitesFor("u").size(), 1u);
  EXPECT_EQ(invitesFor("u")[0].filename().string(), store::hashToken(newest) + ".json");
  EXPECT_EQ(invitesFor("v").size(), 1u);
  EXPECT_TRUE(fs::exists(torn));
}

TEST_F(AdminCommands, RecordsThatCannotBeStoredAreReportedWithExitOne) {
  ok("user create u");
  // A file where the directory belongs.
  for (const fs::path& where : {data().invites(), data().tokens()}) {
    fs::remove_all(where);
    writeFile(where, "x");
  }
  for (const char* line : {"invite create u", "invite create u --replace", "token create laptop --user u"}) {
    Outcome r;
    EXPECT_NO_THROW(r = run(line));
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, line[0] == 't' ? "could not store token\n" : "could not store invite\n");
  }
}

}  // namespace
}  // namespace quill
