// Documents on disk: atomic writes no reader sees torn, hostile files read as absent, the cache
// that answers exactly as a fresh read, and the data directory's layout.

#include "store/documents.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <fstream>
#include <map>
#include <numeric>
#include <set>
#include <thread>

#include "base/json_reader.h"
#include "store/data_dir.h"
#include "store/document_cache.h"
#include "support/api_fixture.h"

namespace quill::store {
namespace {

using test::readBytes;

class DocumentsTest : public test::TempDirTest {
 protected:
  void writeRaw(const std::string& name, const std::string& bytes) {
    std::ofstream(dir() / name, std::ios::trunc) << bytes;
  }
  static Json::Value record(const std::string& name) {
    return test::parseJson(R"({"name":")" + name + "\"}");
  }
  // The entries of `in`, sorted, each followed by a space; directories end in "/".
  static std::string names(const fs::path& in) {
    std::set<std::string> found;
    for (const auto& e : fs::directory_iterator(in)) {
      found.insert(e.path().filename().string() + (e.is_directory() ? "/ " : " "));
    }
    return std::accumulate(found.begin(), found.end(), std::string());
  }
};

TEST_F(DocumentsTest, WritesReplaceWholeSortedDocumentsAndFailuresLeaveOthersAlone) {
  Json::Value first = record("alice");
  first["display_name"] = "Alice";
  ASSERT_TRUE(writeJsonFile(dir() / "users" / "alice.json", first));  // the parent is created
  ASSERT_TRUE(writeJsonFile(dir() / "users" / "alice.json", record("alice")));
  EXPECT_EQ(names(dir() / "users"), "alice.json ");
  Json::Value read;
  ASSERT_TRUE(readJsonFile(dir() / "users" / "alice.json", read));
  EXPECT_EQ(read, record("alice"));
  // Members in ascending byte order of their keys, and a final newline.
  ASSERT_TRUE(writeJsonFile(dir() / "order.json", test::parseJson(R"({"z":1,"a":2,"M":3})")));
  EXPECT_EQ(readBytes(dir() / "order.json"), "{\n\t\"M\" : 3,\n\t\"a\" : 2,\n\t\"z\" : 1\n}\n");

  // Another writer's temporary (or a crash's) is not this write's to touch or trip over.
  writeRaw("state.json.tmp", "theirs");
  fs::create_directories(dir() / "taken.json" / "inside");  // a rename cannot replace it
  EXPECT_FALSE(writeFileAtomic(dir() / "taken.json", "{}"));
  ASSERT_TRUE(writeFileAtomic(dir() / "state.json", "{}"));
  EXPECT_EQ(names(dir()), "order.json state.json state.json.tmp taken.json/ users/ ");
  EXPECT_EQ(readBytes(dir() / "state.json.tmp"), "theirs");
  const auto written = writeFileAtomic(dir() / "order.json" / "child.json", "{}");
  ASSERT_FALSE(written);
  EXPECT_EQ(written.failure().sysErrno, ENOTDIR) << written.error();  // the cause is passed on

  // A bare file name is written in the current directory.
  const fs::path before = fs::current_path();
  fs::current_path(dir());
  const bool bare = writeFileAtomic("bare.json", "{}").ok();
  fs::current_path(before);
  EXPECT_TRUE(bare);
  EXPECT_EQ(readBytes(dir() / "bare.json"), "{}");
}

TEST_F(DocumentsTest, ConcurrentWritersOfOneDocumentNeverShowATornOrMissingFile) {
  // Documents of different sizes, so that two writes run together would not parse.
  std::vector<Json::Value> versions(4, record("beta"));
  for (int i = 0; i < 4; ++i) versions[i]["pad"] = std::string(1000 * (i + 1), 'x');
  const fs::path path = dir() / "beta.json";
  ASSERT_TRUE(writeJsonFile(path, versions[0]));
  std::atomic<int> failedWrites{0}, reads{0}, unreadable{0};
  std::atomic<bool> writing{true};
  std::thread reader([&] {
    for (Json::Value doc; writing; ++reads) {
      const bool ok = readJsonFile(path, doc) && std::count(versions.begin(), versions.end(), doc);
      unreadable += ok ? 0 : 1;
    }
  });
  std::vector<std::thread> writers;
  for (const Json::Value& doc : versions) {
    writers.emplace_back([&, doc] {
      for (int n = 0; n < 150; ++n) failedWrites += writeJsonFile(path, doc) ? 0 : 1;
    });
  }
  for (auto& writer : writers) writer.join();
  writing = false;
  reader.join();
  EXPECT_EQ(failedWrites, 0);
  EXPECT_EQ(unreadable, 0) << "of " << reads << " reads";
  EXPECT_EQ(names(dir()), "beta.json ");  // no temporary left behind
}

TEST_F(DocumentsTest, UnreadableFilesReadAsAbsentAndListingsSkipThem) {
  ASSERT_TRUE(writeJsonFile(dir() / "alice.json", record("alice")));
  ASSERT_TRUE(writeJsonFile(dir() / "bob.json", record("bob")));
  ASSERT_TRUE(writeJsonFile(dir() / "sub.json" / "nested.json", record("nested")));
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  EXPECT_TRUE(base::parseJsonObject("{\"a\":" + std::string(50, '[') + std::string(50, ']') + "}"));
  const std::string skipped[] = {// name, bytes
                                 "deep.json",     "{\"a\":" + deep + "}",
                                 "broken.json",   "{\"name\": ",
                                 "trailing.json", "{} {}",
                                 "empty.json",    "",
                                 "x.json.tmp",    R"({"name": "x"})",
                                 "notes.txt",     "{}",
                                 "upper.JSON",    "{}"};
  for (int i = 0; i < 14; i += 2) writeRaw(skipped[i], skipped[i + 1]);
  Json::Value value = record("keep");
  for (const char* name :
       {"missing.json", "deep.json", "broken.json", "trailing.json", "empty.json", "sub.json"}) {
    EXPECT_FALSE(readJsonFile(dir() / name, value)) << name;
  }
  EXPECT_EQ(value, record("keep"));  // left alone
  std::map<std::string, Json::Value> listed;
  for (auto& [path, doc] : listJsonDir(dir())) listed[path.filename().string()] = doc;
  EXPECT_EQ(listed, (std::map<std::string, Json::Value>{{"alice.json", record("alice")},
                                                        {"bob.json", record("bob")}}));
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
  // Each step's changes: r a rename over (a new inode), w an edit in place, x removal, d mkdir.
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
  const bool had = getenv("LOCALAPPDATA");
  const std::string saved = had ? getenv("LOCALAPPDATA") : "";
  for (auto [value, expected] : {std::pair{"/u/Local", "/u/Local/Quillmoor/quillmoord-data"},
                                 {"", "quillmoord-data"},
                                 {nullptr, "quillmoord-data"}}) {
    value ? setenv("LOCALAPPDATA", value, 1) : unsetenv("LOCALAPPDATA");
    EXPECT_EQ(defaultDataDir(), fs::path(expected)) << (value ? value : "unset");
  }
  had ? setenv("LOCALAPPDATA", saved.c_str(), 1) : unsetenv("LOCALAPPDATA");
  EXPECT_EQ(DataDir("quillmoord-data").root(), fs::current_path() / "quillmoord-data");

  writeRaw("tokens", "a file where a directory belongs");
  const auto prepared = DataDir(dir()).prepare();
  ASSERT_FALSE(prepared);
  EXPECT_TRUE(
      prepared.error().starts_with("cannot create directory " + dir().string() + "/tokens: "))
      << prepared.error();
  EXPECT_NE(prepared.failure().sysErrno, 0) << "the cause is kept";
  const DataDir data(dir() / "missing" / "data");
  ASSERT_TRUE(data.prepare());
  ASSERT_TRUE(data.prepare()) << "preparing again is harmless";
  EXPECT_EQ(names(data.root()),
            "access-requests/ builds/ channels/ groups/ invites/ tokens/ users/ ");

  // Only document temporaries older than start-up go: not other names, build records, or a write
  // begun after start-up (an offline command's).
  const std::string tmp = ".json.AbCdEfGh1234.tmp";
  const std::vector<fs::path> stale = {data.users() / ("a" + tmp), data.root() / ("sso" + tmp),
                                       data.accessRequests() / ("r" + tmp)};
  const std::vector<fs::path> kept = {data.users() / "a.json", data.users() / "b.json.tmp",
                                      data.builds() / ("b1" + tmp), data.tokens() / ("t" + tmp)};
  const auto startedAt = fs::file_time_type::clock::now();
  for (const auto& path : stale) std::ofstream(path) << "{";
  for (const auto& path : kept) std::ofstream(path) << "{";
  for (const auto& path : stale) fs::last_write_time(path, startedAt - std::chrono::minutes(1));
  for (const auto& path : kept) fs::last_write_time(path, startedAt - std::chrono::minutes(1));
  fs::last_write_time(kept.back(), startedAt + std::chrono::seconds(1));
  data.removeDocumentLeftovers(startedAt);
  for (const auto& path : stale) EXPECT_FALSE(fs::exists(path)) << path;
  for (const auto& path : kept) EXPECT_TRUE(fs::exists(path)) << path;
}

TEST(DataDirLayout, WorkInProgressIsStagingAndDocumentTemporariesOutsideBuildFiles) {
  // A trailing "/" marks a directory.
  const auto inProgress = [](bool expected, std::initializer_list<std::string> paths) {
    for (std::string path : paths) {
      const bool directory = path.ends_with('/');
      if (directory) path.pop_back();
      EXPECT_EQ(DataDir::isWorkInProgress(path, directory), expected) << path;
    }
  };
  const std::string tmp = "alice.json.AbCdEfGh1234.tmp";
  inProgress(true, {"builds/~incoming/", "builds/b1/incoming/", "incoming/", "users/" + tmp, tmp,
                    "builds/b1/" + tmp});
  inProgress(
      false,
      {"builds/b1/files/incoming/", "builds/b1/files/", "users/incoming/", "builds/b1/files/" + tmp,
       "builds/b1/files/deep/" + tmp, "users/alice.json.tmp", "users/alice.json.AbCdEfGh123.tmp",
       "users/alice.json.AbCdEfGh12-4.tmp", "users/.AbCdEfGh1234.tmp", "users/alice.json"});
  for (const char* path : {"builds", "builds/b2"}) EXPECT_TRUE(DataDir::isVolumeLink(path)) << path;
  for (const char* path : {"builds/b2/files", "users", "buildsx", "x/builds"}) {
    EXPECT_FALSE(DataDir::isVolumeLink(path)) << path;
  }
}

}  // namespace
}  // namespace quill::store
