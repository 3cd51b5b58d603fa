#include "rill/encryption_key.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

const std::string kHex = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

EncryptionKey expectedKey() {
  EncryptionKey key;
  for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<std::uint8_t>(i);
  return key;
}

class EncryptionKeyTest : public quill::test::TempDirTest {
 protected:
  std::string writeFile(const std::string& content) {
    const auto path = dir() / "key";
    std::ofstream(path, std::ios::binary) << content;
    return path.string();
  }
};

TEST_F(EncryptionKeyTest, AcceptsHexWithTrailingLineEndsInEitherCase) {
  for (const std::string& text : {kHex, kHex + "\n", kHex + "\r\n", kHex + " \n",
                                  std::string("000102030405060708090A0B0C0D0E0F"
                                              "101112131415161718191A1B1C1D1E1F")}) {
    auto key = decodeEncryptionKey(text);
    ASSERT_TRUE(key) << text;
    EXPECT_EQ(key.value(), expectedKey());
  }
}

TEST_F(EncryptionKeyTest, RefusesAnythingElseWithoutQuotingIt) {
  for (const std::string& text :
       {kHex.substr(1), kHex + "0", kHex + "00", " " + kHex, "\t" + kHex, kHex.substr(2) + "zz",
        kHex.substr(0, 62) + "0x", std::string(), std::string("\n")}) {
    auto key = decodeEncryptionKey(text);
    ASSERT_FALSE(key) << text;
    EXPECT_EQ(key.error(), "encryption key must be 64 hex chars (or a file containing them)");
  }
}

TEST_F(EncryptionKeyTest, ReadsAFileFirstThenTheArgumentItself) {
  EXPECT_EQ(resolveEncryptionKey(writeFile(kHex + "\n")).value(), expectedKey());
  EXPECT_EQ(resolveEncryptionKey(kHex).value(), expectedKey());
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
