#include "rill/encrypted_provider.h"

#include <gtest/gtest.h>
#include <sodium.h>

#include "base/process_init.h"
#include "rill/chunk_id.h"
#include "rill/fault_injecting_provider.h"
#include "rill/memory_provider.h"
#include "rill/prefixed_provider.h"

namespace quill::rill {
namespace {

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

}  // namespace
}  // namespace quill::rill
