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
#include "app/context.h"
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

using Tweak = std::function<void(Settings&)>;

std::string readRaw(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::vector<std::string> memberNames(const Json::Value& record) {
  auto names = record.getMemberNames();
  std::sort(names.begin(), names.end());
  return names;
}

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
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

  Outcome run(std::vector<std::string> words, const Tweak& tweak = {}) {
    Settings settings;
    settings.dataDir = root();
    settings.words = std::move(words);
    if (tweak) tweak(settings);
    Context ctx(settings);
    std::ostringstream out;
    std::ostringstream err;
    Outcome outcome;
    outcome.code = runCommand(ctx, out, err);
    outcome.out = out.str();
    outcome.err = err.str();
    return outcome;
  }

  // Every file and directory under the data directory with its bytes.
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> entries;
    std::error_code ec;
    if (!fs::exists(root(), ec)) return entries;
    for (const auto& entry : fs::recursive_directory_iterator(root())) {
      const std::string rel = fs::relative(entry.path(), root()).string();
      entries[rel] = entry.is_directory() ? "<dir>" : readRaw(entry.path());
    }
    return entries;
  }

  // The command fails with `message` on standard error alone, exit 1, and writes nothing.
  void expectRefused(std::vector<std::string> words, const Tweak& tweak,
                     const std::string& message) {
    SCOPED_TRACE(words.front() + " " + words[1] + " -> " + message);
    const auto before = snapshot();
    Outcome r = run(std::move(words), tweak);
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, message);
    EXPECT_EQ(snapshot(), before);
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

  std::vector<std::pair<fs::path, Json::Value>> invitesFor(const std::string& user) const {
    std::vector<std::pair<fs::path, Json::Value>> found;
    for (auto& [path, record] : store::listJsonDir(data().invites())) {
      if (store::textOf(record, "user") == user) found.emplace_back(path, record);
    }
    return found;
  }
};

Tweak role(const std::string& value) {
  return [value](Settings& s) { s.role = value; };
}

// ---------------------------------------------------------------- user create

TEST_F(AdminCommandsTest, UserCreatePrintsOneOfThreeTextsAndWritesTheRecord) {
  declareChannel("a");
  declareChannel("b");
  const std::string access = "  quillmoord token create <token-name> --user ";

  Outcome r = run({"user", "create", "alice"}, role("admin"));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "User 'alice' created (role: admin). Give them access with:\n" + access + "alice\n");

  r = run({"user", "create", "mo"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "User 'mo' created (role: member). Give them access with:\n" + access + "mo\n");

  r = run({"user", "create", "pub"}, [](Settings& s) {
    s.role = "publisher";
    s.channels = "b,a";
  });
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out,
            "User 'pub' created (role: publisher; may promote to: b,a).\n"
            "Give them access with:\n" +
                access + "pub\n");

  r = run({"user", "create", "bare"}, role("publisher"));
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out,
            "User 'bare' created (role: publisher; may promote to: (no channels)).\n"
            "Give them access with:\n" +
                access + "bare\n");

  auto alice = readRecord(data().users(), "alice");
  EXPECT_EQ(memberNames(alice),
            (std::vector<std::string>{"created_at", "groups", "name", "role", "schema_version"}));
  EXPECT_EQ(alice["role"].asString(), "admin");
  EXPECT_FALSE(readRecord(data().users(), "mo").isMember("channels"));
  auto pub = readRecord(data().users(), "pub");
  ASSERT_EQ(pub["channels"].size(), 2u);
  EXPECT_EQ(pub["channels"][0].asString() + pub["channels"][1].asString(), "ba");
  EXPECT_FALSE(pub.isMember("service"));
  EXPECT_EQ(readRecord(data().users(), "bare")["channels"], Json::Value(Json::arrayValue));
}

