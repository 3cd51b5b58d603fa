// One behaviour, every provider: the same suite runs against the in-memory store, the decorators
// and the real bucket (s3rver on 127.0.0.1); then what only the decorators do, and the key that
// opens an encrypted store.

#include <gtest/gtest.h>
#include <sodium.h>

#include <atomic>
#include <regex>
#include <thread>

#include "rill/chunks/chunk_id.h"
#include "rill/providers/encrypted_provider.h"
#include "rill/providers/encryption_key.h"
#include "rill/providers/fault_injecting_provider.h"
#include "rill/providers/memory_provider.h"
#include "rill/providers/prefixed_provider.h"
#include "rill/providers/s3_provider.h"
#include "rill_trees.h"
#include "s3_peers.h"
#include "store_view.h"
#include "support/numbered.h"

namespace quill::rill {
namespace {

using Entries = std::vector<ObjectEntry>;

// The store's answers as values: the one place these tests read and write through the interface.
// A read answers the body, or "failed: " and the reason.
std::string read(StorageProvider& store, const std::string& key) {
  auto body = store.get(key);
  return body ? body.value() : "failed: " + body.error();
}
void write(StorageProvider& store, const std::string& key, std::string_view body) {
  const auto put = store.put(key, body);
  EXPECT_TRUE(put) << key << ": " << put.error();
}

EncryptionKey keyOf(std::uint8_t fill) {
  EncryptionKey key;
  key.fill(fill);
  return key;
}
StorageProviderPtr memory() { return std::make_unique<MemoryProvider>(); }
StorageProviderPtr s3() { return std::make_unique<S3Provider>(test::S3Peers::shared().settings()); }
StorageProviderPtr sealed(StorageProviderPtr p) {
  return std::make_unique<EncryptedProvider>(keyOf(1), std::move(p));
}
StorageProviderPtr prefixed(StorageProviderPtr p) {
  return std::make_unique<PrefixedProvider>("shared-store/", std::move(p));
}

struct ProviderKind {
  std::string name;
  bool needsS3;
  std::int64_t overhead;  // stored size minus body size
  StorageProviderPtr (*make)();
};

class ProviderConformance : public ::testing::TestWithParam<ProviderKind> {
 protected:
  void SetUp() override {
    if (GetParam().needsS3) QUILL_REQUIRE_S3_PEERS();
  }
  // Kinds share one bucket: each keeps to keys of its own.
  std::string key(const std::string& name) const { return GetParam().name + "/" + name; }
  Entries sorted(const std::string& prefix) {
    auto listed = p->list(prefix);
    auto entries = listed ? listed.value() : Entries{{"failed: " + listed.error(), 0}};
    std::sort(entries.begin(), entries.end(), [](auto& a, auto& b) { return a.key < b.key; });
    return entries;
  }
  std::int64_t stored(const std::string& body) { return std::ssize(body) + GetParam().overhead; }

