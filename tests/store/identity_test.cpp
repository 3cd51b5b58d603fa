#include <gtest/gtest.h>
#include <json/writer.h>

#include <cctype>
#include <ctime>
#include <functional>
#include <set>
#include <string>
#include <tuple>

#include "base/json_reader.h"
#include "store/data_dir.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/token_index.h"
#include "store/tokens.h"
#include "store/users.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"

namespace quill::store {
namespace {

class IdentityTest : public test::TempDirTest {
 protected:
  void SetUp() override {
    const auto prepared = data.prepare();
    ASSERT_TRUE(prepared) << prepared.error();
  }

  Json::Value user(const std::string& name, const std::string& role,
                   std::vector<std::string> channels = {}) {
    NewUser u;
    u.name = name;
    u.role = role;
    u.channels = std::move(channels);
    auto record = createUser(data, u);
    EXPECT_TRUE(record.has_value()) << name;
    return record.value_or(Json::Value());
  }

  // A token file written by hand, as an older server or another tool would leave it; `edit`
  // changes the record before it is written.
  void writeToken(const std::string& name, const std::string& text, const std::string& owner,
                  const std::function<void(Json::Value&)>& edit = {}) {
    Json::Value record(Json::objectValue);
    record["schema_version"] = 1;
    record["name"] = name;
    if (!owner.empty()) record["user"] = owner;
    record["token_hash"] = hashToken(text);
    record["created_at"] = "2026-01-01T00:00:00Z";
    if (edit) edit(record);
    ASSERT_TRUE(writeJsonFile(tokenPath(name), record));
  }

  // An SSO token of "sam" last validated at `validatedAt` (raw text).
  void ssoToken(const std::string& name, const std::string& text, const std::string& validatedAt) {
    writeToken(name, text, "sam", [&](Json::Value& r) {
      r["sso"] = true;
      r["sso_validated_at"] = validatedAt;
    });
  }

  fs::path tokenPath(const std::string& name) const {
    return DataDir::recordPath(data.tokens(), name);
  }

  // Resolves with and without the index; both must agree.
  std::optional<Json::Value> resolve(const std::string& text) {
    auto viaIndex = resolveToken(data, text, &index);
    auto viaScan = resolveToken(data, text);
    EXPECT_EQ(viaIndex, viaScan) << text;
    return viaIndex;
  }

