// Users and their tokens. Every lookup goes through the token index and through the plain scan of
// the token files, which must agree whatever happened to the token directory since.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <thread>

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
using namespace std::chrono_literals;

class IdentityTest : public test::TempDirTest {
 protected:
  void SetUp() override { ASSERT_TRUE(data.prepare()); }
  // A user as made, then with `members` (JSON) set.
  Json::Value user(const std::string& name, const std::string& role = "member",
                   const std::string& members = "{}") {
    Json::Value record = createUser(data, NewUser{name, role, {}, "", "", false}).value();
    const Json::Value more = parseJson(members);
    for (const auto& key : more.getMemberNames()) record[key] = more[key];
    EXPECT_TRUE(saveUser(data, record));
    return record;
  }
  // A token file as another program may leave it: `doc` with ' for " and # for the hash of
  // `text`, put in place by a rename or else rewritten in place.
  std::string writeToken(const std::string& name, std::string doc, const std::string& text,
                         bool renamed = true) {
    std::replace(doc.begin(), doc.end(), '\'', '"');
    if (const auto at = doc.find('#'); at != std::string::npos) doc.replace(at, 1, hashToken(text));
    if (!renamed) std::ofstream(token(name), std::ios::trunc) << doc;
    EXPECT_TRUE(!renamed || writeFileAtomic(token(name), doc));
    return doc;
  }
  fs::path token(const std::string& name) const { return DataDir::recordPath(data.tokens(), name); }
  std::string owner(const std::string& text) {  // "" for nothing
    const auto viaIndex = resolveToken(data, text, &index);
    EXPECT_EQ(viaIndex, resolveToken(data, text)) << "index and scan disagree on " << text;
    return viaIndex ? (*viaIndex)["name"].asString() : "";
  }
  // The token directory untouched for an hour, as on a running server: the index may trust it.
  void settle() { fs::last_write_time(data.tokens(), fs::file_time_type::clock::now() - 1h); }
  DataDir data{dir() / "data"};
  TokenIndex index;
};

