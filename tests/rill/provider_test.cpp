// One behaviour, every provider: the same suite runs against the in-memory store, the decorators,
// and the real bucket (s3rver on 127.0.0.1); then what only the encrypted provider does, and the
// encryption key it reads.

#include <atomic>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <sodium.h>
#include <thread>

#include "base/process_init.h"
#include "rill/chunks/chunk_id.h"
#include "rill/providers/encrypted_provider.h"
#include "rill/providers/encryption_key.h"
#include "rill/providers/fault_injecting_provider.h"
#include "rill/providers/memory_provider.h"
#include "rill/providers/prefixed_provider.h"
#include "rill/providers/s3_provider.h"
#include "s3_peers.h"
#include "support/numbered.h"
#include "support/temp_dir_test_base.h"

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
        const std::string name = key(quill::test::numbered("t", t) + "/" + std::to_string(i));
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

EncryptionKey keyOf(std::uint8_t fill) {
  EncryptionKey key;
  key.fill(fill);
  return key;
}

// An encrypted store over a memory store that the test can also read and write raw.
class EncryptedProviderTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(base::initializeLibraries()); }

  MemoryProvider* raw_ = new MemoryProvider;
  EncryptedProvider store_{keyOf(1), StorageProviderPtr(raw_)};
};

TEST_F(EncryptedProviderTest, StoredObjectIsMagicNonceAndSecretBox) {
  ASSERT_TRUE(store_.put("k", "plain text"));
  std::string sealed;
  ASSERT_TRUE(raw_->get("k", sealed));
  ASSERT_EQ(sealed.size(), 10u + 48u);
  EXPECT_EQ(sealed.substr(0, 8), "RILLENC1");
  EXPECT_EQ(sealed.find("plain text"), std::string::npos);

  // Opens with libsodium directly: the layout is not just our own round trip.
  std::string plain(10, '\0');
  const EncryptionKey key = keyOf(1);
  const auto* bytes = reinterpret_cast<const unsigned char*>(sealed.data());
  ASSERT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(plain.data()), bytes + 32,
                                       sealed.size() - 32, bytes + 8, key.data()),
            0);
  EXPECT_EQ(plain, "plain text");

  std::string again;  // the same body again: a fresh nonce
  ASSERT_TRUE(store_.put("k2", "plain text"));
  ASSERT_TRUE(raw_->get("k2", again));
  EXPECT_NE(sealed.substr(8, 24), again.substr(8, 24));
}

TEST_F(EncryptedProviderTest, ObjectsThatAreNotSealedAreNamedAsSuch) {
  std::string sealed;
  ASSERT_TRUE(store_.put("good", "x"));
  ASSERT_TRUE(raw_->get("good", sealed));  // 49 bytes
  ASSERT_TRUE(raw_->put("short", sealed.substr(0, 47)));
  ASSERT_TRUE(raw_->put("magic", "RILLENC2" + sealed.substr(8, 40)));

  for (const char* name : {"short", "magic"}) {
    const std::string key = name;
    std::string body = "untouched";
    std::string error;
    EXPECT_FALSE(store_.get(key, body, &error));
    EXPECT_EQ(error, key + ": not an encrypted object (wrong store, or written without a key)");
    EXPECT_EQ(body, "untouched");
  }
}

TEST_F(EncryptedProviderTest, WrongKeyOrCorruptionFailsDecryption) {
  ASSERT_TRUE(store_.put("k", "secret payload"));
  std::string sealed;
  ASSERT_TRUE(raw_->get("k", sealed));

  auto* reader = new MemoryProvider;
  ASSERT_TRUE(reader->put("k", sealed));
  EncryptedProvider wrongKey(keyOf(2), StorageProviderPtr(reader));
  std::string body;
  std::string error;
  EXPECT_FALSE(wrongKey.get("k", body, &error));
  EXPECT_EQ(error, "k: decryption failed (wrong key, or the object is corrupt)");

  auto* faults = new FaultInjectingProvider(std::make_unique<MemoryProvider>());
  EncryptedProvider overFaults(keyOf(1), StorageProviderPtr(faults));
  ASSERT_TRUE(overFaults.put("k", "secret payload"));
  faults->corruptGets(true);
  error.clear();
  EXPECT_FALSE(overFaults.get("k", body, &error));
  EXPECT_EQ(error, "k: decryption failed (wrong key, or the object is corrupt)");
}

