// The offline commands run in-process: exact output on the right stream, exit status, the records
// they write, and an untouched data directory whenever one refuses.

#include <gtest/gtest.h>
#include <json/value.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "app/commands.h"
#include "handler/context.h"
#include "store/documents.h"
#include "store/tokens.h"
#include "store/users.h"
#include "store/utc_time.h"
#include "support/temp_dir_test_base.h"

namespace quill {
namespace {

namespace fs = std::filesystem;

struct Outcome {
  int code = -1;
  std::string out;
  std::string err;
};

using Tweak = std::function<void(CommandArguments&)>;
using Words = std::vector<std::string>;

std::string readRaw(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> sorted(std::vector<std::string> items) {
  std::sort(items.begin(), items.end());
  return items;
}

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return sorted(lines);
}

Tweak opts(std::string role, std::string channels = "", bool service = false) {
  return [=](CommandArguments& s) {
    s.role = role;
    s.channels = channels;
    s.service = service;
  };
}
Tweak owner(std::string user) {
  return [=](CommandArguments& s) { s.user = user; };
}
Tweak lifetime(std::int32_t days, std::int32_t hours, bool replace = false) {
  return [=](CommandArguments& s) {
    s.days = days;
    s.hours = hours;
    s.replace = replace;
  };
}

const std::regex kTokenOutput(
    "Token '([^']*)' created for user '([^']*)'\\. Save it now - it is shown only once:\n\n"
    "  ([A-Za-z0-9]{48})\n");
const std::regex kInviteOutput(
    "Invite for user '([^']*)' created, valid until "
    "([0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z)\\. Single use, shown only once:\n\n"
    "  ([A-Za-z0-9]{24})\n");

class AdminCommandsTest : public test::TempDirTest {
 protected:
  fs::path root() const { return dir() / "data"; }
  store::DataDir data() const { return store::DataDir(root()); }

  Outcome run(Words words, const Tweak& tweak = {}) {
    ServerSettings settings;
    settings.dataDir = root();
    CommandArguments args;
    args.words = std::move(words);
    if (tweak) tweak(args);
    Context ctx(settings);
    std::ostringstream out;
    std::ostringstream err;
    const int code = runCommand(ctx, args, out, err);
    return {code, out.str(), err.str()};
  }

  // Runs a command that must succeed quietly on standard error and returns its output.
  std::string ok(Words words, const Tweak& tweak = {}) {
    Outcome r = run(std::move(words), tweak);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    return r.out;
  }

  // Creates a token and returns its secret.
  std::string mintToken(const std::string& name, const Tweak& tweak = {}) {
    const std::string out = ok({"token", "create", name}, tweak);
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
          entry.is_directory() ? "<dir>" : readRaw(entry.path());
    }
    return entries;
  }

  void declareChannel(const std::string& name) {
    Json::Value doc(Json::objectValue);
    doc["schema_version"] = 1;
    doc["engine"] = "barge";
    doc["build"] = "";
    doc["created_at"] = "2026-01-01T00:00:00Z";
    ASSERT_TRUE(store::writeJsonFile(store::DataDir::recordPath(data().channels(), name), doc));
  }

  void seedUser(const std::string& name, const std::string& role) {
    store::NewUser user;
    user.name = name;
    user.role = role;
    ASSERT_TRUE(store::createUser(data(), user).has_value());
  }

  Json::Value readRecord(const fs::path& dir, const std::string& name) const {
    Json::Value record;
    EXPECT_TRUE(store::readJsonFile(store::DataDir::recordPath(dir, name), record)) << name;
    return record;
  }

