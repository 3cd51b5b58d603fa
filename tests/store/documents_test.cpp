#include "store/documents.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "support/temp_dir_test_base.h"

namespace quill::store {
namespace {

class DocumentsTest : public test::TempDirTest {
 protected:
  static void writeRaw(const fs::path& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
  }

  static std::string readRaw(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }

  static Json::Value record(const std::string& name) {
    Json::Value value(Json::objectValue);
    value["name"] = name;
    value["schema_version"] = 1;
    return value;
  }
};

TEST_F(DocumentsTest, WriteCreatesParentsAndOverwriteReplacesTheWholeDocument) {
  const fs::path path = dir() / "users" / "alice.json";
  Json::Value first = record("alice");
  first["display_name"] = "Alice";
  ASSERT_TRUE(writeJsonFile(path, first));
  ASSERT_TRUE(writeJsonFile(path, record("alice")));

  Json::Value read;
  ASSERT_TRUE(readJsonFile(path, read));
  EXPECT_EQ(read, record("alice"));  // display_name is gone
  EXPECT_FALSE(fs::exists(dir() / "users" / "alice.json.tmp"));
}

TEST_F(DocumentsTest, WrittenMembersAreInAscendingByteOrderOfKeys) {
  Json::Value value(Json::objectValue);
  value["zeta"] = 1;
  value["alpha"] = 2;
  value["Mid"] = 3;
  const fs::path path = dir() / "order.json";
  ASSERT_TRUE(writeJsonFile(path, value));

  const std::string text = readRaw(path);
  EXPECT_LT(text.find("\"Mid\""), text.find("\"alpha\""));
  EXPECT_LT(text.find("\"alpha\""), text.find("\"zeta\""));
  EXPECT_EQ(text.back(), '\n');
}

TEST_F(DocumentsTest, ALongerLeftoverTemporaryFileIsTruncatedAndReused) {
  writeRaw(dir() / "state.json.tmp", std::string(4096, 'x'));
  ASSERT_TRUE(writeFileAtomic(dir() / "state.json", "{}"));
  EXPECT_EQ(readRaw(dir() / "state.json"), "{}");
  EXPECT_FALSE(fs::exists(dir() / "state.json.tmp"));
}

TEST_F(DocumentsTest, MissingOrMalformedFilesReadAsAbsentAndLeaveTheValueAlone) {
  writeRaw(dir() / "broken.json", "{\"name\": ");
  writeRaw(dir() / "trailing.json", "{} {}");
  writeRaw(dir() / "empty.json", "");
  fs::create_directory(dir() / "dir.json");

  Json::Value value = record("keep");
  for (const char* name :
       {"missing.json", "broken.json", "trailing.json", "empty.json", "dir.json"}) {
    EXPECT_FALSE(readJsonFile(dir() / name, value)) << name;
  }
  EXPECT_EQ(value, record("keep"));
}

TEST_F(DocumentsTest, ListingSkipsLeftoversOtherExtensionsDirectoriesAndBrokenFiles) {
  ASSERT_TRUE(writeJsonFile(dir() / "alice.json", record("alice")));
  ASSERT_TRUE(writeJsonFile(dir() / "bob.json", record("bob")));
  writeRaw(dir() / "x.json.tmp", "{\"name\": \"x\"}");
  writeRaw(dir() / "notes.txt", "{}");
  writeRaw(dir() / "upper.JSON", "{}");
  writeRaw(dir() / "broken.json", "{");
  ASSERT_TRUE(writeJsonFile(dir() / "sub.json" / "nested.json", record("nested")));

  std::map<std::string, Json::Value> listed;
  for (auto& [path, value] : listJsonDir(dir())) listed[path.filename().string()] = value;
  EXPECT_EQ(listed, (std::map<std::string, Json::Value>{{"alice.json", record("alice")},
                                                        {"bob.json", record("bob")}}));
}

TEST_F(DocumentsTest, ListingAMissingDirectoryIsEmptyButANonDirectoryThrows) {
  EXPECT_TRUE(listJsonDir(dir() / "never-written").empty());
  writeRaw(dir() / "file", "x");
  EXPECT_THROW(listJsonDir(dir() / "file"), fs::filesystem_error);
}

TEST_F(DocumentsTest, RemoveFileIsFalseForAMissingFile) {
  ASSERT_TRUE(writeFileAtomic(dir() / "a.json", "{}"));
  EXPECT_TRUE(removeFile(dir() / "a.json"));
  EXPECT_FALSE(removeFile(dir() / "a.json"));
}

}  // namespace
}  // namespace quill::store
