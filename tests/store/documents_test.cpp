#include "store/documents.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/json_reader.h"
#include "support/api_fixture.h"

namespace quill::store {
namespace {

using test::filesIn;
using test::readBytes;

class DocumentsTest : public test::TempDirTest {
 protected:
  static void writeRaw(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
  }
  static Json::Value record(const std::string& name) {
    Json::Value value(Json::objectValue);
    value["name"] = name;
    value["schema_version"] = 1;
    return value;
  }
};

TEST_F(DocumentsTest, WriteCreatesParentsReplacesWholeDocumentsAndSortsTheirMembers) {
  const fs::path path = dir() / "users" / "alice.json";
  Json::Value first = record("alice");
  first["display_name"] = "Alice";
  ASSERT_TRUE(writeJsonFile(path, first));
  ASSERT_TRUE(writeJsonFile(path, record("alice")));
  Json::Value read;
  ASSERT_TRUE(readJsonFile(path, read));
  EXPECT_EQ(read, record("alice"));  // display_name is gone
  EXPECT_EQ(filesIn(dir() / "users"), 1u);

  // Members in ascending byte order of their keys, and a final newline.
  ASSERT_TRUE(writeJsonFile(dir() / "order.json",
                            *base::parseJsonObject(R"({"zeta":1,"alpha":2,"Mid":3})")));
  const std::string text = readBytes(dir() / "order.json");
  EXPECT_LT(text.find("\"Mid\""), text.find("\"alpha\""));
  EXPECT_LT(text.find("\"alpha\""), text.find("\"zeta\""));
  EXPECT_EQ(text.back(), '\n');

  // A bare file name is written in the current directory.
  const fs::path before = fs::current_path();
  fs::current_path(dir());
  const bool written = writeFileAtomic("bare.json", "{}").ok();
  fs::current_path(before);
  EXPECT_TRUE(written);
  EXPECT_EQ(readBytes(dir() / "bare.json"), "{}");
}

TEST_F(DocumentsTest, AFailedWriteRemovesItsTemporaryAndLeavesOthersAlone) {
  // Another writer's temporary (or one left by a crash) is not this write's to touch.
  writeRaw(dir() / "state.json.tmp", "theirs");
  fs::create_directories(dir() / "taken.json" / "inside");  // a rename cannot replace it
  EXPECT_FALSE(writeFileAtomic(dir() / "taken.json", "{}"));
  ASSERT_TRUE(writeFileAtomic(dir() / "state.json", "{}"));
  std::vector<std::string> names;
  for (const auto& entry : fs::directory_iterator(dir())) names.push_back(entry.path().filename());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"state.json", "state.json.tmp", "taken.json"}));
  EXPECT_EQ(readBytes(dir() / "state.json.tmp"), "theirs");
}

TEST_F(DocumentsTest, ConcurrentWritersOfOneDocumentNeverShowATornOrMissingFile) {
  // Documents of different sizes, so that two writes run together would not parse.
  const fs::path path = dir() / "channels" / "beta.json";
  std::vector<Json::Value> versions;
  for (int i = 0; i < 4; ++i) {
    Json::Value doc = record("beta");
    doc["padding"] = std::string(1000 * (i + 1), static_cast<char>('a' + i));
    versions.push_back(doc);
  }
  ASSERT_TRUE(writeJsonFile(path, versions[0]));

  std::atomic<bool> writing{true};
  std::atomic<int> failedWrites{0};
  std::vector<std::thread> writers;
  for (const Json::Value& doc : versions) {
    writers.emplace_back([&, doc] {
      for (int n = 0; n < 150; ++n) failedWrites += writeJsonFile(path, doc) ? 0 : 1;
    });
  }
  int reads = 0;
  int unreadable = 0;
  std::thread reader([&] {
    while (writing) {
      Json::Value read;
      ++reads;
      if (!readJsonFile(path, read) ||
          std::find(versions.begin(), versions.end(), read) == versions.end()) {
        ++unreadable;
      }
    }
  });
  for (auto& writer : writers) writer.join();
  writing = false;
  reader.join();

  EXPECT_EQ(failedWrites, 0);
  EXPECT_EQ(unreadable, 0) << "of " << reads << " reads";
  EXPECT_EQ(filesIn(path.parent_path()), 1u) << "no temporary is left behind";
}

TEST_F(DocumentsTest, NestingTooDeepToParseIsNotAnObject) {
  const std::string deep = std::string(5000, '[') + std::string(5000, ']');
  EXPECT_FALSE(base::parseJsonObject("{\"a\":" + deep + "}"));
  EXPECT_FALSE(base::parseJsonObject(deep));
  writeRaw(dir() / "deep.json", "{\"a\":" + deep + "}");
  Json::Value value;
  EXPECT_FALSE(readJsonFile(dir() / "deep.json", value));
  EXPECT_TRUE(base::parseJsonObject("{\"a\":" + std::string(50, '[') + std::string(50, ']') + "}"));
}

TEST_F(DocumentsTest, MissingOrMalformedFilesReadAsAbsentAndLeaveTheValueAlone) {
  fs::create_directory(dir() / "dir.json");
  Json::Value value = record("keep");
  for (const auto& [name, bytes] :
       {std::pair{"broken.json", "{\"name\": "}, {"trailing.json", "{} {}"}, {"empty.json", ""}}) {
    writeRaw(dir() / name, bytes);
  }
  for (const char* name :
       {"missing.json", "broken.json", "trailing.json", "empty.json", "dir.json"}) {
    EXPECT_FALSE(readJsonFile(dir() / name, value)) << name;
  }
  EXPECT_EQ(value, record("keep"));
}

TEST_F(DocumentsTest, ListingSkipsLeftoversOtherExtensionsDirectoriesAndBrokenFiles) {
  ASSERT_TRUE(writeJsonFile(dir() / "alice.json", record("alice")));
  ASSERT_TRUE(writeJsonFile(dir() / "bob.json", record("bob")));
  for (const auto& [name, bytes] : {std::pair{"x.json.tmp", "{\"name\": \"x\"}"},
                                    {"notes.txt", "{}"},
                                    {"upper.JSON", "{}"},
                                    {"broken.json", "{"}}) {
    writeRaw(dir() / name, bytes);
  }
  ASSERT_TRUE(writeJsonFile(dir() / "sub.json" / "nested.json", record("nested")));

  std::map<std::string, Json::Value> listed;
  for (auto& [path, value] : listJsonDir(dir())) listed[path.filename().string()] = value;
  EXPECT_EQ(listed, (std::map<std::string, Json::Value>{{"alice.json", record("alice")},
                                                        {"bob.json", record("bob")}}));
}

TEST_F(DocumentsTest, MissingDirectoriesListEmptyNonDirectoriesThrowAndRemovalsReport) {
  EXPECT_TRUE(listJsonDir(dir() / "never-written").empty());
  writeRaw(dir() / "file", "x");
  EXPECT_THROW(listJsonDir(dir() / "file"), fs::filesystem_error);
  EXPECT_TRUE(removeFile(dir() / "file"));
  EXPECT_FALSE(removeFile(dir() / "file"));
}

}  // namespace
}  // namespace quill::store
