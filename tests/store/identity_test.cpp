// Users and their tokens. Every lookup goes through the token index and through the plain scan of
// the token files, which must agree whatever happened to the token directory since.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <ctime>
#include <fstream>
#include <set>
#include <thread>
#include <tuple>

#include "store/documents.h"
#include "store/groups.h"
#include "store/token_index.h"
#include "store/tokens.h"
#include "store/users.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"
#include "support/numbered.h"

namespace quill::store {
namespace {

using test::parseJson;

class IdentityTest : public test::TempDirTest {
 protected:
  void SetUp() override { ASSERT_TRUE(data.prepare()); }

  static NewUser newUser(const std::string& name, const std::string& role,
                         std::vector<std::string> channels = {}) {
    NewUser u;
    u.name = name;
    u.role = role;
    u.channels = std::move(channels);
    return u;
  }
  Json::Value user(const std::string& name, const std::string& role = "member") {
    auto record = createUser(data, newUser(name, role));
    EXPECT_TRUE(record) << name;
    return record.value_or(Json::Value());
  }
  // A token file as an older server or another tool would leave it: `extra` members are merged
  // in (null removes one), an empty owner is left out.
  void writeToken(const std::string& name, const std::string& text, const std::string& owner,
                  const std::string& extra = "{}") {
    Json::Value r = parseJson(R"({"schema_version":1,"created_at":"2026-01-01T00:00:00Z"})");
    r["name"] = name;
    r["token_hash"] = hashToken(text);
    if (!owner.empty()) r["user"] = owner;
    const Json::Value more = parseJson(extra);
    for (const auto& key : more.getMemberNames()) {
      more[key].isNull() ? void(r.removeMember(key)) : void(r[key] = more[key]);
    }
    ASSERT_TRUE(writeJsonFile(tokenPath(name), r));
  }
  // Written plainly, in place, not by a rename.
  void writeInPlace(const std::string& name, const std::string& text, const std::string& owner) {
    std::ofstream(tokenPath(name), std::ios::trunc)
        << R"({"schema_version":1,"name":")" << name << R"(","user":")" << owner
        << R"(","token_hash":")" << hashToken(text) << R"(","created_at":"2026-01-01T00:00:00Z"})";
  }
  fs::path tokenPath(const std::string& name) const {
    return DataDir::recordPath(data.tokens(), name);
  }
  std::optional<Json::Value> resolve(const std::string& text) {
    auto viaIndex = resolveToken(data, text, &index);
    EXPECT_EQ(viaIndex, resolveToken(data, text)) << "index and scan disagree on " << text;
    return viaIndex;
  }
  std::string owner(const std::string& text) {
    const auto found = resolve(text);
    return found ? (*found)["name"].asString() : "";
  }
  // The token directory untouched for an hour, the usual state of a running server: the index
  // is entitled to trust its listing.
  void settle() {
    fs::last_write_time(data.tokens(), fs::file_time_type::clock::now() - std::chrono::hours(1));
  }

  DataDir data{dir() / "data"};
  TokenIndex index;
};

TEST_F(IdentityTest, TokensAreShownOnceAndStoredAsTheirLowerCaseHexBlake3) {
  EXPECT_EQ(hashToken("abc"), "6437b3ac38465133ffb63b75273a8db548c558465d79db03fd359c6cd5bd9d85");
  EXPECT_EQ(hashToken(""), "af1349b9f5f9a1a6a0404dea36dcc9499bcb25c9adc112b7cc9a93cae41f3262");
  EXPECT_NE(hashToken(std::string("a\0b", 3)), hashToken("a"));
  user("ci", "publisher");
  std::set<std::string> seen;
  for (const std::string name : {"t0", "t1"}) {
    const std::string text = mintToken(data, name, "ci");
    ASSERT_EQ(text.size(), kTokenLength);
    for (char c : text) ASSERT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << text;
    EXPECT_TRUE(seen.insert(text).second);
    EXPECT_EQ(test::readBytes(tokenPath(name)).find(text), std::string::npos);
    Json::Value expected = parseJson(R"({"schema_version":1,"user":"ci"})");
    expected["name"] = name;
    expected["token_hash"] = hashToken(text);
    expected["created_at"] = (*findToken(data, name))["created_at"];
    EXPECT_EQ(findToken(data, name), expected);
    EXPECT_EQ(owner(text), "ci");
  }
}

