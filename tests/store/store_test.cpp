// The store: atomic writes no reader sees torn, hostile files read as absent, the cache answering
// as a fresh read, the data directory's layout, names, paths, time stamps; users and their tokens,
// every lookup through the token index and the plain scan, which must agree whatever happened.

#include "store/documents.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <thread>

#include "base/json_reader.h"
#include "store/data_dir.h"
#include "store/document_cache.h"
#include "store/groups.h"
#include "store/names.h"
#include "store/random.h"
#include "store/token_index.h"
#include "store/tokens.h"
#include "store/users.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"
#include "support/numbered.h"

namespace quill::store {
namespace {

using test::parseJson;
using test::readBytes;
using namespace std::chrono_literals;

class DocumentsTest : public test::TempDirTest {
 protected:
  void writeRaw(const std::string& name, const std::string& bytes) {
    std::ofstream(dir() / name, std::ios::trunc) << bytes;
  }
  static Json::Value record(const std::string& name) {
    return parseJson(R"({"name":")" + name + "\"}");
  }
  // Every entry below `root`, sorted, each followed by a space; directories end in "/".
  static std::string tree(const fs::path& root) {
    std::set<std::string> found;
    for (const auto& e : fs::recursive_directory_iterator(root)) {
      found.insert(e.path().lexically_relative(root).string() + (e.is_directory() ? "/ " : " "));
    }
    return std::accumulate(found.begin(), found.end(), std::string());
  }
};

TEST_F(DocumentsTest, WritesReplaceWholeSortedDocumentsAndFailuresLeaveOthersAlone) {
  // The parent is made; the whole document is replaced, its members sorted by their keys' bytes.
  const fs::path doc = dir() / "users" / "order.json";
  ASSERT_TRUE(writeJsonFile(doc, record("alice")));
  ASSERT_TRUE(writeJsonFile(doc, parseJson(R"({"z":1,"M":3})")));
  // A new file is renamed into place, so no reader ever sees a torn one: a link keeps the old.
  fs::create_hard_link(doc, dir() / "old.json");
  ASSERT_TRUE(writeJsonFile(doc, record("alice")));
  EXPECT_EQ(readBytes(dir() / "old.json"), "{\n\t\"M\" : 3,\n\t\"z\" : 1\n}\n");
  // Another writer's temporary (or a crash's) is not this write's to touch or trip over.
  writeRaw("state.json.tmp", "theirs");
  fs::create_directories(dir() / "taken.json" / "inside");  // a rename cannot replace it
  EXPECT_FALSE(writeFileAtomic(dir() / "taken.json", "{}"));
  ASSERT_TRUE(writeFileAtomic(dir() / "state.json", "{}"));
  const auto written = writeFileAtomic(dir() / "state.json" / "child.json", "{}");
  EXPECT_EQ(written.failure().sysErrno, ENOTDIR) << written.error();  // the cause is passed on
  EXPECT_EQ(tree(dir()) + readBytes(dir() / "state.json.tmp"),
            "old.json state.json state.json.tmp taken.json/ taken.json/inside/ users/ "
            "users/order.json theirs");
  const fs::path before = fs::current_path();  // a bare name is written in the current directory
  fs::current_path(dir());
  const bool bare = writeFileAtomic("bare.json", "{}").ok();
  fs::current_path(before);
  EXPECT_TRUE(bare && readBytes(dir() / "bare.json") == "{}");
}

TEST_F(DocumentsTest, UnreadableFilesReadAsAbsentAndListingsSkipThem) {
  ASSERT_TRUE(writeJsonFile(dir() / "alice.json", record("alice")));
  ASSERT_TRUE(writeJsonFile(dir() / "sub.json" / "nested.json", record("nested")));
  const auto nested = [](int n) {
    return "{\"a\":" + std::string(n, '[') + std::string(n, ']') + "}";
  };
  EXPECT_TRUE(base::parseJsonObject(nested(50)));
  const std::string deep = nested(5000);
  for (const auto& [name, bytes] : std::map<std::string, std::string>{
           {"deep.json", deep}, {"broken.json", "{\"name\": "}, {"trailing.json", "{} {}"},
           {"empty.json", ""}, {"x.json.tmp", "{}"}, {"notes.txt", "{}"}, {"upper.JSON", "{}"}}) {
    writeRaw(name, bytes);
  }
  Json::Value value = record("keep");
  for (const char* name : {"deep.json", "trailing.json", "empty.json"}) {
    EXPECT_FALSE(readJsonFile(dir() / name, value)) << name;
  }
  EXPECT_EQ(value, record("keep"));  // left alone
  std::string listed;
  for (auto& [file, doc] : listJsonDir(dir())) {
    listed += file.filename().string() + doc["name"].asCString();
  }
  EXPECT_EQ(listed, "alice.jsonalice");
  EXPECT_TRUE(listJsonDir(dir() / "never-written").empty());
  EXPECT_THROW(listJsonDir(dir() / "notes.txt"), fs::filesystem_error);
  EXPECT_TRUE(removeFile(dir() / "notes.txt"));
  EXPECT_FALSE(removeFile(dir() / "notes.txt"));
}

TEST_F(DocumentsTest, TheCacheSeesEveryChangeAtTheNextLookupAndOutlivesItsCapacity) {
  const auto lookup = [](DocumentCache& cache, const fs::path& path) {
    Json::Value fresh;
    const bool read = readJsonFile(path, fresh);
    auto cached = cache.read(path);
    EXPECT_EQ(cached, read ? std::optional(fresh) : std::nullopt) << path;
    return cached ? (*cached)["name"].asString() : "-";
  };
  // Changes: r a rename over (a new inode), w an edit in place, x removal, d a directory made.
  const std::tuple<const char*, const char*, const char*> steps[] = {
      {"", "", "-"},         {"r", "aaaa", "aaaa"}, {"", "", "aaaa"},
      {"r", "bbbb", "bbbb"},  // renamed over, same size
      {"w", R"({"name":"in place"})", "in place"}, {"w", R"({"name":)", "-"},
      {"w", R"({"name":"mended"})", "mended"},     {"w", R"(["name"])", "-"},
      {"x", "", "-"},        {"d", "", "-"},        {"xr", "cccc", "cccc"}};
  DocumentCache cache;
  const fs::path file = dir() / "doc.json";
  for (const auto& [changes, text, expected] : steps) {
    for (const char* c = changes; *c; ++c) {
      ASSERT_TRUE(*c != 'r' || writeJsonFile(file, record(text)));
      if (*c == 'w') writeRaw("doc.json", text);
      if (*c == 'x') fs::remove(file);
      if (*c == 'd') fs::create_directory(file);
    }
    EXPECT_EQ(lookup(cache, file) + lookup(cache, file), std::string(expected) + expected)
        << text;
  }
  DocumentCache small(2);  // past its capacity it starts afresh
  for (int n = 0; n < 8; ++n) {
    const fs::path path = dir() / (std::to_string(n % 3) + ".json");
    ASSERT_TRUE(writeJsonFile(path, record(std::to_string(n))));
    EXPECT_EQ(lookup(small, path), std::to_string(n));
  }
}

TEST_F(DocumentsTest, TheDataDirectoryIsPreparedAndCleanedAtStartUp) {
  // Without LOCALAPPDATA (or with it empty) the data lives beside the working directory.
  const char* old = getenv("LOCALAPPDATA");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  setenv("LOCALAPPDATA", "", 1);
  EXPECT_EQ(defaultDataDir(), "quillmoord-data");
  unsetenv("LOCALAPPDATA");
  EXPECT_EQ(defaultDataDir(), "quillmoord-data");
  if (saved) setenv("LOCALAPPDATA", saved->c_str(), 1);
  EXPECT_EQ(DataDir("quillmoord-data").root(), fs::current_path() / "quillmoord-data");

  writeRaw("tokens", "a file where a directory belongs");
  const auto prepared = DataDir(dir()).prepare();
  ASSERT_FALSE(prepared);
  EXPECT_TRUE(prepared.error().starts_with("cannot create directory " + dir().string() + "/tokens"))
      << prepared.error();
  EXPECT_NE(prepared.failure().sysErrno, 0) << "the cause is kept";
  const DataDir data(dir() / "missing" / "data");
  ASSERT_TRUE(data.prepare());
  ASSERT_TRUE(data.prepare()) << "preparing again is harmless";
  // Only document temporaries of before start-up go: not other names, nor build records, nor a
  // write begun since (an offline command's).
  const std::string t = ".json.AbCdEfGh1234.tmp", build = "builds/b1" + t, late = "tokens/t" + t;
  const auto startedAt = fs::file_time_type::clock::now();
  for (const std::string& file : {"users/a" + t, "sso" + t, "access-requests/r" + t, build, late,
                                  std::string("users/a.json"), std::string("users/b.json.tmp")}) {
    std::ofstream(data.root() / file) << "{";
    fs::last_write_time(data.root() / file, startedAt + (file == late ? 1s : -60s));
  }
  data.removeDocumentLeftovers(startedAt);
  EXPECT_EQ(tree(data.root()), "access-requests/ builds/ " + build + " channels/ groups/ " +
                                   "invites/ tokens/ " + late + " users/ users/a.json " +
                                   "users/b.json.tmp ");
}

TEST(DataDirLayout, WorkInProgressIsStagingAndDocumentTemporariesOutsideBuildFiles) {
  // + work in progress, - not; a trailing "/" marks a directory, @ a document temporary's name.
  std::istringstream table(
      "+builds/~incoming/ +builds/b1/incoming/ +incoming/ +users/@ +@ +builds/b1/@ "
      "-builds/b1/files/incoming/ -builds/b1/files/ -users/incoming/ -builds/b1/files/@ "
      "-builds/b1/files/deep/@ -users/alice.json.tmp -users/alice.json.AbCdEfGh123.tmp "
      "-users/alice.json.AbCdEfGh12-4.tmp -users/.AbCdEfGh1234.tmp -users/alice.json");
  for (std::string path; table >> path;) {
    const bool expected = path[0] == '+', directory = path.ends_with('/');
    path = path.substr(1, path.size() - 1 - directory);
    if (path.ends_with('@')) path.replace(path.size() - 1, 1, "alice.json.AbCdEfGh1234.tmp");
    EXPECT_EQ(DataDir::isWorkInProgress(path, directory), expected) << path;
  }
  for (const char* path : {"builds", "builds/b2"}) EXPECT_TRUE(DataDir::isVolumeLink(path)) << path;
  for (const char* path : {"builds/b2/files", "users", "buildsx", "x/builds"}) {
    EXPECT_FALSE(DataDir::isVolumeLink(path)) << path;
  }
}

void expectAll(bool (*rule)(std::string_view), bool expected, std::vector<std::string> texts) {
  for (const auto& text : texts) EXPECT_EQ(rule(text), expected) << testing::PrintToString(text);
}

TEST(Names, DeviceNamesValidNamesAndSafeRelativePaths) {
  const std::string nul("a\0b", 3), seg(255, 'a');
  expectAll(isReservedDeviceName, true, {"CON", "nul", "Com1.json", "lpt9.tar.gz", "PRN.", "aux"});
  expectAll(isReservedDeviceName, false, {"console", "COM0", "LPT10", "CON-1", "", "a.CON"});
  expectAll(isValidName, true, {"a", std::string(128, 'a'), "Build_2026-05.01", "...", "a..b"});
  expectAll(isValidName, false, {"", ".", "..", "Con", "nul.json", "a b", "a/b", "a\\b", "a:b",
                                 "\xC3\xA9", "a+b", std::string(129, 'a'), nul});
  // At most 32 segments, 1024 bytes, 255 bytes a segment (bytes, not letters); strict UTF-8 with
  // the smallest and largest value of each length and both sides of the surrogate block.
  std::string deep = "a", accented = "x";
  for (int i = 1; i < 32; ++i) deep += "/a";
  for (int i = 0; i < 127; ++i) accented += "\xC3\xA9";
  const std::string full = seg + "/" + seg + "/" + seg + "/" + std::string(254, 'a') + "/b";
  expectAll(isSafeRelativePath, true,
            {"bin/game.exe", "a", "Game Data/\xC3\xA9t\xC3\xA9.pak", "a.b/c..d/e", "dir/.hidden",
             "\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
             "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF", deep, full, accented});
  // Escapes, bad segments, bad bytes; over-long forms (NUL, "/", 4-byte), surrogates, above
  // 10FFFF, a 5-byte lead, a stray continuation, one cut short, a bad one; one past each bound.
  std::vector<std::string> refused = {
      "", "/bin/game.exe", "bin//game.exe", "bin/", "../game.exe", "bin/../x", "./x", "bin/.",
      "C:/x", "bin/aux.dll", "bin./x", "bin/x.", " bin/x", "bin/x ", nul, "\xC0\x80",
      "\xE0\x80\xAF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF", "\xF4\x90\x80\x80",
      "\xF8\x88\x80\x80\x80", "a\xBF", "\xE2\x82", "\xE2\x28\xA1", deep + "/a", full + "d",
      seg + "a", "dir/" + seg + "a", accented + "a"};
  for (const char c : std::string("\\\"*<>?|\x1F\x7F\t")) refused.push_back({'a', c, 'b'});
  expectAll(isSafeRelativePath, false, refused);
}

TEST(UtcTime, FormatParseAndNow) {
  for (const auto& [seconds, text] :
       {std::pair<std::int64_t, const char*>{0, "1970-01-01T00:00:00Z"},
        {-1, "1969-12-31T23:59:59Z"}, {951782400, "2000-02-29T00:00:00Z"}}) {
    EXPECT_EQ(formatUtc(seconds), text);
    EXPECT_EQ(parseUtc(text), seconds) << text;
  }
  EXPECT_EQ(formatUtc(std::numeric_limits<std::int64_t>::max()), "invalid");
  EXPECT_EQ(parseUtc("2026-05-01T09:30:00"), 1777627800);  // the zone is ignored
  EXPECT_NEAR(parseUtc(nowUtcText()).value(), std::time(nullptr), 5);
  // Six numbers are needed, and the int offsets of a calendar time must not overflow.
  for (const char* text : {"", "2026-05-01T09:30", "2026/05/01T09:30:00", "2026-05-01 09:30:00Z",
                           "-2147483648-01-01T00:00:00Z", "2026--2147483648-01T00:00:00Z"}) {
    EXPECT_EQ(parseUtc(text), std::nullopt) << text;
  }
}

TEST(RandomString, DrawsFromAllSixtyTwoLettersAndDigits) {
  // Secrets' strength. With 20000 draws the chance that one of the 62 never appears is < 1e-130.
  const std::string drawn = randomString(20000);
  EXPECT_EQ(std::set<char>(drawn.begin(), drawn.end()).size(), 62u);
}

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
  // The stored form: a hash of every byte, in hex.
  EXPECT_EQ(hashToken("abc"), "6437b3ac38465133ffb63b75273a8db548c558465d79db03fd359c6cd5bd9d85");
  EXPECT_NE(hashToken(std::string("a\0b", 3)), hashToken("a"));
  user("alice", "publisher"), user("sam"), user("omar");
  user("dora", "member", R"({"disabled":true})");
  user("dina", "member", R"({"disabled":"true"})");  // only a boolean true disables
  // Shown once, stored only as its hash.
  const std::string t0 = mintToken(data, "t0", "alice"), t1 = mintToken(data, "t1", "alice");
  EXPECT_NE(t0, t1);
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
      {"con", "{'name':'con','token_hash':'#'}", "legacy-3", "", true}};
  ASSERT_TRUE(writeFileAtomic(data.tokens() / "notes.txt", "hello"));
  fs::create_directory(data.tokens() / "sub.json");
  for (const auto& [file, doc, text, expected, kept] : rows) {
    const std::string bytes = writeToken(file, doc, text);
    EXPECT_EQ(owner(text), expected) << file;
    EXPECT_EQ(fs::exists(token(file)), kept) << file;
    // Untouched, but for the upgraded legacy tokens (named like their owner).
    const bool changed = !kept || file == std::string(expected);
    EXPECT_EQ(changed ? bytes : readBytes(token(file)), bytes) << file;
  }
  EXPECT_EQ(owner(t0) + "|" + owner("") + owner("t0") + owner("secret") + owner("hello"), "alice|");
  const Json::Value nadia = findUser(data, "nadia").value();
  EXPECT_EQ(nadia, resolveToken(data, "legacy-1"));
  EXPECT_EQ(nadia["role"].asString() + nadia["groups"].toStyledString(), "admin[]\n");
  EXPECT_EQ((*findUser(data, "omar"))["role"], "member");
  for (const char* name : {"nadia", "omar"}) EXPECT_EQ((*findToken(data, name))["user"], name);
  EXPECT_FALSE(findToken(data, "con")->isMember("user"));
  bool checked = false;  // exactly a day is still good; again if the second ticked meanwhile
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
  EXPECT_FALSE(createUser(data, NewUser{"lister", "admin", {}, "", "", false}));
  EXPECT_EQ(findUser(data, "lister"), lister.value());
  // Admins are the records whose role is exactly "admin", disabled ones included.
  EXPECT_EQ(std::pair(countAdmins(data), anyAdminExists(data)), std::pair(0, false));
  user("a1", "admin"), user("a2", "admin", R"({"disabled":true})");
  user("odd", "admin", R"({"role":"Admin"})");
  EXPECT_EQ(std::pair(countAdmins(data), anyAdminExists(data)), std::pair(2, true));
  // Profile texts are cut to 256 bytes (UTF-8 aside), then control bytes (not DEL) become spaces.
  const std::string k(255, 'k');
  for (const auto& [text, expected] : std::map<std::string, std::string>{
           {std::string("a\0b\x1f\x7f", 5), "a b \x7f"}, {k + "\xC3\xA9", k + "\xC3"},
           {k + "z\n", k + "z"}}) {
    EXPECT_EQ(profileText(text), expected) << text;
  }
  // Effective channels: the follows, then each group's channels, first occurrences only.
  Json::Value group = newGroupRecord("g1");
  group["channels"] = parseJson(R"(["a","c"])");
  ASSERT_TRUE(saveGroup(data, group));
  const Json::Value u = user("u", "member", R"({"follows":["b","a",7,"b"],"groups":["g1","x"]})");
  EXPECT_EQ(effectiveChannels(data, u), test::strings({"b", "a", "c"}));
}

TEST_F(IdentityTest, TheIndexSeesTokenFilesComeChangeAndGo) {
  user("alice"), user("bob");
  fs::remove_all(data.tokens());  // it may appear later
  EXPECT_EQ(owner("anything"), "");
  const std::string first = mintToken(data, "t1", "alice");
  settle();
  EXPECT_EQ(owner("not-yet") + owner("not-yet"), "");  // the second is a trusted miss
  EXPECT_EQ(owner(first) + owner(mintToken(data, "t2", "bob")), "alicebob");
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
  // Tokens come and go while another thread looks up one that stays; a deletion stops one at once.
  std::atomic<int> wrong{0};
  std::thread reader([&] {
    for (int n = 0; n < 500; ++n) wrong += resolveToken(data, "fresh-file", &index) ? 0 : 1;
  });
  std::vector<std::string> texts;
  for (int i = 0; i < 60; ++i) texts.push_back(mintToken(data, test::numbered("n", i), "bob"));
  settle();
  for (int i = 0; i < 60; i += 3) ASSERT_TRUE(removeFile(token(test::numbered("n", i))));
  for (int i = 0; i < 60; ++i) EXPECT_EQ(owner(texts[i]), i % 3 ? "bob" : "") << i;
  reader.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace quill::store
