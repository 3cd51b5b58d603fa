// The store's files and texts: atomic writes no reader sees torn, hostile files read as absent, the
// cache that answers as a fresh read, the data directory's layout, names, paths and time stamps.

#include "store/documents.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <sstream>

#include "base/json_reader.h"
#include "store/data_dir.h"
#include "store/document_cache.h"
#include "store/names.h"
#include "store/random.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"

namespace quill::store {
namespace {

using test::readBytes;
using namespace std::chrono_literals;

class DocumentsTest : public test::TempDirTest {
 protected:
  void writeRaw(const std::string& name, const std::string& bytes) {
    std::ofstream(dir() / name, std::ios::trunc) << bytes;
  }
  static Json::Value record(const std::string& name) {
    return test::parseJson(R"({"name":")" + name + "\"}");
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
  ASSERT_TRUE(writeJsonFile(doc, test::parseJson(R"({"z":1,"M":3})")));
  EXPECT_EQ(readBytes(doc), "{\n\t\"M\" : 3,\n\t\"z\" : 1\n}\n");
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
  // A bare file name is written in the current directory.
  const fs::path before = fs::current_path();
  fs::current_path(dir());
  const bool bare = writeFileAtomic("bare.json", "{}").ok();
  fs::current_path(before);
  EXPECT_TRUE(bare && readBytes(dir() / "bare.json") == "{}");
}

TEST_F(DocumentsTest, UnreadableFilesReadAsAbsentAndListingsSkipThem) {
  ASSERT_TRUE(writeJsonFile(dir() / "alice.json", record("alice")));
  ASSERT_TRUE(writeJsonFile(dir() / "bob.json", record("bob")));
  ASSERT_TRUE(writeJsonFile(dir() / "sub.json" / "nested.json", record("nested")));
  EXPECT_TRUE(base::parseJsonObject("{\"a\":" + std::string(50, '[') + std::string(50, ']') + "}"));
  const std::string deep = "{\"a\":" + std::string(5000, '[') + std::string(5000, ']') + "}";
  const std::map<std::string, std::string> skipped = {
      {"deep.json", deep}, {"broken.json", "{\"name\": "},    {"trailing.json", "{} {}"},
      {"empty.json", ""},  {"x.json.tmp", R"({"name":"x"})"}, {"notes.txt", "{}"},
      {"upper.JSON", "{}"}};
  for (const auto& [name, bytes] : skipped) writeRaw(name, bytes);
  Json::Value value = record("keep");
  for (const char* name : {"deep.json", "trailing.json", "empty.json"}) {
    EXPECT_FALSE(readJsonFile(dir() / name, value)) << name;
  }
  EXPECT_EQ(value, record("keep"));  // left alone
  std::map<std::string, std::string> listed;
  for (auto& [path, doc] : listJsonDir(dir())) listed[path.filename()] = doc["name"].asString();
  EXPECT_EQ(listed,
            (std::map<std::string, std::string>{{"alice.json", "alice"}, {"bob.json", "bob"}}));
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
  const std::tuple<const char*, const char*, const char*, const char*> steps[] = {
      {"missing", "", "", "-"},
      {"created", "r", "aaaa", "aaaa"},
      {"unchanged", "", "", "aaaa"},
      {"renamed over, same size", "r", "bbbb", "bbbb"},
      {"edited in place", "w", R"({"name":"in place"})", "in place"},
      {"made malformed", "w", R"({"name":)", "-"},
      {"mended", "w", R"({"name":"mended"})", "mended"},
      {"not an object", "w", R"(["name"])", "-"},
      {"deleted", "x", "", "-"},
      {"a directory", "d", "", "-"},
      {"a file again", "xr", "cccc", "cccc"}};
  DocumentCache cache;
  const fs::path file = dir() / "doc.json";
  for (const auto& [what, changes, text, expected] : steps) {
    for (const char* c = changes; *c; ++c) {
      ASSERT_TRUE(*c != 'r' || writeJsonFile(file, record(text)));
      if (*c == 'w') writeRaw("doc.json", text);
      if (*c == 'x') fs::remove(file);
      if (*c == 'd') fs::create_directory(file);
    }
    EXPECT_EQ(lookup(cache, file), expected) << what;
    EXPECT_EQ(lookup(cache, file), expected) << what << ", again";
  }
  DocumentCache small(2);  // past its capacity it starts afresh
  for (int n = 0; n < 15; ++n) {
    const fs::path path = dir() / (std::to_string(n % 5) + ".json");
    ASSERT_TRUE(writeJsonFile(path, record(std::to_string(n))));
    EXPECT_EQ(lookup(small, path), std::to_string(n));
  }
}

TEST_F(DocumentsTest, TheDataDirectoryIsPreparedAndCleanedAtStartUp) {
  const char* old = getenv("LOCALAPPDATA");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  for (const char* value : {"/u/Local", "", static_cast<const char*>(nullptr)}) {
    value ? setenv("LOCALAPPDATA", value, 1) : unsetenv("LOCALAPPDATA");
    EXPECT_EQ(defaultDataDir(),
              value && *value ? "/u/Local/Quillmoor/quillmoord-data" : "quillmoord-data");
  }
  saved ? setenv("LOCALAPPDATA", saved->c_str(), 1) : unsetenv("LOCALAPPDATA");
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
  EXPECT_EQ(tree(data.root()),
            "access-requests/ builds/ channels/ groups/ invites/ tokens/ users/ ");
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
  EXPECT_EQ(tree(data.root()), "access-requests/ builds/ " + build +
                                   " channels/ groups/ invites/ " + "tokens/ " + late +
                                   " users/ users/a.json users/b.json.tmp ");
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

const std::string kNul("a\0b", 3);

void expectAll(bool (*rule)(std::string_view), bool expected,
               std::initializer_list<std::string> texts) {
  for (const std::string& text : texts) {
    EXPECT_EQ(rule(text), expected) << testing::PrintToString(text);
  }
}

TEST(Names, DeviceNamesValidNamesAndSafeRelativePaths) {
  expectAll(isReservedDeviceName, true, {"CON", "nul", "Com1.json", "lpt9.tar.gz", "PRN.", "aux"});
  expectAll(isReservedDeviceName, false,
            {"console", "COM0", "LPT10", "CON-1", ".con", "", "a.CON"});
  expectAll(isValidName, true,
            {"a", std::string(128, 'a'), "Build_2026-05.01", "...", ".hidden", "a..b"});
  expectAll(isValidName, false,
            {"", ".", "..", "con", "Con", "nul.json", "a b", "a/b", "a\\b", "a:b",
             "\xC3\xA9t\xC3\xA9", "a+b", std::string(129, 'a'), kNul});
  expectAll(isSafeRelativePath, true,
            {"bin/game.exe", "a", "Game Data/\xC3\xA9t\xC3\xA9.pak", "a.b/c..d/e", "dir/.hidden",
             "\xF0\x9F\x98\x80.png"});
  // Escapes, bad segments, bad bytes; then strict UTF-8: over-long forms (NUL, "/", 4-byte),
  // surrogates, above 10FFFF, a 5-byte lead, a stray continuation, one cut short, a bad one.
  expectAll(isSafeRelativePath, false,
            {"",         "/bin/game.exe", "bin//game.exe", "bin/",  "bin\\game.exe", "../game.exe",
             "bin/../x", "./x",           "bin/.",         "C:/x",  "bin/aux.dll",   "bin./x",
             "bin/x.",   " bin/x",        "bin/x ",        "a\"b",  "a*b",           "a<b",
             "a>b",      "a?b",           "a|b",           "a\x1F", "a\x7F",         "a\tb",
             kNul});
  expectAll(isSafeRelativePath, false,
            {"\xC0\x80", "\xE0\x80\xAF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80", "\xED\xBF\xBF",
             "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "a\xBF", "\xE2\x82", "\xE2\x28\xA1"});
  // The smallest and largest value of each length, and both sides of the surrogate block.
  expectAll(isSafeRelativePath, true,
            {"\xC2\x80", "\xDF\xBF", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
             "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"});
  // At most 32 segments, 1024 bytes, 255 bytes a segment (bytes, not letters).
  std::string deep = "a", accented = "x";
  for (int i = 1; i < 32; ++i) deep += "/a";
  for (int i = 0; i < 127; ++i) accented += "\xC3\xA9";
  const std::string seg(255, 'a');
  const std::string full = seg + "/" + seg + "/" + seg + "/" + std::string(254, 'a') + "/b";
  ASSERT_EQ(full.size(), 1024u);
  expectAll(isSafeRelativePath, true, {deep, full, accented});
  expectAll(isSafeRelativePath, false,
            {deep + "/a", full + "d", seg + "a", "dir/" + seg + "a", accented + "a"});
}

TEST(UtcTime, FormatParseAndNow) {
  for (const auto& [seconds, text] :
       {std::pair<std::int64_t, const char*>{0, "1970-01-01T00:00:00Z"},
        {-1, "1969-12-31T23:59:59Z"},
        {951782400, "2000-02-29T00:00:00Z"},
        {1777627800, "2026-05-01T09:30:00Z"}}) {
    EXPECT_EQ(formatUtc(seconds), text);
    EXPECT_EQ(parseUtc(text), seconds) << text;
  }
  EXPECT_EQ(formatUtc(std::numeric_limits<std::int64_t>::max()), "invalid");
  EXPECT_EQ(parseUtc("2026-05-01T09:30:00"), 1777627800);  // the zone is ignored
  EXPECT_NEAR(parseUtc(nowUtcText()).value(), std::time(nullptr), 5);
  // Six numbers are needed, and the int offsets of a calendar time must not overflow.
  for (const char* text :
       {"", "invalid", "2026-05-01", "2026-05-01T09:30", "2026/05/01T09:30:00",
        "2026-05-01 09:30:00Z", "-2147483648-01-01T00:00:00Z", "2026--2147483648-01T00:00:00Z"}) {
    EXPECT_EQ(parseUtc(text), std::nullopt) << text;
  }
}

TEST(RandomString, RequestedLengthOfAllSixtyTwoLettersAndDigitsOnly) {
  for (const std::size_t length : {0u, 1u, 48u}) EXPECT_EQ(randomString(length).size(), length);
  // With 20000 draws the chance that one of the 62 characters never appears is below 1e-130.
  const std::string drawn = randomString(20000);
  const std::string all = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  EXPECT_EQ(std::set<char>(drawn.begin(), drawn.end()), std::set<char>(all.begin(), all.end()));
}

}  // namespace
}  // namespace quill::store
