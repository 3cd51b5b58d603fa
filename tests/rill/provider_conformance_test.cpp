// One behaviour, every provider: the same suite runs against the in-memory store, the decorators,
// and the real bucket (s3rver on 127.0.0.1).

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <thread>

#include "rill/chunk_id.h"
#include "rill/encrypted_provider.h"
#include "rill/fault_injecting_provider.h"
#include "rill/memory_provider.h"
#include "rill/prefixed_provider.h"
#include "rill/s3_provider.h"
#include "s3_peers.h"

namespace quill::rill {
namespace {

struct ProviderKind {
  std::string name;
  bool needsS3 = false;
  std::int64_t overhead = 0;  // stored size minus body size
  std::function<StorageProviderPtr()> make;
};

const EncryptionKey kKey = [] {
  EncryptionKey key{};
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(i * 7 + 1);
  return key;
}();

StorageProviderPtr s3() { return std::make_unique<S3Provider>(test::S3Peers::shared().settings()); }

std::vector<ProviderKind> kinds() {
  return {
      {"Memory", false, 0, [] { return std::make_unique<MemoryProvider>(); }},
      {"PrefixedMemory", false, 0,
       [] {
         return std::make_unique<PrefixedProvider>("backups/", std::make_unique<MemoryProvider>());
       }},
      {"EncryptedMemory", false, 48,
       [] {
         return std::make_unique<EncryptedProvider>(kKey, std::make_unique<MemoryProvider>());
       }},
      {"UnarmedFaultInjecting", false, 0,
       [] { return std::make_unique<FaultInjectingProvider>(std::make_unique<MemoryProvider>()); }},
      {"S3", true, 0, s3},
      {"EncryptedPrefixedS3", true, 48,
       [] {
         return std::make_unique<EncryptedProvider>(
             kKey, std::make_unique<PrefixedProvider>("shared-store/", s3()));
       }},
  };
}

class ProviderConformance : public ::testing::TestWithParam<ProviderKind> {
 protected:
  void SetUp() override {
    if (GetParam().needsS3) QUILL_REQUIRE_S3_PEERS();
    provider_ = GetParam().make();
    // Tests share one bucket: each keeps to keys of its own.
    scope_ = GetParam().name + "-" +
             ::testing::UnitTest::GetInstance()->current_test_info()->name() + "/";
  }

  std::string key(const std::string& name) const { return scope_ + name; }

  std::vector<ObjectEntry> sortedList(const std::string& prefix) {
    std::string error;
    auto entries = provider_->list(prefix, &error);
    EXPECT_TRUE(entries) << error;
    if (!entries) return {};
    std::sort(entries->begin(), entries->end(),
              [](const auto& a, const auto& b) { return a.key < b.key; });
    return *entries;
  }

  StorageProviderPtr provider_;
  std::string scope_;
};

TEST_P(ProviderConformance, StoresAndReadsBackAnyBytesEachOverwritingTheLast) {
  std::string binary;
  for (int i = 0; i < 5000; ++i) binary.push_back(static_cast<char>(i * 131 % 256));
  for (const std::string& body : {binary, std::string(), std::string("\0", 1)}) {
    std::string error;
    ASSERT_TRUE(provider_->put(key("object"), body, &error)) << error;
    std::string read = "stale";
    ASSERT_TRUE(provider_->get(key("object"), read, &error)) << error;
    EXPECT_EQ(read, body);
    const auto info = provider_->exists(key("object"), &error);
    ASSERT_TRUE(info) << error;
    EXPECT_EQ(*info,
              (ObjectInfo{true, static_cast<std::int64_t>(body.size()) + GetParam().overhead}));
  }
}

TEST_P(ProviderConformance, MissingObjectsAreAbsentNotBroken) {
  std::string body = "untouched";
  std::string error;
  EXPECT_FALSE(provider_->get(key("missing"), body, &error));
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(body, "untouched");

  error.clear();
  const auto info = provider_->exists(key("missing"), &error);
  ASSERT_TRUE(info) << error;
  EXPECT_FALSE(info->present);
  EXPECT_TRUE(provider_->remove(key("missing"), &error)) << error;
  EXPECT_TRUE(sortedList(key("missing")).empty());
}

TEST_P(ProviderConformance, ListsExactlyTheKeysUnderAPrefix) {
  // Five keys: with the peers' page size of two, the S3 listing follows two continuation tokens.
  const std::vector<std::string> names{"a", "b/c", "b/d e", "b/\xC3\xA9", "bz"};
  for (const auto& name : names) ASSERT_TRUE(provider_->put(key(name), name));
  ASSERT_TRUE(provider_->put(scope_.substr(0, scope_.size() - 1) + "X/outside", "x"));

  std::vector<ObjectEntry> expected;
  for (const auto& name : names) {
    expected.push_back({key(name), static_cast<std::int64_t>(name.size()) + GetParam().overhead});
  }
  EXPECT_EQ(sortedList(scope_), expected);
  EXPECT_EQ(sortedList(key("b/")),
            (std::vector<ObjectEntry>(expected.begin() + 1, expected.begin() + 4)));

  ASSERT_TRUE(provider_->remove(key("b/c")));
  EXPECT_EQ(sortedList(key("b/")).size(), 2u);
}

TEST_P(ProviderConformance, ChunkKeysAreShardedIdsAndUsable) {
  const std::string id = chunkId(key("chunk"));
  const std::string other = chunkId(key("other"));
  const std::string chunkKey = provider_->chunkKey(id);
  // "chunks/" + the first two characters of a 64-hex name + "/" + that name
  ASSERT_EQ(chunkKey.size(), 7 + 2 + 1 + 64u) << chunkKey;
  EXPECT_TRUE(chunkKey.starts_with("chunks/" + chunkKey.substr(10, 2) + "/")) << chunkKey;
  EXPECT_TRUE(isChunkId(chunkKey.substr(10))) << chunkKey;
  EXPECT_NE(provider_->chunkKey(other), chunkKey);
  ASSERT_TRUE(provider_->put(chunkKey, "chunk bytes"));
  std::string read;
  ASSERT_TRUE(provider_->get(chunkKey, read));
  EXPECT_EQ(read, "chunk bytes");
  ASSERT_TRUE(provider_->remove(chunkKey));
}

TEST_P(ProviderConformance, UsableFromSeveralThreadsAtOnce) {
  constexpr int kThreads = 4;
  constexpr int kEach = 4;
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kEach; ++i) {
        const std::string name = key("t" + std::to_string(t) + "/" + std::to_string(i));
        std::string read;
        if (!provider_->put(name, name) || !provider_->get(name, read) || read != name) ++failures;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(sortedList(scope_).size(), static_cast<std::size_t>(kThreads * kEach));
}

INSTANTIATE_TEST_SUITE_P(AllProviders, ProviderConformance, ::testing::ValuesIn(kinds()),
                         [](const auto& kind) { return kind.param.name; });

}  // namespace
}  // namespace quill::rill
