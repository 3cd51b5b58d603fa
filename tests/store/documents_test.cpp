// Documents on disk: the data directory's layout, atomic JSON writes, reads that never see a torn
// file, and the cache that must answer exactly as a fresh read.

#include "store/documents.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <thread>
#include <tuple>

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
    std::ofstream(dir() / name, std::ios::binary | std::ios::trunc) << bytes;
  }
  static Json::Value record(const std::string& name) {
    return *base::parseJsonObject(R"({"schema_version":1,"name":")" + name + "\"}");
  }
  std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const auto& entry : fs::directory_iterator(dir()))
      found.push_back(entry.path().filename());
    std::sort(found.begin(), found.end());
    return found;
  }
};

TEST_F(DocumentsTest, WritesReplaceWholeDocumentsSortedAndLeaveNoTemporary) {
  Json::Value first = record("alice");
  first["display_name"] = "Alice";
  ASSERT_TRUE(writeJsonFile(dir() / "users" / "alice.json", first));  // the parent is created
  ASSERT_TRUE(writeJsonFile(dir() / "users" / "alice.json", record("alice")));
  Json::Value read;
  ASSERT_TRUE(readJsonFile(dir() / "users" / "alice.json", read));
  EXPECT_EQ(read, record("alice"));
  EXPECT_EQ(test::filesIn(dir() / "users"), 1u);
  // Members in ascending byte order of their keys, and a final newline.
  ASSERT_TRUE(
      writeJsonFile(dir() / "order.json", *base::parseJsonObject(R"({"z":1,"a":2,"M":3})")));
  EXPECT_EQ(readBytes(dir() / "order.json"), "{\n\t\"M\" : 3,\n\t\"a\" : 2,\n\t\"z\" : 1\n}\n");

  // A failed write removes its own temporary only: another writer's (or a crash's) is not its own.
  writeRaw("state.json.tmp", "theirs");
  fs::create_directories(dir() / "taken.json" / "inside");  // a rename cannot replace it
  EXPECT_FALSE(writeFileAtomic(dir() / "taken.json", "{}"));
  ASSERT_TRUE(writeFileAtomic(dir() / "state.json", "{}"));
  EXPECT_EQ(names(), (std::vector<std::string>{"order.json", "state.json", "state.json.tmp",
                                               "taken.json", "users"}));
  EXPECT_EQ(readBytes(dir() / "state.json.tmp"), "theirs");

  // A bare file name is written in the current directory.
  const fs::path before = fs::current_path();
  fs::current_path(dir());
  const bool written = writeFileAtomic("bare.json", "{}").ok();
  fs::current_path(before);
  EXPECT_TRUE(written);
  EXPECT_EQ(readBytes(dir() / "bare.json"), "{}");
}

TEST_F(DocumentsTest, ConcurrentWritersOfOneDocumentNeverShowATornOrMissingFile) {
  // Documents of different sizes, so that two writes run together would not parse.
  const fs::path path = dir() / "beta.json";
  std::vector<Json::Value> versions(4, record("beta"));
  for (int i = 0; i < 4; ++i)
    versions[i]["padding"] = std::string(1000 * (i + 1), static_cast<char>('a' + i));
  ASSERT_TRUE(writeJsonFile(path, versions[0]));
  std::atomic<bool> writing{true};
  std::atomic<int> failedWrites{0}, reads{0}, unreadable{0};
  std::vector<std::thread> writers;
  for (const Json::Value& doc : versions) {
    writers.emplace_back([&, doc] {
      for (int n = 0; n < 150; ++n) failedWrites += writeJsonFile(path, doc) ? 0 : 1;
    });
  }
  std::thread reader([&] {
    for (Json::Value read; writing; ++reads) {
      const bool ok = readJsonFile(path, read);
      unreadable += (ok && std::count(versions.begin(), versions.end(), read)) ? 0 : 1;
    }
  });
  for (auto& writer : writers) writer.join();
  writing = false;
  reader.join();
  EXPECT_EQ(failedWrites, 0);
  EXPECT_EQ(unreadable, 0) << "of " << reads << " reads";
  EXPECT_EQ(test::filesIn(dir()), 1u) << "no temporary is left behind";
}