  DataDir data{dir() / "data"};
  TokenIndex index;
};

TEST_F(IdentityTest, HashTokenIsLowerCaseHexBlake3) {
  EXPECT_EQ(hashToken("abc"), "6437b3ac38465133ffb63b75273a8db548c558465d79db03fd359c6cd5bd9d85");
  EXPECT_EQ(hashToken(""), "af1349b9f5f9a1a6a0404dea36dcc9499bcb25c9adc112b7cc9a93cae41f3262");
  EXPECT_NE(hashToken(std::string("a\0b", 3)), hashToken("a"));
}

TEST_F(IdentityTest, AMintedTokenIsShownOnceAndStoredOnlyAsItsHash) {
  user("ci", "publisher");
  std::set<std::string> seen;
  for (const std::string name : {"t0", "t1"}) {
    const std::string text = mintToken(data, name, "ci");
    ASSERT_EQ(text.size(), kTokenLength);
    for (char c : text) ASSERT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << text;
    EXPECT_TRUE(seen.insert(text).second);
    EXPECT_EQ(test::readBytes(tokenPath(name)).find(text), std::string::npos);
    auto record = findToken(data, name);
    ASSERT_TRUE(record);
    EXPECT_EQ(
        record->getMemberNames(),
        (std::vector<std::string>{"created_at", "name", "schema_version", "token_hash", "user"}));
    EXPECT_EQ((*record)["token_hash"], hashToken(text));
    EXPECT_EQ((*record)["user"], "ci");
    ASSERT_TRUE(resolve(text));
    EXPECT_EQ((*resolve(text))["name"], "ci");
  }
}

TEST_F(IdentityTest, UnknownMalformedAndOrphanTokensResolveToNothing) {
  user("alice", "member");
  const std::string text = mintToken(data, "good", "alice");
  ASSERT_TRUE(writeFileAtomic(tokenPath("broken"), "{\"token_hash\": "));
  writeToken("nohash", "y", "alice", [](Json::Value& r) { r.removeMember("token_hash"); });
  writeToken("numeric", "z", "alice", [](Json::Value& r) { r["token_hash"] = 12; });
  writeToken("upper", "w", "alice", [](Json::Value& r) {
    std::string hash = r["token_hash"].asString();
    for (char& c : hash) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    r["token_hash"] = hash;
  });
  // Files that are not objects are skipped.
  ASSERT_TRUE(writeFileAtomic(tokenPath("array"), "[\"" + hashToken("x") + "\"]"));
  // Owners that do not exist, or cannot.
  writeToken("orphan", "secret", "ghost");
  writeToken("badname", "secret2", "../users/x");

  for (const char* bad : {"", "x", "y", "z", "w", "good", "secret", "secret2"}) {
    EXPECT_FALSE(resolve(bad)) << bad;
  }
  ASSERT_TRUE(resolve(text));
  EXPECT_EQ((*resolve(text))["name"], "alice");
}

TEST_F(IdentityTest, ALegacyTokenIsUpgradedToAnAdminNamedLikeIt) {
  writeToken("nadia", "legacy-1", "");
  auto resolved = resolveToken(data, "legacy-1", &index);
  ASSERT_TRUE(resolved);
  EXPECT_EQ((*resolved)["name"], "nadia");
  EXPECT_EQ((*resolved)["role"], "admin");
  EXPECT_EQ((*resolved)["groups"], Json::Value(Json::arrayValue));
  EXPECT_EQ(findUser(data, "nadia"), resolved);
  EXPECT_EQ((*findToken(data, "nadia"))["user"], "nadia");
  EXPECT_EQ(resolve("legacy-1"), resolved);

  // An existing user of that name is left as it is, and an empty `user` counts as absent.
  user("omar", "member");
  writeToken("omar", "legacy-2", "", [](Json::Value& r) { r["user"] = ""; });
  ASSERT_TRUE(resolve("legacy-2"));
  EXPECT_EQ((*findUser(data, "omar"))["role"], "member");
  EXPECT_EQ((*findToken(data, "omar"))["user"], "omar");

  // A name no user may have resolves to nothing and is not upgraded.
  writeToken("con", "legacy-con", "");
  writeToken("dots", "legacy-dots", "", [](Json::Value& r) { r["name"] = ".."; });
  EXPECT_FALSE(resolve("legacy-con"));
  EXPECT_FALSE(resolve("legacy-dots"));
  EXPECT_FALSE(findToken(data, "con")->isMember("user"));
}

TEST_F(IdentityTest, DisablingAUserSuspendsItsTokensWithoutTouchingThem) {
  Json::Value alice = user("alice", "admin");
  const std::string first = mintToken(data, "a1", "alice");
  const std::string before = test::readBytes(tokenPath("a1"));
  alice["disabled"] = true;
  ASSERT_TRUE(saveUser(data, alice));
  EXPECT_FALSE(resolve(first));
  EXPECT_EQ(test::readBytes(tokenPath("a1")), before);
  // Only a boolean true disables.
  alice["disabled"] = "true";
  ASSERT_TRUE(saveUser(data, alice));
  EXPECT_TRUE(resolve(first));
}

TEST_F(IdentityTest, SsoTokenIsGoodForOneDayAfterItsLastSignOn) {
  user("sam", "member");
  // The boundary second must not tick between writing and resolving; retry if it did.
  bool checked = false;
  for (int attempt = 0; attempt < 5 && !checked; ++attempt) {
    const std::time_t now = std::time(nullptr);
    ssoToken("day", "sso-day", formatUtc(now - 86400));
    const bool accepted = resolveToken(data, "sso-day", &index).has_value();
    checked = std::time(nullptr) == now;
    EXPECT_TRUE(accepted || !checked);
  }
  EXPECT_TRUE(checked);

  // Expired tokens are removed; a time that cannot be read is refused but the token kept.
  const std::time_t now = std::time(nullptr);
  const std::tuple<std::string, std::string, bool, bool> rows[] = {
      // name, time, accepted, kept
      {"stale", formatUtc(now - 86401), false, false},
      {"future", formatUtc(now + 7 * 86400), true, true},
      {"words", "yesterday", false, true},
      {"short", "2026-01-01T00:00", false, true},
      {"blank", "", false, true},
      // Six numbers are read, but no calendar time has this month.
      {"odd", "2026--2147483648-01T00:00:00", false, false},
  };
  for (const auto& [name, validatedAt, accepted, kept] : rows) {
    ssoToken(name, "sso-" + name, validatedAt);
    EXPECT_EQ(resolveToken(data, "sso-" + name, &index).has_value(), accepted) << name;
    EXPECT_EQ(fs::exists(tokenPath(name)), kept) << name;
  }
  writeToken("missing", "sso-missing", "sam", [](Json::Value& r) { r["sso"] = true; });
  EXPECT_FALSE(resolve("sso-missing"));
  EXPECT_TRUE(fs::exists(tokenPath("missing")));

  // A token not marked sso never expires, whatever its time stamp says.
  writeToken("plain", "not-sso", "sam",
             [](Json::Value& r) { r["sso_validated_at"] = "2000-01-01T00:00:00Z"; });
  EXPECT_TRUE(resolve("not-sso"));
}

TEST_F(IdentityTest, CreateUserNeverReplacesARecord) {
  Json::Value listed = user("lister", "member", {"beta"});
  EXPECT_EQ(listed["channels"].size(), 1u);  // a list given to any role is kept
  const std::string before = test::readBytes(DataDir::recordPath(data.users(), "lister"));
  NewUser again;
  again.name = "lister";
  again.role = "admin";
  EXPECT_FALSE(createUser(data, again));
  EXPECT_EQ(test::readBytes(DataDir::recordPath(data.users(), "lister")), before);
}

TEST_F(IdentityTest, CountAdminsCountsExactRoleIncludingDisabled) {
  EXPECT_EQ(countAdmins(data), 0);
  EXPECT_FALSE(anyAdminExists(data));
  user("a1", "admin");
  Json::Value a2 = user("a2", "admin");
  a2["disabled"] = true;
  ASSERT_TRUE(saveUser(data, a2));
  user("m", "member");
  user("p", "publisher");
  Json::Value odd = user("odd", "member");
  odd["role"] = "Admin";
  ASSERT_TRUE(saveUser(data, odd));
  EXPECT_EQ(countAdmins(data), 2);
  EXPECT_TRUE(anyAdminExists(data));
}

TEST_F(IdentityTest, ProfileTextIsCutToBytesThenControlBytesBecomeSpaces) {
  const std::pair<std::string, std::string> cases[] = {
      {"Ada\tLovelace\r\n", "Ada Lovelace  "},
      {std::string("a\0b\x1f\x7f", 5), "a b \x7f"},
      {"  kept as is  ", "  kept as is  "},
      {std::string(300, 'x'), std::string(256, 'x')},
      {std::string(256, 'y'), std::string(256, 'y')},
      // The cut ignores UTF-8 boundaries, and comes before control bytes are considered.
      {std::string(255, 'x') + "\xC3\xA9tail", std::string(255, 'x') + "\xC3"},
      {std::string(256, 'z') + "\n", std::string(256, 'z')},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(profileText(text), expected) << text;
}

TEST_F(IdentityTest, EffectiveChannelsAreFollowsThenGroupChannelsFirstOccurrenceOnly) {
  auto json = [](const std::string& text) { return (*base::parseJsonObject(text))["v"]; };
  for (const auto& [name, channels] : {std::pair{"g1", R"(["a","c"])"}, {"g2", R"(["c","d"])"}}) {
    Json::Value group = newGroupRecord(name);
    group["channels"] = json(std::string(R"({"v":)") + channels + "}");
    ASSERT_TRUE(saveGroup(data, group));
  }
  Json::Value u = user("u", "member");
  u["follows"] = json(R"({"v":["b","a",7,"b"]})");
  u["groups"] = json(R"({"v":["g1","gone","g2"]})");
  EXPECT_EQ(effectiveChannels(data, u), json(R"({"v":["b","a","c","d"]})"));
  EXPECT_EQ(effectiveChannels(data, user("bare", "member")), Json::Value(Json::arrayValue));
}

}  // namespace
}  // namespace quill::store