TEST_F(IdentityTest, UnknownMalformedOrphanAndDisabledTokensResolveToNothing) {
  Json::Value alice = user("alice");
  const std::string text = mintToken(data, "good", "alice");
  const std::string before = test::readBytes(tokenPath("good"));
  ASSERT_TRUE(writeFileAtomic(tokenPath("broken"), "{\"token_hash\": "));
  ASSERT_TRUE(writeFileAtomic(tokenPath("array"), "[\"" + hashToken("x") + "\"]"));
  writeToken("nohash", "y", "alice", R"({"token_hash":null})");
  writeToken("numeric", "z", "alice", R"({"token_hash":12})");
  std::string upper = hashToken("w");
  std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
  writeToken("upper", "w", "alice", R"({"token_hash":")" + upper + "\"}");
  writeToken("orphan", "secret", "ghost");
  writeToken("badname", "secret2", "../users/x");
  for (const char* bad : {"", "x", "y", "z", "w", "good", "secret", "secret2"}) {
    EXPECT_EQ(owner(bad), "") << bad;
  }
  EXPECT_EQ(owner(text), "alice");
  // Disabling suspends the tokens without touching them; only a boolean true disables.
  alice["disabled"] = true;
  ASSERT_TRUE(saveUser(data, alice));
  EXPECT_EQ(owner(text), "");
  EXPECT_EQ(test::readBytes(tokenPath("good")), before);
  alice["disabled"] = "true";
  ASSERT_TRUE(saveUser(data, alice));
  EXPECT_EQ(owner(text), "alice");
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
  user("omar");
  writeToken("omar", "legacy-2", "", R"({"user":""})");
  EXPECT_EQ(owner("legacy-2"), "omar");
  EXPECT_EQ((*findUser(data, "omar"))["role"], "member");
  EXPECT_EQ((*findToken(data, "omar"))["user"], "omar");
  // A name no user may have resolves to nothing and is not upgraded.
  writeToken("con", "legacy-con", "");
  writeToken("dots", "legacy-dots", "", R"({"name":".."})");
  EXPECT_EQ(owner("legacy-con") + owner("legacy-dots"), "");
  EXPECT_FALSE(findToken(data, "con")->isMember("user"));
}

TEST_F(IdentityTest, SsoTokenIsGoodForOneDayAfterItsLastSignOn) {
  user("sam");
  const auto sso = [&](const std::string& name, const std::string& validatedAt) {
    writeToken(name, "sso-" + name, "sam",
               R"({"sso":true,"sso_validated_at":")" + validatedAt + "\"}");
    return resolveToken(data, "sso-" + name, &index).has_value();
  };
  // The boundary second must not tick between writing and resolving; retry if it did.
  bool checked = false;
  for (int attempt = 0; attempt < 5 && !checked; ++attempt) {
    const std::time_t now = std::time(nullptr);
    const bool accepted = sso("day", formatUtc(now - 86400));
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
      {"odd", "2026--2147483648-01T00:00:00", false, false},  // six numbers, but no calendar time
  };
  for (const auto& [name, validatedAt, accepted, kept] : rows) {
    EXPECT_EQ(sso(name, validatedAt), accepted) << name;
    EXPECT_EQ(fs::exists(tokenPath(name)), kept) << name;
  }
  writeToken("missing", "sso-missing", "sam", R"({"sso":true})");
  EXPECT_EQ(owner("sso-missing"), "");
  EXPECT_TRUE(fs::exists(tokenPath("missing")));
  // A token not marked sso never expires, whatever its time stamp says.
  writeToken("plain", "not-sso", "sam", R"({"sso_validated_at":"2000-01-01T00:00:00Z"})");
  EXPECT_EQ(owner("not-sso"), "sam");
}

TEST_F(IdentityTest, UserRules) {
  // A channel list given to any role is kept, and an existing record is never replaced.
  EXPECT_EQ(createUser(data, newUser("lister", "member", {"beta"})).value()["channels"],
            test::strings({"beta"}));
  const std::string before = test::readBytes(DataDir::recordPath(data.users(), "lister"));
  EXPECT_FALSE(createUser(data, newUser("lister", "admin")));
  EXPECT_EQ(test::readBytes(DataDir::recordPath(data.users(), "lister")), before);

  // Admins are records whose role is exactly "admin", disabled ones included.
  EXPECT_EQ(countAdmins(data), 0);
  EXPECT_FALSE(anyAdminExists(data));
  user("a1", "admin");
  for (const auto& [name, member, value] :
       {std::tuple{"a2", "disabled", Json::Value(true)}, {"odd", "role", Json::Value("Admin")}}) {
    Json::Value record = user(name, "admin");
    record[member] = value;
    ASSERT_TRUE(saveUser(data, record));
  }
  user("p", "publisher");
  EXPECT_EQ(countAdmins(data), 2);
  EXPECT_TRUE(anyAdminExists(data));

  // Profile texts are cut to 256 bytes (UTF-8 boundaries ignored), then control bytes become
  // spaces.
  const std::pair<std::string, std::string> texts[] = {
      {"Ada\tLovelace\r\n", "Ada Lovelace  "},
      {std::string("a\0b\x1f\x7f", 5), "a b \x7f"},
      {"  kept as is  ", "  kept as is  "},
      {std::string(300, 'x'), std::string(256, 'x')},
      {std::string(256, 'y'), std::string(256, 'y')},
      {std::string(255, 'x') + "\xC3\xA9tail", std::string(255, 'x') + "\xC3"},
      {std::string(256, 'z') + "\n", std::string(256, 'z')}};
  for (const auto& [text, expected] : texts) EXPECT_EQ(profileText(text), expected) << text;

  // Effective channels: the follows, then each group's channels, first occurrences only.
  for (const auto& [name, channels] : {std::pair{"g1", R"(["a","c"])"}, {"g2", R"(["c","d"])"}}) {
    Json::Value group = newGroupRecord(name);
    group["channels"] = parseJson(channels);
    ASSERT_TRUE(saveGroup(data, group));
  }
  Json::Value u = user("u");
  u["follows"] = parseJson(R"(["b","a",7,"b"])");
  u["groups"] = test::strings({"g1", "gone", "g2"});
  EXPECT_EQ(effectiveChannels(data, u), test::strings({"b", "a", "c", "d"}));
  EXPECT_EQ(effectiveChannels(data, user("bare")), Json::Value(Json::arrayValue));
}