  std::vector<fs::path> invitesFor(const std::string& user) const {
    std::vector<fs::path> found;
    for (auto& [path, record] : store::listJsonDir(data().invites())) {
      if (store::textOf(record, "user") == user) found.push_back(path);
    }
    return found;
  }
};

TEST_F(AdminCommandsTest, UserCreatePrintsOneOfFourTextsAndWritesTheRecord) {
  declareChannel("a");
  declareChannel("b");
  const std::string access =
      "Give them access with:\n  quillmoord token create <token-name> --user ";
  EXPECT_EQ(ok({"user", "create", "alice"}, opts("admin")),
            "User 'alice' created (role: admin). " + access + "alice\n");
  EXPECT_EQ(ok({"user", "create", "mo"}), "User 'mo' created (role: member). " + access + "mo\n");
  EXPECT_EQ(ok({"user", "create", "pub"}, opts("publisher", "b,a")),
            "User 'pub' created (role: publisher; may promote to: b,a).\n" + access + "pub\n");
  EXPECT_EQ(ok({"user", "create", "bare"}, opts("publisher")),
            "User 'bare' created (role: publisher; may promote to: (no channels)).\n" + access +
                "bare\n");
  // --service alone makes a publisher with no channels; with channels they are kept.
  EXPECT_EQ(ok({"user", "create", "ci"}, opts("member", "", true)),
            "Service account 'ci' created (role: publisher; tokens only, cannot be invited or "
            "promoted).\nGive your CI access with:\n  quillmoord token create <token-name> --user "
            "ci\n");
  ok({"user", "create", "ci2"}, opts("publisher", "a", true));

  const Json::Value alice = readRecord(data().users(), "alice");
  EXPECT_EQ(sorted(alice.getMemberNames()),
            (Words{"created_at", "groups", "name", "role", "schema_version"}));
  EXPECT_EQ(alice["role"].asString(), "admin");
  const Json::Value pub = readRecord(data().users(), "pub");
  EXPECT_EQ(pub["channels"][0].asString() + pub["channels"][1].asString(), "ba");
  EXPECT_FALSE(pub.isMember("service"));
  EXPECT_EQ(readRecord(data().users(), "bare")["channels"], Json::Value(Json::arrayValue));
  const Json::Value ci = readRecord(data().users(), "ci");
  EXPECT_EQ(ci["role"].asString(), "publisher");
  EXPECT_EQ(ci["service"], Json::Value(true));
  EXPECT_EQ(ci["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(readRecord(data().users(), "ci2")["channels"][0].asString(), "a");
}

// Each refusal fails with its message on standard error alone, exit 1, and writes nothing. Where
// two checks could both fire, the row says which comes first.
TEST_F(AdminCommandsTest, RefusalsComeInOrderAndWriteNothing) {
  declareChannel("a");
  seedUser("taken", "member");
  seedUser("u", "member");
  ok({"token", "create", "used"});
  ok({"invite", "create", "u"});
  struct Row {
    Words words;
    Tweak tweak;
    std::string message;
  };
  const std::string badRole = "--role must be admin, member or publisher\n";
  const std::string channelsOnly = "--channels only applies to --role publisher\n";
  const std::string both = "use --days or --hours, not both\n";
  const std::vector<Row> rows = {
      {{"user", "create", "bad name"}, opts("owner"), "invalid user name\n"},
      {{"user", "create", std::string(129, 'u')}, {}, "invalid user name\n"},
      {{"user", "create", "x"}, opts("root", "a"), badRole},
      {{"user", "create", "x"}, opts("Admin"), badRole},
      {{"user", "create", "x"}, opts("admin", "a"), channelsOnly},
      {{"user", "create", "x"}, opts("member", "a", true), channelsOnly},
      {{"user", "create", "p"},
       opts("publisher", "a,b"),
       "channel 'b' is not declared on this server\n"},
      {{"user", "create", "p"}, opts("publisher", "a,,a"), "invalid channel name in --channels\n"},
      {{"user", "create", "taken"},
       opts("publisher", "zz"),
       "channel 'zz' is not declared on this server\n"},
      {{"user", "create", "taken"}, opts("admin", "", true), "user 'taken' already exists\n"},
      {{"user", "create", "x"},
       opts("admin", "", true),
       "--service accounts always have role publisher\n"},
      {{"token", "create", "bad name"}, owner("bad user"), "invalid token name\n"},
      {{"token", "create", "used"}, owner("bad user"), "token 'used' already exists\n"},
      {{"token", "create", "fresh"}, owner("a/b"), "invalid user name\n"},
      {{"token", "delete", "never"}, {}, "no token named 'never'\n"},
      // A name that is no name never reaches the file system, not even a user's record.
      {{"token", "delete", "../users/u"}, {}, "invalid token name\n"},
      {{"invite", "create", "prn"}, {}, "invalid user name\n"},
      {{"invite", "create", "ghost"}, lifetime(1, 1), "user 'ghost' does not exist\n"},
      {{"invite", "create", "u"}, lifetime(1, 1, true), both},
      {{"invite", "create", "u"}, lifetime(0, 0), both},
      {{"invite", "create", "u"}, lifetime(0, -1, true), "--days must be 1..3650\n"},
      {{"invite", "create", "u"}, lifetime(3651, -1), "--days must be 1..3650\n"},
      {{"invite", "create", "u"}, lifetime(-1, 0, true), "--hours must be 1..87600\n"},
      {{"invite", "create", "u"}, lifetime(-1, 87601), "--hours must be 1..87600\n"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.words[0] + " " + row.words[1] + " " + row.words[2] + " -> " + row.message);
    const auto before = snapshot();
    Outcome r = run(row.words, row.tweak);
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, row.message);
    EXPECT_EQ(snapshot(), before);
  }
}

TEST_F(AdminCommandsTest, ListsPrintOneLinePerReadableRecord) {
  EXPECT_EQ(ok({"user", "list"}), "");
  EXPECT_EQ(ok({"token", "list"}), "");
  declareChannel("a");
  declareChannel("b");
  seedUser("alice", "admin");
  ok({"user", "create", "pub"}, opts("publisher", "a,b"));
  ok({"user", "create", "ci"}, opts("member", "", true));
  std::ofstream(data().users() / "broken.json") << "{ not json";
  std::ofstream(data().users() / "notes.txt") << R"({"name":"notes","role":"admin"})";
  const std::string secret = mintToken("alpha", owner("alice"));
  mintToken("beta", owner("alice"));
  std::ofstream(data().tokens() / "README.txt") << "not a token";

  const std::string users = ok({"user", "list"});
  EXPECT_EQ(sortedLines(users),
            (Words{"alice (admin)", "ci (publisher: (no channels))", "pub (publisher: a,b)"}));
  EXPECT_TRUE(users.ends_with("\n"));
  const std::string tokens = ok({"token", "list"});
  EXPECT_EQ(sortedLines(tokens), (Words{"alpha", "beta"}));
  EXPECT_EQ(tokens.find(secret), std::string::npos);
}

TEST_F(AdminCommandsTest, TokenCreateHashesTheSecretAndDeleteRevokesAtOnce) {
  // Without --user: a member named like the token.
  const std::string secret = mintToken("ci-bot");
  const Json::Value user = readRecord(data().users(), "ci-bot");
  EXPECT_EQ(user["role"].asString(), "member");
  EXPECT_FALSE(user.isMember("channels"));
  const Json::Value token = readRecord(data().tokens(), "ci-bot");
  EXPECT_EQ(sorted(token.getMemberNames()),
            (Words{"created_at", "name", "schema_version", "token_hash", "user"}));
  EXPECT_EQ(token["token_hash"].asString(), store::hashToken(secret));
  EXPECT_EQ(readRaw(store::DataDir::recordPath(data().tokens(), "ci-bot")).find(secret),
            std::string::npos);
  EXPECT_EQ((*store::resolveToken(data(), secret))["name"].asString(), "ci-bot");

  // An existing owner is left untouched.
  ok({"user", "create", "ship"}, opts("member", "", true));
  const std::string ship = readRaw(store::DataDir::recordPath(data().users(), "ship"));
  const std::string laptop = mintToken("laptop", owner("ship"));
  EXPECT_EQ(readRaw(store::DataDir::recordPath(data().users(), "ship")), ship);
  EXPECT_FALSE(fs::exists(store::DataDir::recordPath(data().users(), "laptop")));
  EXPECT_EQ((*store::resolveToken(data(), laptop))["role"].asString(), "publisher");

  EXPECT_EQ(ok({"token", "delete", "laptop"}),
            "Token 'laptop' deleted - access revoked immediately.\n");
  EXPECT_FALSE(store::resolveToken(data(), laptop).has_value());
  EXPECT_TRUE(fs::exists(store::DataDir::recordPath(data().users(), "ship")));
}

class InviteCommandTest : public AdminCommandsTest {
 protected:
  void SetUp() override { seedUser("u", "member"); }

  // Runs `invite create u`, checks the output, the record and the lifetime; returns the code.
  std::string expectInvite(const Tweak& tweak, std::int64_t lifetime) {
    SCOPED_TRACE(lifetime);
    const std::int64_t before = std::time(nullptr);
    const std::string out = ok({"invite", "create", "u"}, tweak);
    const std::int64_t after = std::time(nullptr);
    std::smatch m;
    if (!std::regex_match(out, m, kInviteOutput)) {
      ADD_FAILURE() << out;
      return "";
    }
    EXPECT_EQ(m[1], "u");
    const std::string code = m[3];
    const fs::path path = data().invites() / (store::hashToken(code) + ".json");
    Json::Value record;
    EXPECT_TRUE(store::readJsonFile(path, record)) << "no record filed under the code's hash";
    EXPECT_EQ(sorted(record.getMemberNames()),
              (Words{"created_at", "expires_epoch", "groups", "id", "schema_version", "user"}));
    EXPECT_TRUE(std::regex_match(record["id"].asString(), std::regex("[A-Za-z0-9]{8}")));
    EXPECT_EQ(record["groups"], Json::Value(Json::arrayValue));
    const std::int64_t expires = record["expires_epoch"].asInt64();
    EXPECT_GE(expires, before + lifetime);
    EXPECT_LE(expires, after + lifetime);
    EXPECT_EQ(m[2], store::formatUtc(expires));
    EXPECT_EQ(readRaw(path).find(code), std::string::npos);
    return code;
  }
};

TEST_F(InviteCommandTest, LifetimeFromDaysOrHoursWithNegativeMeaningNotGiven) {
  ASSERT_FALSE(fs::exists(data().invites()));
  expectInvite({}, 7 * 86400);  // also creates the missing invites directory
  expectInvite(lifetime(-3, -1), 7 * 86400);
  expectInvite(lifetime(3650, -1), 3650LL * 86400);
  expectInvite(lifetime(-7, 87600), 87600LL * 3600);
  expectInvite(lifetime(2, -5), 2 * 86400);
}

TEST_F(InviteCommandTest, TwiceKeepsBothAndReplaceKeepsOnlyTheNewest) {
  seedUser("v", "member");
  EXPECT_NE(expectInvite({}, 7 * 86400), expectInvite({}, 7 * 86400));
  EXPECT_EQ(invitesFor("u").size(), 2u);
  ok({"invite", "create", "v"});
  const fs::path unreadable = data().invites() / "torn.json";
  std::ofstream(unreadable) << R"({"user": "u", )";

  const std::string newest = expectInvite(lifetime(-1, -1, true), 7 * 86400);
  auto left = invitesFor("u");
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].filename().string(), store::hashToken(newest) + ".json");
  EXPECT_EQ(invitesFor("v").size(), 1u);
  EXPECT_TRUE(fs::exists(unreadable));
}

TEST_F(InviteCommandTest, RecordsThatCannotBeStoredAreReportedWithExitOne) {
  // A file where the directory belongs.
  for (const fs::path& where : {data().invites(), data().tokens()}) {
    fs::remove_all(where);
    std::ofstream(where) << "x";
  }
  const std::vector<std::pair<Words, Tweak>> commands = {
      {{"invite", "create", "u"}, {}},
      {{"invite", "create", "u"}, lifetime(-1, -1, true)},
      {{"token", "create", "laptop"}, owner("u")}};
  for (const auto& [words, tweak] : commands) {
    Outcome r;
    EXPECT_NO_THROW(r = run(words, tweak));
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, words[0] == "token" ? "could not store token\n" : "could not store invite\n");
  }
}

}  // namespace
}  // namespace quill