TEST_F(IdentityTest, ATokenResolvesToItsOwnerOnlyWhileEverythingAboutItHolds) {
  EXPECT_EQ(hashToken("abc"), "6437b3ac38465133ffb63b75273a8db548c558465d79db03fd359c6cd5bd9d85");
  EXPECT_EQ(hashToken(""), "af1349b9f5f9a1a6a0404dea36dcc9499bcb25c9adc112b7cc9a93cae41f3262");
  EXPECT_NE(hashToken(std::string("a\0b", 3)), hashToken("a"));
  user("alice", "publisher"), user("sam"), user("omar");
  user("dora", "member", R"({"disabled":true})");
  user("dina", "member", R"({"disabled":"true"})");  // only a boolean true disables
  // Shown once, stored only as its hash.
  const std::string t0 = mintToken(data, "t0", "alice"), t1 = mintToken(data, "t1", "alice");
  EXPECT_NE(t0, t1);
  EXPECT_EQ(t1.size(), kTokenLength);
  Json::Value record = parseJson(R"({"schema_version":1,"name":"t1","user":"alice"})");
  record["token_hash"] = hashToken(t1);
  record["created_at"] = (*findToken(data, "t1"))["created_at"];
  EXPECT_EQ(findToken(data, "t1"), record);
  std::string upper = hashToken("w");
  for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  const std::time_t now = std::time(nullptr);
  const std::string sso = "{'user':'sam','token_hash':'#','sso':true,'sso_validated_at':'";
  const std::tuple<const char*, std::string, const char*, const char*, bool> rows[] = {
      // token file, its record, text presented, owner answered, file kept
      {"nohash", "{'user':'alice'}", "y", "", true},
      {"numeric", "{'user':'alice','token_hash':12}", "z", "", true},
      {"upper", "{'user':'alice','token_hash':'" + upper + "'}", "w", "", true},
      {"orphan", "{'user':'ghost','token_hash':'#'}", "secret", "", true},
      {"badname", "{'user':'../users/x','token_hash':'#'}", "secret2", "", true},
      {"d1", "{'user':'dora','token_hash':'#'}", "d1", "", true},
      {"d2", "{'user':'dina','token_hash':'#'}", "d2", "dina", true},
      // Single sign-on: good for a day after the last sign-on; an expired token is removed, a
      // time that cannot be read is refused but the token kept. Other tokens never expire.
      {"stale", sso + formatUtc(now - 86401) + "'}", "s1", "", false},
      {"future", sso + formatUtc(now + 7 * 86400) + "'}", "s2", "sam", true},
      {"words", sso + "yesterday'}", "s3", "", true},
      {"odd", sso + "2026--2147483648-01T00:00:00'}", "s6", "", false},  // six numbers, no date
      {"missing", "{'user':'sam','token_hash':'#','sso':true}", "s7", "", true},
      {"plain", "{'user':'sam','token_hash':'#','sso_validated_at':'2000-01-01T00:00:00Z'}", "s8",
       "sam", true},
      // A token without `user` (or with an empty one) predates per-user tokens: it belongs to an
      // admin named like it, made unless it exists, if a user may have that name.
      {"nadia", "{'name':'nadia','token_hash':'#'}", "legacy-1", "nadia", true},
      {"omar", "{'name':'omar','user':'','token_hash':'#'}", "legacy-2", "omar", true},
      {"con", "{'name':'con','token_hash':'#'}", "legacy-3", "", true},
      {"dots", "{'name':'..','token_hash':'#'}", "legacy-4", "", true}};
  ASSERT_TRUE(writeFileAtomic(data.tokens() / "notes.txt", "hello"));
  fs::create_directory(data.tokens() / "sub.json");
  for (const auto& [file, doc, text, expected, kept] : rows) {
    const std::string bytes = writeToken(file, doc, text);
    EXPECT_EQ(owner(text), expected) << file;
    EXPECT_EQ(fs::exists(token(file)), kept) << file;
    // Untouched, but for the upgraded legacy tokens (named like their owner).
    const bool changed = !kept || file == std::string(expected);
    EXPECT_EQ(changed ? bytes : test::readBytes(token(file)), bytes) << file;
  }
  EXPECT_EQ(owner(t0) + "|" + owner("") + owner("t0") + owner("secret") + owner("hello"), "alice|");
  const Json::Value nadia = findUser(data, "nadia").value();
  EXPECT_EQ(nadia, resolveToken(data, "legacy-1"));
  EXPECT_EQ(nadia["role"].asString() + nadia["groups"].toStyledString(), "admin[]\n");
  EXPECT_EQ((*findUser(data, "omar"))["role"], "member");
  for (const char* name : {"nadia", "omar"}) EXPECT_EQ((*findToken(data, name))["user"], name);
  EXPECT_FALSE(findToken(data, "con")->isMember("user"));
  // Exactly a day is still good; retry if the second ticked between writing and resolving.
  bool checked = false;
  for (int attempt = 0; attempt < 5 && !checked; ++attempt) {
    const std::time_t start = std::time(nullptr);
    writeToken("day", sso + formatUtc(start - 86400) + "'}", "day");
    const bool accepted = resolveToken(data, "day", &index).has_value();
    checked = std::time(nullptr) == start;
    EXPECT_TRUE(accepted || !checked);
  }
  EXPECT_TRUE(checked);
}