TEST_F(DocumentsTest, UnreadableFilesReadAsAbsentAndListingsSkipThem) {
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  EXPECT_FALSE(base::parseJsonObject("{\"a\":" + deep + "}"));
  EXPECT_TRUE(base::parseJsonObject("{\"a\":" + std::string(50, '[') + std::string(50, ']') + "}"));
  ASSERT_TRUE(writeJsonFile(dir() / "alice.json", record("alice")));
  ASSERT_TRUE(writeJsonFile(dir() / "bob.json", record("bob")));
  ASSERT_TRUE(writeJsonFile(dir() / "sub.json" / "nested.json", record("nested")));
  const std::string skipped[] = {"deep.json",     "{\"a\":" + deep + "}",
                                 "broken.json",   "{\"name\": ",
                                 "trailing.json", "{} {}",
                                 "empty.json",    "",
                                 "x.json.tmp",    "{\"name\": \"x\"}",
                                 "notes.txt",     "{}",
                                 "upper.JSON",    "{}"};
  for (int i = 0; i < 14; i += 2) writeRaw(skipped[i], skipped[i + 1]);  // name, bytes
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
  DocumentCache cache, small(2);
  const fs::path file = dir() / "doc.json";
  const auto lookup = [&](DocumentCache& in, const fs::path& path) {
    Json::Value fresh;
    const bool read = readJsonFile(path, fresh);
    auto cached = in.read(path);
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
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 5; ++i) {
      const std::string name = std::to_string(i * 10 + round);
      ASSERT_TRUE(writeJsonFile(dir() / (std::to_string(i) + ".json"), record(name)));
      EXPECT_EQ(lookup(small, dir() / (std::to_string(i) + ".json")), name);
    }
  }
}

TEST_F(DocumentsTest, DataDirectoryLayout) {
  const auto withLocalAppData = [](const char* value, const fs::path& expected) {
    const char* old = getenv("LOCALAPPDATA");
    const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
    value ? setenv("LOCALAPPDATA", value, 1) : unsetenv("LOCALAPPDATA");
    EXPECT_EQ(defaultDataDir(), expected) << (value ? value : "unset");
    saved ? setenv("LOCALAPPDATA", saved->c_str(), 1) : unsetenv("LOCALAPPDATA");
  };
  withLocalAppData("/home/u/Local", "/home/u/Local/Quillmoor/quillmoord-data");
  withLocalAppData(nullptr, "quillmoord-data");
  withLocalAppData("", "quillmoord-data");
  EXPECT_EQ(DataDir("quillmoord-data").root(), fs::current_path() / "quillmoord-data");

  const DataDir data(dir() / "missing" / "data");
  ASSERT_TRUE(data.prepare());
  ASSERT_TRUE(data.prepare()) << "preparing again is harmless";
  for (const char* name :
       {"users", "tokens", "channels", "groups", "invites", "access-requests", "builds"}) {
    EXPECT_TRUE(fs::is_directory(data.root() / name)) << name;
  }
  EXPECT_EQ(test::filesIn(data.root()), 7u);

  const DataDir blocked(dir());
  writeRaw("tokens", "a file where a directory belongs");
  const auto prepared = blocked.prepare();
  ASSERT_FALSE(prepared);
  EXPECT_NE(prepared.error().find("tokens"), std::string::npos) << prepared.error();
  EXPECT_NE(prepared.failure().sysErrno, 0) << "the cause is kept";
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

TEST_F(DocumentsTest, StartUpRemovesOnlyStaleDocumentTemporaries) {
  const DataDir data(dir());
  ASSERT_TRUE(data.prepare());
  const std::string tmp = ".json.AbCdEfGh1234.tmp";
  const std::vector<fs::path> stale = {data.users() / ("a" + tmp), data.root() / ("sso" + tmp),
                                       data.accessRequests() / ("r" + tmp)};
  // Kept: other names, build records, and a write that began after start-up (an offline command).
  const std::vector<fs::path> kept = {data.users() / "a.json", data.users() / "b.json.tmp",
                                      data.builds() / ("b1" + tmp), data.tokens() / ("t" + tmp)};
  const auto startedAt = fs::file_time_type::clock::now();
  for (const auto& list : {stale, kept}) {
    for (const auto& path : list) {
      std::ofstream(path) << "{";
      fs::last_write_time(path, startedAt - std::chrono::minutes(1));
    }
  }
  fs::last_write_time(kept.back(), startedAt + std::chrono::seconds(1));
  data.removeDocumentLeftovers(startedAt);
  for (const auto& path : stale) EXPECT_FALSE(fs::exists(path)) << path;
  for (const auto& path : kept) EXPECT_TRUE(fs::exists(path)) << path;
}

}  // namespace
}  // namespace quill::store