TEST_F(EncryptedProviderTest, ChunkKeysHideIdsAndDependOnTheKey) {
  const std::string id = chunkId("some chunk");
  MemoryProvider plain;
  EncryptedProvider other(keyOf(2), std::make_unique<MemoryProvider>());
  EXPECT_EQ(plain.chunkKey(id), "chunks/" + id.substr(0, 2) + "/" + id);
  EXPECT_NE(store_.chunkKey(id), other.chunkKey(id));

  // keyed BLAKE2b-256 of the id text, in hexadecimal
  std::uint8_t digest[32];
  const EncryptionKey key = keyOf(1);
  crypto_generichash(digest, 32, reinterpret_cast<const unsigned char*>(id.data()), id.size(),
                     key.data(), key.size());
  char hex[65];
  sodium_bin2hex(hex, sizeof hex, digest, sizeof digest);
  EXPECT_EQ(store_.chunkKey(id), "chunks/" + std::string(hex, 2) + "/" + hex);
}

TEST(PrefixedProvider, ListsKeysRelativeToThePrefix) {
  auto* raw = new MemoryProvider;
  PrefixedProvider store("backups/", StorageProviderPtr(raw));
  const std::string chunkKey = store.chunkKey(chunkId("c"));
  ASSERT_TRUE(store.put(chunkKey, "c"));
  ASSERT_TRUE(raw->put("elsewhere/chunks/x", "y"));
  EXPECT_TRUE(raw->exists("backups/" + chunkKey).value().present);
  EXPECT_EQ(store.list("chunks/").value(), (std::vector<ObjectEntry>{{chunkKey, 1}}));
}

const std::string kHex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

class EncryptionKeyTest : public quill::test::TempDirTest {
 protected:
  std::string writeFile(const std::string& content) {
    std::ofstream(dir() / "key", std::ios::binary) << content;
    return (dir() / "key").string();
  }
};

TEST_F(EncryptionKeyTest, HexWithTrailingLineEndsInEitherCaseAndNothingElse) {
  EncryptionKey expected;
  for (std::size_t i = 0; i < expected.size(); ++i) expected[i] = static_cast<std::uint8_t>(i);
  for (const std::string& text : {kHex, kHex + "\n", kHex + "\r\n", kHex + " \n",
                                  std::string("000102030405060708090A0B0C0D0E0F"
                                              "101112131415161718191A1B1C1D1E1F")}) {
    auto key = decodeEncryptionKey(text);
    ASSERT_TRUE(key) << text;
    EXPECT_EQ(key.value(), expected);
  }
  for (const std::string& text :
       {kHex.substr(1), kHex + "0", kHex + "00", " " + kHex, "\t" + kHex, kHex.substr(2) + "zz",
        kHex.substr(0, 62) + "0x", std::string(), std::string("\n")}) {
    EXPECT_EQ(decodeEncryptionKey(text).error(),  // never quoting the text
              "encryption key must be 64 hex chars (or a file containing them)");
  }
  // A file first, then the argument itself.
  EXPECT_EQ(resolveEncryptionKey(writeFile(kHex + "\n")).value(), expected);
  EXPECT_EQ(resolveEncryptionKey(kHex).value(), expected);
  EXPECT_FALSE(resolveEncryptionKey(writeFile(kHex.substr(1) + "\n")));
  EXPECT_FALSE(resolveEncryptionKey(writeFile(kHex + std::string(5000, ' ') + "x")));
  EXPECT_FALSE(resolveEncryptionKey((dir() / "no-such-file").string()));
  // An argument that is itself a key but also names a file is read as a file.
  std::ofstream(dir() / kHex, std::ios::binary) << "ff" + kHex.substr(2);
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir());
  auto key = resolveEncryptionKey(kHex);
  std::filesystem::current_path(cwd);
  ASSERT_TRUE(key);
  EXPECT_EQ(key.value()[0], 0xff);
}

}  // namespace
}  // namespace quill::rill
