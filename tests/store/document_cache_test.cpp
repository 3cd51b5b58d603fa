// The document cache answers exactly as a fresh read of the file would, whatever happened to the
// file since the last lookup.

#include "store/document_cache.h"

#include <gtest/gtest.h>
#include <json/writer.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "store/documents.h"
#include "support/temp_dir_test_base.h"

namespace quill::store {
namespace {

class DocumentCacheTest : public test::TempDirTest {
 protected:
  // The cache's answer, checked against readJsonFile's.
  std::optional<Json::Value> lookup(DocumentCache& cache, const fs::path& path) {
    auto cached = cache.read(path);
    Json::Value fresh;
    const bool read = readJsonFile(path, fresh);
    EXPECT_EQ(cached.has_value(), read) << path;
    if (cached && read) {
      EXPECT_EQ(*cached, fresh) << path;
    }
    return cached;
  }
  void writeInPlace(const fs::path& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
  }
  fs::path file = dir() / "doc.json";
};

TEST_F(DocumentCacheTest, EveryKindOfChangeIsSeenAtTheNextLookup) {
  DocumentCache cache;
  struct Step {
    const char* what;
    std::function<void()> change;
    const char* expectedName;  // nullptr: absent
  };
  auto replace = [&](const char* name) {
    Json::Value doc(Json::objectValue);
    doc["name"] = name;
    ASSERT_TRUE(writeJsonFile(file, doc));
  };
  const std::vector<Step> steps = {
      {"missing", [] {}, nullptr},
      {"created", [&] { replace("aaaa"); }, "aaaa"},
      {"unchanged", [] {}, "aaaa"},
      // Same size, new inode: the usual document write.
      {"replaced by a rename", [&] { replace("bbbb"); }, "bbbb"},
      {"edited in place", [&] { writeInPlace(file, R"({"name":"in place"})"); }, "in place"},
      {"made malformed", [&] { writeInPlace(file, R"({"name":)"); }, nullptr},
      {"mended", [&] { writeInPlace(file, R"({"name":"mended"})"); }, "mended"},
      {"not an object", [&] { writeInPlace(file, R"(["name"])"); }, nullptr},
      {"deleted", [&] { fs::remove(file); }, nullptr},
      {"a directory in its place", [&] { fs::create_directory(file); }, nullptr},
      {"a file again",
       [&] {
         fs::remove(file);
         replace("cccc");
       },
       "cccc"},
  };
  for (const Step& step : steps) {
    step.change();
    for (int twice = 0; twice < 2; ++twice) {
      auto doc = lookup(cache, file);
      if (!step.expectedName) {
        EXPECT_FALSE(doc) << step.what;
        continue;
      }
      ASSERT_TRUE(doc) << step.what;
      EXPECT_EQ((*doc)["name"].asString(), step.expectedName) << step.what;
    }
  }
}

TEST_F(DocumentCacheTest, StaysCorrectPastItsCapacity) {
  DocumentCache cache(2);
  for (int round = 0; round < 3; ++round) {
    for (int i = 0; i < 5; ++i) {
      Json::Value doc(Json::objectValue);
      doc["n"] = i * 10 + round;
      const fs::path path = dir() / (std::to_string(i) + ".json");
      ASSERT_TRUE(writeJsonFile(path, doc));
      auto read = lookup(cache, path);
      ASSERT_TRUE(read);
      EXPECT_EQ((*read)["n"].asInt(), i * 10 + round);
    }
  }
}

}  // namespace
}  // namespace quill::store