TEST_F(AdminCommandsTest, ServiceAloneMakesAPublisherServiceAccountWithNoChannels) {
  declareChannel("nightly");
  Outcome r = run({"user", "create", "ci"}, [](Settings& s) { s.service = true; });
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out,
            "Service account 'ci' created (role: publisher; tokens only, cannot be invited or "
            "promoted).\nGive your CI access with:\n  quillmoord token create <token-name> --user "
            "ci\n");
  auto ci = readRecord(data().users(), "ci");
  EXPECT_EQ(ci["role"].asString(), "publisher");
  EXPECT_EQ(ci["service"], Json::Value(true));
  EXPECT_EQ(ci["channels"], Json::Value(Json::arrayValue));

  // An explicit publisher role with channels: still the service-account text.
  r = run({"user", "create", "ci2"}, [](Settings& s) {
    s.service = true;
    s.role = "publisher";
    s.channels = "nightly";
  });
  EXPECT_EQ(r.code, 0);
  EXPECT_TRUE(r.out.starts_with("Service account 'ci2' created")) << r.out;
  EXPECT_EQ(readRecord(data().users(), "ci2")["channels"][0].asString(), "nightly");
}

TEST_F(AdminCommandsTest, UserCreateRefusalsComeInOrderAndWriteNothing) {
  declareChannel("a");
  seedUser("taken", "member");
  auto with = [](std::string r, std::string channels, bool service = false) -> Tweak {
    return [=](Settings& s) {
      s.role = r;
      s.channels = channels;
      s.service = service;
    };
  };

  for (const char* bad : {"bad name", "..", ".", "con", "Lpt9.txt", "caf\xc3\xa9", ""}) {
    expectRefused({"user", "create", bad}, {}, "invalid user name\n");
  }
  expectRefused({"user", "create", std::string(129, 'u')}, {}, "invalid user name\n");
  // The name is checked before the role.
  expectRefused({"user", "create", "bad name"}, role("owner"), "invalid user name\n");
  for (const char* bad : {"owner", "Admin", ""}) {
    expectRefused({"user", "create", "x"}, role(bad),
                  "--role must be admin, member or publisher\n");
  }
  // The role is checked before --channels applies.
  expectRefused({"user", "create", "x"}, with("root", "a"),
                "--role must be admin, member or publisher\n");
  expectRefused({"user", "create", "x"}, with("member", "a"),
                "--channels only applies to --role publisher\n");
  expectRefused({"user", "create", "x"}, with("admin", "a"),
                "--channels only applies to --role publisher\n");
  // --service turns the default role into publisher only after the --channels check.
  expectRefused({"user", "create", "x"}, with("member", "a", true),
                "--channels only applies to --role publisher\n");

  expectRefused({"user", "create", "p"}, with("publisher", "a,b"),
                "channel 'b' is not declared on this server\n");
  for (const char* list : {"a,b c", "a,,a", "a,", ",a", "a,..", "con"}) {
    expectRefused({"user", "create", "p"}, with("publisher", list),
                  "invalid channel name in --channels\n");
  }
  // Channels are checked before the existing record.
  expectRefused({"user", "create", "taken"}, with("publisher", "zz"),
                "channel 'zz' is not declared on this server\n");
  expectRefused({"user", "create", "taken"}, {}, "user 'taken' already exists\n");
  // Existence is checked before the service-account role rule.
  expectRefused({"user", "create", "taken"}, with("admin", "", true),
                "user 'taken' already exists\n");
  expectRefused({"user", "create", "x"}, with("admin", "", true),
                "--service accounts always have role publisher\n");
}

// ---------------------------------------------------------------- user list