TEST_F(IdentityTest, UserRules) {
  // A channel list given to any role is kept, and an existing record is never replaced.
  const auto lister = createUser(data, NewUser{"lister", "member", {"beta"}, "", "", false});
  EXPECT_EQ(lister.value()["channels"], test::strings({"beta"}));
  const std::string before = test::readBytes(DataDir::recordPath(data.users(), "lister"));
  EXPECT_FALSE(createUser(data, NewUser{"lister", "admin", {}, "", "", false}));
  EXPECT_EQ(test::readBytes(DataDir::recordPath(data.users(), "lister")), before);
  // Admins are the records whose role is exactly "admin", disabled ones included.
  EXPECT_EQ(std::pair(countAdmins(data), anyAdminExists(data)), std::pair(0, false));
  user("a1", "admin"), user("p", "publisher");
  user("a2", "admin", R"({"disabled":true})");
  user("odd", "admin", R"({"role":"Admin"})");
  EXPECT_EQ(std::pair(countAdmins(data), anyAdminExists(data)), std::pair(2, true));
  // Profile texts are cut to 256 bytes (UTF-8 aside), then control bytes become spaces.
  const std::string k(255, 'k'), nul("a\0b\x1f\x7f", 5);
  // clang-format off
  const std::map<std::string, std::string> texts = {
      {"Ada\tLovelace\r\n", "Ada Lovelace  "}, {nul, "a b \x7f"}, {"  as is  ", "  as is  "},
      {k + "xx", k + "x"}, {k + "y", k + "y"}, {k + "\xC3\xA9tail", k + "\xC3"}, {k + "z\n", k + "z"}};
  // clang-format on
  for (const auto& [text, expected] : texts) EXPECT_EQ(profileText(text), expected) << text;
  // Effective channels: the follows, then each group's channels, first occurrences only.
  for (const auto& [name, channels] : {std::pair{"g1", R"(["a","c"])"}, {"g2", R"(["c","d"])"}}) {
    Json::Value group = newGroupRecord(name);
    group["channels"] = parseJson(channels);
    ASSERT_TRUE(saveGroup(data, group));
  }
  const Json::Value u =
      user("u", "member", R"({"follows":["b","a",7,"b"],"groups":["g1","x","g2"]})");
  EXPECT_EQ(effectiveChannels(data, u), test::strings({"b", "a", "c", "d"}));
  EXPECT_EQ(effectiveChannels(data, user("bare")), Json::Value(Json::arrayValue));
}

TEST_F(IdentityTest, TheIndexSeesTokenFilesComeChangeAndGo) {
  user("alice"), user("bob");
  fs::remove_all(data.tokens());  // it may appear later
  EXPECT_EQ(owner("anything"), "");
  const std::string first = mintToken(data, "t1", "alice");
  settle();
  EXPECT_EQ(owner("not-yet") + owner("not-yet"), "");  // the second is a trusted miss
  EXPECT_EQ(owner(first), "alice");
  EXPECT_EQ(owner(mintToken(data, "t2", "bob")), "bob");
  settle();
  EXPECT_EQ(owner("still-not"), "");
  writeToken("t3", "{'user':'alice','token_hash':'#'}", "fresh-file", false);  // a new file
  EXPECT_EQ(owner("fresh-file"), "alice");
  // Replaced by a rename, by another owner; then only the owner changes.
  writeToken("t1", "{'user':'bob','token_hash':'#'}", "second");
  EXPECT_EQ(owner(first) + "|" + owner("second"), "|bob");
  writeToken("t1", "{'user':'alice','token_hash':'#'}", "second");
  EXPECT_EQ(owner("second"), "alice");
  // Rewriting an existing file in place leaves the directory's modification time alone.
  settle();
  EXPECT_EQ(owner("unknown"), "");
  writeToken("t1", "{'user':'bob','token_hash':'#'}", "rewritten", false);
  EXPECT_EQ(owner("rewritten") + "|" + owner("second"), "bob|");
  // Many tokens come and go while other threads look up two that stay; deletions stop a token at
  // once. The scan is quadratic: compare it on a sample.
  const std::string stable[] = {"fresh-file", "rewritten"};
  std::atomic<int> wrong{0};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      for (int n = 0; n < 2000; ++n) wrong += resolveToken(data, stable[n % 2], &index) ? 0 : 1;
    });
  }
  std::vector<std::string> texts;
  for (int i = 0; i < 300; ++i) texts.push_back(mintToken(data, test::numbered("n", i), "bob"));
  settle();
  for (int i = 0; i < 300; i += 30) EXPECT_EQ(owner(texts[i]), "bob");
  for (int i = 0; i < 300; i += 3) ASSERT_TRUE(removeFile(token(test::numbered("n", i))));
  for (int i = 0; i < 300; ++i) {
    EXPECT_EQ(resolveToken(data, texts[i], &index).has_value(), i % 3 != 0) << i;
  }
  for (auto& reader : readers) reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace quill::store
