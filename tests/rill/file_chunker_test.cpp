#include "rill/file_chunker.h"

#include <gtest/gtest.h>

#include <fstream>
#include <random>

#include "rill/chunk_id.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

namespace fs = std::filesystem;

class FileChunkerTest : public quill::test::TempDirTest {
 protected:
  fs::path write(const std::string& name, const std::string& bytes) {
    const fs::path path = dir() / name;
    std::ofstream(path, std::ios::binary) << bytes;
    return path;
  }

  static std::string randomText(std::size_t n, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::string s(n, '\0');
    for (auto& c : s) c = static_cast<char>(rng());
    return s;
  }

  // The chunks by whole-buffer cut-point searches and one-shot hashing.
  static std::vector<Chunk> expectedChunks(const std::string& bytes, const ChunkerParams& p) {
    std::vector<Chunk> chunks;
    std::uint64_t at = 0;
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    while (at < bytes.size()) {
      const std::uint64_t len = findCutPoint(data + at, bytes.size() - at, p);
      chunks.push_back({at, len, chunkId(data + at, len)});
      at += len;
    }
    return chunks;
  }
};

TEST_F(FileChunkerTest, SmallAndLargeFilesMatchWholeBufferChunking) {
  // Below and above the size where hashing moves to a second thread; small chunk sizes put cuts
  // inside blocks, at block edges and across several blocks.
  for (const ChunkerParams& p : {ChunkerParams{}, ChunkerParams{4096, 65536, 1u << 20},
                                 ChunkerParams{1u << 20, 1u << 20, 1u << 20}}) {
    for (std::size_t size : {std::size_t{1}, std::size_t{3u << 20}, std::size_t{(20u << 20) + 5},
                             std::size_t{16u << 20}}) {
      const std::string bytes = randomText(size, static_cast<unsigned>(size));
      auto chunks = chunkFile(write("f", bytes), p);
      ASSERT_TRUE(chunks) << chunks.error();
      EXPECT_EQ(chunks.value(), expectedChunks(bytes, p)) << "size " << size << " avg " << p.avg;
    }
  }
  // Empty: no chunks; tiny: one; zeros: cut at the maximum, the full chunks alike.
  for (const std::string& bytes :
       {std::string(), std::string("abc"), std::string(40u << 20, '\0')}) {
    auto chunks = chunkFile(write("f", bytes), ChunkerParams{});
    ASSERT_TRUE(chunks) << chunks.error();
    EXPECT_EQ(chunks.value(), expectedChunks(bytes, ChunkerParams{})) << bytes.size();
  }
}

TEST_F(FileChunkerTest, UnreadableInputsFailWithThePath) {
  const fs::path missing = dir() / "missing";
  auto noFile = chunkFile(missing, ChunkerParams{});
  ASSERT_FALSE(noFile);
  EXPECT_EQ(noFile.error(), "cannot open " + missing.string());

  auto directory = chunkFile(dir(), ChunkerParams{});
  ASSERT_FALSE(directory);
  EXPECT_EQ(directory.error(), "read error on " + dir().string());
}

}  // namespace
}  // namespace quill::rill