TEST_F(AdminCommandsTest, UserListPrintsRolesAndPublisherChannelsSkippingUnreadableRecords) {
  Outcome r = run({"user", "list"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");

  declareChannel("a");
  declareChannel("b");
  seedUser("alice", "admin");
  seedUser("mo", "member");
  ASSERT_EQ(run({"user", "create", "pub"},
                [](Settings& s) {
                  s.role = "publisher";
                  s.channels = "a,b";
                })
                .code,
            0);
  ASSERT_EQ(run({"user", "create", "bare"}, role("publisher")).code, 0);
  ASSERT_EQ(run({"user", "create", "ci"}, [](Settings& s) { s.service = true; }).code, 0);
  std::ofstream(data().users() / "broken.json") << "{ not json";
  std::ofstream(data().users() / "notes.txt") << R"({"name":"notes","role":"admin"})";

  r = run({"user", "list"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(sortedLines(r.out),
            (std::vector<std::string>{"alice (admin)", "bare (publisher: (no channels))",
                                      "ci (publisher: (no channels))", "mo (member)",
                                      "pub (publisher: a,b)"}));
  EXPECT_TRUE(r.out.ends_with("\n"));
}

// ---------------------------------------------------------------- token create

TEST_F(AdminCommandsTest, TokenCreateWithoutUserMakesAMemberNamedLikeTheToken) {
  Outcome r = run({"token", "create", "ci-bot"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(r.out, m, kTokenOutput)) << r.out;
  EXPECT_EQ(m[1], "ci-bot");
  EXPECT_EQ(m[2], "ci-bot");
  const std::string secret = m[3];

  auto user = readRecord(data().users(), "ci-bot");
  EXPECT_EQ(user["role"].asString(), "member");
  EXPECT_EQ(user["groups"], Json::Value(Json::arrayValue));
  EXPECT_FALSE(user.isMember("channels"));

  auto token = readRecord(data().tokens(), "ci-bot");
  EXPECT_EQ(memberNames(token), (std::vector<std::string>{"created_at", "name", "schema_version",
                                                          "token_hash", "user"}));
  EXPECT_EQ(token["user"].asString(), "ci-bot");
  EXPECT_EQ(token["token_hash"].asString(), store::hashToken(secret));
  EXPECT_EQ(readRaw(store::DataDir::recordPath(data().tokens(), "ci-bot")).find(secret),
            std::string::npos);
  auto resolved = store::resolveToken(data(), secret);
  ASSERT_TRUE(resolved.has_value());
  EXPECT_EQ((*resolved)["name"].asString(), "ci-bot");
}

TEST_F(AdminCommandsTest, TokenCreateLeavesAnExistingOwnerUntouched) {
  ASSERT_EQ(run({"user", "create", "ship"}, [](Settings& s) { s.service = true; }).code, 0);
  const std::string before = readRaw(store::DataDir::recordPath(data().users(), "ship"));
  Outcome r = run({"token", "create", "laptop"}, [](Settings& s) { s.user = "ship"; });
  std::smatch m;
  ASSERT_TRUE(std::regex_match(r.out, m, kTokenOutput)) << r.out;
  EXPECT_EQ(m[2], "ship");
  EXPECT_EQ(readRaw(store::DataDir::recordPath(data().users(), "ship")), before);
  EXPECT_FALSE(fs::exists(store::DataDir::recordPath(data().users(), "laptop")));
  EXPECT_EQ((*store::resolveToken(data(), std::string(m[3])))["role"].asString(), "publisher");
}

TEST_F(AdminCommandsTest, TokenCreateRefusalsComeInOrderAndWriteNothing) {
  ASSERT_EQ(run({"token", "create", "taken"}).code, 0);
  auto owner = [](std::string user) -> Tweak { return [=](Settings& s) { s.user = user; }; };

  for (const char* bad : {"bad name", "..", "nul", "../users/x", ""}) {
    expectRefused({"token", "create", bad}, {}, "invalid token name\n");
  }
  expectRefused({"token", "create", "bad name"}, owner("bad user"), "invalid token name\n");
  expectRefused({"token", "create", "taken"}, {}, "token 'taken' already exists\n");
  expectRefused({"token", "create", "taken"}, owner("bad user"), "token 'taken' already exists\n");
  for (const char* bad : {"bad user", "..", "aux", "a/b"}) {
    expectRefused({"token", "create", "fresh"}, owner(bad), "invalid user name\n");
  }
}

// ---------------------------------------------------------------- token delete / list

TEST_F(AdminCommandsTest, TokenDeleteRevokesAtOnceAndReportsMissingTokens) {
  Outcome created = run({"token", "create", "laptop"}, [](Settings& s) { s.user = "alice"; });
  std::smatch m;
  ASSERT_TRUE(std::regex_match(created.out, m, kTokenOutput));
  const std::string secret = m[3];
  ASSERT_TRUE(store::resolveToken(data(), secret).has_value());

  Outcome r = run({"token", "delete", "laptop"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.out, "Token 'laptop' deleted - access revoked immediately.\n");
  EXPECT_FALSE(fs::exists(store::DataDir::recordPath(data().tokens(), "laptop")));
  EXPECT_FALSE(store::resolveToken(data(), secret).has_value());
  EXPECT_TRUE(fs::exists(store::DataDir::recordPath(data().users(), "alice")));

  expectRefused({"token", "delete", "laptop"}, {}, "no token named 'laptop'\n");
  expectRefused({"token", "delete", "never"}, {}, "no token named 'never'\n");
  // A name that is no name never reaches the file system, not even a user's record.
  for (const char* bad : {"../users/alice", "..", "com1", "a b"}) {
    expectRefused({"token", "delete", bad}, {}, "invalid token name\n");
  }
}

TEST_F(AdminCommandsTest, TokenListPrintsNamesOnly) {
  Outcome r = run({"token", "list"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.out, "");
  EXPECT_EQ(r.err, "");

  Outcome a = run({"token", "create", "alpha"});
  Outcome b = run({"token", "create", "beta"}, [](Settings& s) { s.user = "alpha"; });
  ASSERT_EQ(a.code, 0);
  ASSERT_EQ(b.code, 0);
  std::ofstream(data().tokens() / "README.txt") << "not a token";

  r = run({"token", "list"});
  EXPECT_EQ(r.code, 0);
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(sortedLines(r.out), (std::vector<std::string>{"alpha", "beta"}));
  EXPECT_TRUE(r.out.ends_with("\n"));
  std::smatch m;
  ASSERT_TRUE(std::regex_match(a.out, m, kTokenOutput));
  EXPECT_EQ(r.out.find(std::string(m[3])), std::string::npos);
}

// ---------------------------------------------------------------- invite create

class InviteCommandTest : public AdminCommandsTest {
 protected:
  void SetUp() override { seedUser("u", "member"); }

  struct Made {
    std::string code;
    std::string expiresAt;
    Json::Value record;
  };

  // Runs `invite create u` and checks the output, the record and the lifetime.
  Made expectInvite(const Tweak& tweak, std::int64_t lifetime) {
    const std::int64_t before = std::time(nullptr);
    Outcome r = run({"invite", "create", "u"}, tweak);
    const std::int64_t after = std::time(nullptr);
    Made made;
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.err, "");
    std::smatch m;
    if (!std::regex_match(r.out, m, kInviteOutput)) {
      ADD_FAILURE() << r.out;
      return made;
    }
    EXPECT_EQ(m[1], "u");
    made.expiresAt = m[2];
    made.code = m[3];
    const fs::path path = data().invites() / (store::hashToken(made.code) + ".json");
    EXPECT_TRUE(store::readJsonFile(path, made.record)) << "no record filed under the code's hash";
    EXPECT_EQ(memberNames(made.record),
              (std::vector<std::string>{"created_at", "expires_epoch", "groups", "id",
                                        "schema_version", "user"}));
    EXPECT_TRUE(std::regex_match(made.record["id"].asString(), std::regex("[A-Za-z0-9]{8}")));
    EXPECT_EQ(made.record["user"].asString(), "u");
    EXPECT_EQ(made.record["groups"], Json::Value(Json::arrayValue));
    EXPECT_EQ(made.record["schema_version"].asInt(), 1);
    const std::int64_t expires = made.record["expires_epoch"].asInt64();
    EXPECT_GE(expires, before + lifetime);
    EXPECT_LE(expires, after + lifetime);
    EXPECT_EQ(made.expiresAt, store::formatUtc(expires));
    EXPECT_EQ(readRaw(path).find(made.code), std::string::npos);
    return made;
  }
};

Tweak lifetime(std::int32_t days, std::int32_t hours) {
  return [=](Settings& s) {
    s.days = days;
    s.hours = hours;
  };
}

TEST_F(InviteCommandTest, LifetimeFromDaysOrHoursWithNegativeMeaningNotGiven) {
  ASSERT_FALSE(fs::exists(data().invites()));
  expectInvite({}, 7 * 86400);  // also creates the missing invites directory
  expectInvite(lifetime(-3, -1), 7 * 86400);
  expectInvite(lifetime(1, -1), 86400);
  expectInvite(lifetime(3650, -1), 3650LL * 86400);
  expectInvite(lifetime(-1, 1), 3600);
  expectInvite(lifetime(-7, 87600), 87600LL * 3600);
  expectInvite(lifetime(2, -5), 2 * 86400);
}

TEST_F(InviteCommandTest, RefusalsComeInOrderAndWriteNothing) {
  expectInvite({}, 7 * 86400);  // an invite that must survive every refusal
  auto replacing = [](std::int32_t days, std::int32_t hours) -> Tweak {
    return [=](Settings& s) {
      s.days = days;
      s.hours = hours;
      s.replace = true;
    };
  };

  for (const char* bad : {"bad name", "..", "prn", ""}) {
    expectRefused({"invite", "create", bad}, {}, "invalid user name\n");
  }
  expectRefused({"invite", "create", "ghost"}, {}, "user 'ghost' does not exist\n");
  expectRefused({"invite", "create", "ghost"}, lifetime(1, 1), "user 'ghost' does not exist\n");
  expectRefused({"invite", "create", "u"}, replacing(1, 1), "use --days or --hours, not both\n");
  expectRefused({"invite", "create", "u"}, lifetime(0, 0), "use --days or --hours, not both\n");
  expectRefused({"invite", "create", "u"}, lifetime(9999, 0), "use --days or --hours, not both\n");
  expectRefused({"invite", "create", "u"}, replacing(0, -1), "--days must be 1..3650\n");
  expectRefused({"invite", "create", "u"}, lifetime(3651, -1), "--days must be 1..3650\n");
  expectRefused({"invite", "create", "u"}, replacing(-1, 0), "--hours must be 1..87600\n");
  expectRefused({"invite", "create", "u"}, lifetime(-1, 87601), "--hours must be 1..87600\n");
  EXPECT_EQ(invitesFor("u").size(), 1u);
}

TEST_F(InviteCommandTest, TwiceKeepsBothAndReplaceKeepsOnlyTheNewest) {
  seedUser("v", "member");
  const Made first = expectInvite({}, 7 * 86400);
  const Made second = expectInvite({}, 7 * 86400);
  EXPECT_NE(first.code, second.code);
  EXPECT_NE(first.record["id"], second.record["id"]);
  EXPECT_EQ(invitesFor("u").size(), 2u);

  ASSERT_EQ(run({"invite", "create", "v"}).code, 0);
  const fs::path unreadable = data().invites() / "torn.json";
  std::ofstream(unreadable) << R"({"user": "u", )";

  const Made newest = expectInvite([](Settings& s) { s.replace = true; }, 7 * 86400);
  auto left = invitesFor("u");
  ASSERT_EQ(left.size(), 1u);
  EXPECT_EQ(left[0].first.filename().string(), store::hashToken(newest.code) + ".json");
  EXPECT_EQ(invitesFor("v").size(), 1u);
  EXPECT_TRUE(fs::exists(unreadable));
}

TEST_F(InviteCommandTest, RecordsThatCannotBeStoredAreReportedWithExitOne) {
  // A file where the directory belongs.
  fs::remove_all(data().invites());
  std::ofstream(data().invites()) << "x";
  fs::remove_all(data().tokens());
  std::ofstream(data().tokens()) << "x";
  const std::vector<std::pair<std::vector<std::string>, Tweak>> commands = {
      {{"invite", "create", "u"}, {}},
      {{"invite", "create", "u"}, [](Settings& s) { s.replace = true; }},
      {{"token", "create", "laptop"}, [](Settings& s) { s.user = "u"; }}};
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