  StorageProviderPtr p = GetParam().make();
};

TEST_P(ProviderConformance, BehavesAsOneStore) {
  std::string binary;
  for (int i = 0; i < 5000; ++i) binary.push_back(static_cast<char>(i * 131 % 256));
  for (const std::string& body : {binary, std::string(), std::string("\0", 1)}) {
    write(*p, key("object"), body);  // each overwriting the last
    EXPECT_EQ(read(*p, key("object")), body);
    EXPECT_EQ(p->exists(key("object")).value(), (ObjectInfo{true, stored(body)}));
  }
  // Missing objects are absent, not broken.
  EXPECT_TRUE(std::regex_match(read(*p, key("missing")), std::regex("failed: .+")));
  EXPECT_FALSE(p->exists(key("missing")).value().present);
  EXPECT_TRUE(p->remove(key("missing")));
  EXPECT_EQ(sorted(key("missing")), Entries{});
  // Five keys: with the peers' page size of two, the S3 listing follows two continuation tokens.
  Entries expected;
  for (const std::string name : {"a", "b/c", "b/d e", "b/\xC3\xA9", "bz"}) {
    write(*p, key("list/" + name), name);
    expected.push_back({key("list/" + name), stored(name)});
  }
  write(*p, key("listX/outside"), "x");
  EXPECT_EQ(sorted(key("list/")), expected);
  EXPECT_EQ(sorted(key("list/b/")), Entries(expected.begin() + 1, expected.begin() + 4));
  EXPECT_TRUE(p->remove(key("list/b/c")));
  EXPECT_EQ(sorted(key("list/b/")), Entries(expected.begin() + 2, expected.begin() + 4));
  // Chunk keys are "chunks/" + the first two characters of a 64-hex name + "/" + that name.
  const std::string chunkKey = p->chunkKey(chunkId(key("chunk")));
  EXPECT_TRUE(std::regex_match(chunkKey, std::regex("chunks/([0-9a-f]{2})/\\1[0-9a-f]{62}")));
  EXPECT_NE(p->chunkKey(chunkId(key("other"))), chunkKey);
  write(*p, chunkKey, "chunk bytes");
  EXPECT_EQ(read(*p, chunkKey), "chunk bytes");
  EXPECT_TRUE(p->remove(chunkKey));
  // Usable from several threads at once.
  std::atomic<int> failures = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < 4; ++i) {
        const std::string name = key(quill::test::numbered("threads/", t * 4 + i));
        write(*p, name, name);
        failures += read(*p, name) != name;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(sorted(key("threads/")).size(), 16u);
}

INSTANTIATE_TEST_SUITE_P(
    AllProviders, ProviderConformance,
    ::testing::Values(
        ProviderKind{"Memory", false, 0, memory},
        ProviderKind{"PrefixedMemory", false, 0, [] { return prefixed(memory()); }},
        ProviderKind{"EncryptedMemory", false, 48, [] { return sealed(memory()); }},
        ProviderKind{"UnarmedFaultInjecting", false, 0,
                     [] { return StorageProviderPtr(new FaultInjectingProvider(memory())); }},
        ProviderKind{"S3", true, 0, s3},
        ProviderKind{"EncryptedPrefixedS3", true, 48, [] { return sealed(prefixed(s3())); }}),
    [](const auto& kind) { return kind.param.name; });

TEST(Decorators, SealWithMagicNonceAndSecretBoxHideChunkIdsAndKeepToTheirPrefix) {
  MemoryProvider raw;
  EncryptedProvider store(keyOf(1), std::make_unique<test::StoreView>(raw));
  EncryptedProvider wrongKey(keyOf(2), std::make_unique<test::StoreView>(raw));
  write(store, "k", "plain text");
  write(store, "k2", "plain text");
  const std::string box = read(raw, "k");
  ASSERT_EQ(box.size(), 10u + 48u);
  EXPECT_EQ(box.substr(0, 8), "RILLENC1");
  EXPECT_NE(box.substr(8, 24), read(raw, "k2").substr(8, 24));  // a fresh nonce
  // Opens with libsodium directly: the layout is not just our own round trip.
  std::string plain(10, '\0');
  const auto* bytes = reinterpret_cast<const unsigned char*>(box.data());
  ASSERT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(plain.data()), bytes + 32,
                                       box.size() - 32, bytes + 8, keyOf(1).data()), 0);
  EXPECT_EQ(plain, "plain text");
  const std::string notSealed = "not an encrypted object (wrong store, or written without a key)";
  const std::string corrupt = "decryption failed (wrong key, or the object is corrupt)";
  std::string flipped = box;
  flipped.back() ^= 1;
  for (const auto& [object, reason] : std::map<std::string, std::string>{
           {box.substr(0, 47), notSealed}, {"RILLENC2" + box.substr(8, 40), notSealed},
           {flipped, corrupt}}) {
    write(raw, "bad", object);
    EXPECT_EQ(read(store, "bad"), "failed: bad: " + reason);
  }
  EXPECT_EQ(read(wrongKey, "k"), "failed: k: " + corrupt);
  // A chunk is stored under the keyed BLAKE2b-256 of its id text, in hexadecimal.
  const std::string id = chunkId("some chunk");
  unsigned char digest[32];
  char hex[65];
  crypto_generichash(digest, 32, reinterpret_cast<const unsigned char*>(id.data()), id.size(),
                     keyOf(1).data(), 32);
  sodium_bin2hex(hex, sizeof hex, digest, sizeof digest);
  EXPECT_EQ(store.chunkKey(id), "chunks/" + std::string(hex, 2) + "/" + hex);
  EXPECT_NE(wrongKey.chunkKey(id), store.chunkKey(id));
  EXPECT_EQ(raw.chunkKey(id), "chunks/" + id.substr(0, 2) + "/" + id);
  PrefixedProvider backups("backups/", std::make_unique<test::StoreView>(raw));
  write(backups, "chunks/c", "c");
  write(raw, "elsewhere/chunks/x", "y");
  EXPECT_EQ(raw.exists("backups/chunks/c").value(), (ObjectInfo{true, 1}));
  EXPECT_EQ(backups.list("chunks/").value(), (Entries{{"chunks/c", 1}}));
}

TEST(EncryptionKey, IsHexWithTrailingLineEndsInEitherCaseFromAFileFirst) {
  const std::string hex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
  EncryptionKey key;
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(i);
  auto decoded = [](const Result<EncryptionKey>& r) { return r ? r.value() : EncryptionKey{}; };
  for (const std::string& text : {hex, hex + "\n", hex + "\r\n", hex + " \n",
                                  std::string("000102030405060708090A0B0C0D0E0F"
                                              "101112131415161718191A1B1C1D1E1F")}) {
    EXPECT_EQ(decoded(decodeEncryptionKey(text)), key) << text;
  }
  for (const std::string& text : {hex.substr(1), hex + "0", hex + "00", " " + hex, "\t" + hex,
                                  hex.substr(2) + "zz", hex.substr(0, 62) + "0x", std::string(),
                                  std::string("\n")}) {
    EXPECT_EQ(decodeEncryptionKey(text).error(), kBadKeyMessage);  // never quoting the text
  }
  // A file first (its first few kilobytes), then the argument itself: so a key that also names a
  // file is read as a file.
  const quill::test::TempDir dir;
  for (const auto& [name, text] : std::map<std::string, std::string>{
           {"key", hex + "\n"}, {"short", hex.substr(1) + "\n"}, {hex, "ff" + hex.substr(2)},
           {"long", hex + std::string(5000, ' ') + "x"}}) {
    test::writeFile(dir.path() / name, text);
  }
  const auto cwd = std::filesystem::current_path();
  std::filesystem::current_path(dir.path());
  const auto named = resolveEncryptionKey(hex);
  std::filesystem::current_path(cwd);
  EXPECT_EQ(decoded(resolveEncryptionKey((dir.path() / "key").string())), key);
  for (const char* bad : {"short", "long", "no-such-file"}) {
    EXPECT_FALSE(resolveEncryptionKey((dir.path() / bad).string())) << bad;
  }
  EXPECT_EQ(decoded(resolveEncryptionKey(hex)), key);
  EXPECT_EQ(decoded(named)[0], 0xff);
}

}  // namespace
}  // namespace quill::rill
