#include "store/token_index.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "store/data_dir.h"
#include "store/documents.h"
#include "store/tokens.h"
#include "store/users.h"
#include "support/numbered.h"
#include "support/temp_dir_test_base.h"

namespace quill::store {
namespace {

// The index must answer exactly as the scan over every token file does, whatever happened to the
// token directory since its last lookup.
class TokenIndexTest : public test::TempDirTest {
 protected:
  void SetUp() override {
    const auto prepared = data.prepare();
    ASSERT_TRUE(prepared) << prepared.error();
    for (const char* name : {"alice", "bob"}) {
      NewUser u;
      u.name = name;
      ASSERT_TRUE(createUser(data, u));
    }
  }

  // Resolves through the index and by the scan; returns the owner's name ("" for nothing).
  std::string owner(const std::string& text) {
    auto viaIndex = resolveToken(data, text, &index);
    auto viaScan = resolveToken(data, text);
    EXPECT_EQ(viaIndex, viaScan) << "index and scan disagree on " << text;
    return viaIndex ? (*viaIndex)["name"].asString() : "";
  }

  fs::path tokenPath(const std::string& name) const {
    return DataDir::recordPath(data.tokens(), name);
  }

  // A token file written the way another program might: plainly, in place, not via a rename.
  void writeInPlace(const std::string& name, const std::string& text, const std::string& user) {
    std::ofstream(tokenPath(name), std::ios::binary | std::ios::trunc)
        << R"({"schema_version":1,"name":")" << name << R"(","user":")" << user
        << R"(","token_hash":")" << hashToken(text) << R"(","created_at":"2026-01-01T00:00:00Z"})";
  }

  // Makes the token directory look untouched for an hour, the usual state of a running server,
  // so the index is entitled to trust its listing.
  void settleDirectory() {
    fs::last_write_time(data.tokens(), fs::file_time_type::clock::now() - std::chrono::hours(1));
  }

  DataDir data{dir() / "data"};
  TokenIndex index;
};

TEST_F(TokenIndexTest, ATokenMintedAfterALookupIsFoundAtTheNextLookup) {
  const std::string first = mintToken(data, "t1", "alice");
  settleDirectory();
  EXPECT_EQ(owner("not-yet"), "");
  EXPECT_EQ(owner("not-yet"), "");  // a trusted miss
  EXPECT_EQ(owner(first), "alice");

  const std::string minted = mintToken(data, "t2", "bob");
  EXPECT_EQ(owner(minted), "bob");

  settleDirectory();
  EXPECT_EQ(owner("still-not"), "");
  writeInPlace("t3", "fresh-file", "alice");  // a new file, written directly
  EXPECT_EQ(owner("fresh-file"), "alice");
}

TEST_F(TokenIndexTest, ATokenFileRewrittenUnderTheSameNameAnswersWithItsNewContent) {
  const std::string oldText = mintToken(data, "t1", "alice");
  EXPECT_EQ(owner(oldText), "alice");

  // Replaced atomically, by another owner.
  Json::Value record = *findToken(data, "t1");
  record["token_hash"] = hashToken("second-text");
  record["user"] = "bob";
  ASSERT_TRUE(writeJsonFile(tokenPath("t1"), record));
  EXPECT_EQ(owner(oldText), "");
  EXPECT_EQ(owner("second-text"), "bob");

  // Only the owner changes: the hash still hits, the fresh owner answers.
  record["user"] = "alice";
  ASSERT_TRUE(writeJsonFile(tokenPath("t1"), record));
  EXPECT_EQ(owner("second-text"), "alice");

  // Rewriting an existing file in place leaves the directory's modification time alone.
  settleDirectory();
  EXPECT_EQ(owner("unknown"), "");
  writeInPlace("t1", "rewritten", "bob");
  EXPECT_EQ(owner("rewritten"), "bob");
  EXPECT_EQ(owner("second-text"), "");
}

TEST_F(TokenIndexTest, ManyTokensResolveAndDeletionsStopThemAtOnce) {
  constexpr int kTokens = 300;
  std::vector<std::string> texts;
  for (int i = 0; i < kTokens; ++i) {
    texts.push_back(mintToken(data, test::numbered("t", i), i % 2 ? "alice" : "bob"));
  }
  settleDirectory();
  // The scan is quadratic over this set; compare it on a sample.
  for (int i = 0; i < kTokens; i += 30) EXPECT_EQ(owner(texts[i]), i % 2 ? "alice" : "bob");
  for (int i = 0; i < kTokens; i += 3) ASSERT_TRUE(removeFile(tokenPath(test::numbered("t", i))));
  for (int i = 0; i < kTokens; ++i) {
    EXPECT_EQ(resolveToken(data, texts[i], &index).has_value(), i % 3 != 0) << i;
  }
}

TEST_F(TokenIndexTest, StrayFilesAreIgnoredAndTheDirectoryMayAppearLater) {
  fs::remove_all(data.tokens());
  EXPECT_EQ(resolveToken(data, "anything", &index), std::nullopt);
  const std::string text = mintToken(data, "t1", "alice");
  ASSERT_TRUE(writeFileAtomic(tokenPath("junk"), "{\"token_hash\": 1"));
  ASSERT_TRUE(writeFileAtomic(tokenPath("nohash"), "{\"user\": \"alice\"}"));
  ASSERT_TRUE(writeFileAtomic(data.tokens() / "notes.txt", "hello"));
  fs::create_directory(data.tokens() / "sub.json");
  EXPECT_EQ(owner(text), "alice");
  EXPECT_EQ(owner("hello"), "");
}

TEST_F(TokenIndexTest, ConcurrentLookupsWhileTokensComeAndGo) {
  std::vector<std::string> stable;
  for (int i = 0; i < 20; ++i) stable.push_back(mintToken(data, test::numbered("s", i), "alice"));
  std::atomic<bool> wrong{false};
  std::vector<std::thread> readers;
  for (int t = 0; t < 3; ++t) {
    readers.emplace_back([&] {
      for (int round = 0; round < 200; ++round) {
        for (const auto& text : stable) {
          if (!resolveToken(data, text, &index)) wrong = true;
        }
      }
    });
  }
  for (int i = 0; i < 100; ++i) {
    const std::string name = test::numbered("churn", i);
    const std::string text = mintToken(data, name, "bob");
    if (!resolveToken(data, text, &index)) wrong = true;
    removeFile(tokenPath(name));
    if (resolveToken(data, text, &index)) wrong = true;
  }
  for (auto& reader : readers) reader.join();
  EXPECT_FALSE(wrong);
}

}  // namespace
}  // namespace quill::store