TEST_F(IdentityTest, TheIndexSeesNewRewrittenAndRemovedTokenFiles) {
  user("alice"), user("bob");
  const std::string first = mintToken(data, "t1", "alice");
  settle();
  EXPECT_EQ(owner("not-yet") + owner("not-yet"), "");  // the second is a trusted miss
  EXPECT_EQ(owner(first), "alice");
  EXPECT_EQ(owner(mintToken(data, "t2", "bob")), "bob");
  settle();
  EXPECT_EQ(owner("still-not"), "");
  writeInPlace("t3", "fresh-file", "alice");  // a new file, written directly
  EXPECT_EQ(owner("fresh-file"), "alice");

  // Replaced by a rename, by another owner; then only the owner changes.
  writeToken("t1", "second-text", "bob");
  EXPECT_EQ(owner(first) + "|" + owner("second-text"), "|bob");
  writeToken("t1", "second-text", "alice");
  EXPECT_EQ(owner("second-text"), "alice");
  // Rewriting an existing file in place leaves the directory's modification time alone.
  settle();
  EXPECT_EQ(owner("unknown"), "");
  writeInPlace("t1", "rewritten", "bob");
  EXPECT_EQ(owner("rewritten") + "|" + owner("second-text"), "bob|");

  // Many tokens; deletions stop them at once. The scan is quadratic: compare it on a sample.
  std::vector<std::string> texts;
  for (int i = 0; i < 300; ++i) {
    texts.push_back(mintToken(data, test::numbered("n", i), i % 2 ? "alice" : "bob"));
  }
  settle();
  for (int i = 0; i < 300; i += 30) EXPECT_EQ(owner(texts[i]), i % 2 ? "alice" : "bob");
  for (int i = 0; i < 300; i += 3) ASSERT_TRUE(removeFile(tokenPath(test::numbered("n", i))));
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(resolveToken(data, texts[i], &index).has_value(), i % 3 != 0) << i;
  }
}

TEST_F(IdentityTest, TheIndexIgnoresStrayFilesAndADirectoryThatAppearsLater) {
  user("alice");
  fs::remove_all(data.tokens());
  EXPECT_EQ(resolveToken(data, "anything", &index), std::nullopt);
  const std::string text = mintToken(data, "t1", "alice");
  ASSERT_TRUE(writeFileAtomic(tokenPath("junk"), "{\"token_hash\": 1"));
  ASSERT_TRUE(writeFileAtomic(tokenPath("nohash"), "{\"user\": \"alice\"}"));
  ASSERT_TRUE(writeFileAtomic(data.tokens() / "notes.txt", "hello"));
  fs::create_directory(data.tokens() / "sub.json");
  EXPECT_EQ(owner(text) + "|" + owner("hello"), "alice|");
}

TEST_F(IdentityTest, ConcurrentLookupsWhileTokensComeAndGo) {
  user("alice"), user("bob");
  std::vector<std::string> stable;
  for (int i = 0; i < 20; ++i) stable.push_back(mintToken(data, test::numbered("s", i), "alice"));
  std::atomic<bool> wrong{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        for (const auto& text : stable) wrong = wrong || !resolveToken(data, text, &index);
      }
    });
  }
  for (int i = 0; i < 100; ++i) {
    const std::string name = test::numbered("churn", i), text = mintToken(data, name, "bob");
    if (!resolveToken(data, text, &index)) wrong = true;
    removeFile(tokenPath(name));
    if (resolveToken(data, text, &index)) wrong = true;
  }
  for (auto& reader : readers) reader.join();
  EXPECT_FALSE(wrong);
}

}  // namespace
}  // namespace quill::store
