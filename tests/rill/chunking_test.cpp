// Chunking: the cut points against their byte-wise definition, whole files, and trees.

#include <algorithm>
#include <fstream>
#include <gtest/gtest.h>
#include <random>
#include <vector>

#include "rill/chunks/chunk_id.h"
#include "rill/chunks/chunker.h"
#include "rill/chunks/file_chunker.h"
#include "rill/chunks/gear.h"
#include "rill/chunks/tree_scan.h"
#include "rill_trees.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

// The cut-point search exactly as the algorithm is defined, one byte at a time, to hold the
// optimised and streaming versions to.
std::uint64_t referenceCut(const std::uint8_t* data, std::uint64_t len, const ChunkerParams& p) {
  if (len <= p.min) return len;
  const std::uint64_t limit = std::min(len, p.max);
  const std::uint64_t normal = p.avg <= limit ? p.avg : limit;
  const ChunkMasks masks = chunkMasks(p.avg);
  std::uint64_t h = 0;
  for (std::uint64_t i = p.min; i < limit; ++i) {
    h = (h << 1) + gearTable()[data[i]];
    if ((h & (i < normal ? masks.strict : masks.loose)) == 0) return i + 1;
  }
  return limit;
}

std::vector<std::uint8_t> randomBytes(std::size_t n, unsigned seed) {
  std::mt19937_64 rng(seed);
  std::vector<std::uint8_t> bytes(n);
  for (auto& b : bytes) b = static_cast<std::uint8_t>(rng());
  return bytes;
}

// All cuts of `data` by repeated whole-buffer searches.
std::vector<std::uint64_t> cutsOf(const std::vector<std::uint8_t>& data, const ChunkerParams& p,
                                  bool reference) {
  std::vector<std::uint64_t> cuts;
  for (std::uint64_t at = 0; at < data.size(); cuts.push_back(at)) {
    const std::uint64_t len = data.size() - at;
    at += reference ? referenceCut(data.data() + at, len, p) : findCutPoint(data.data() + at, len, p);
  }
  return cuts;
}

TEST(Chunker, GearTableMasksAndParameters) {
  const GearTable& gear = gearTable();  // the SplitMix64 sequence, bit for bit
  EXPECT_EQ(gear[0], 0x157A3807A48FAA9DULL);
  EXPECT_EQ(gear[1], 0xD573529B34A1D093ULL);
  EXPECT_EQ(gear[255], 0x293D194EEE358FF8ULL);
  const struct {
    std::uint64_t avg, strict, loose;
  } masks[] = {
      {4194304, (1ULL << 24) - 1, (1ULL << 20) - 1},
      {4194305, (1ULL << 25) - 1, (1ULL << 21) - 1},  // not a power of two: rounds up
      {1, 3, 0}, {0, 3, 0}, {1ULL << 62, ~0ULL, (1ULL << 60) - 1},
  };
  for (const auto& m : masks) {
    EXPECT_EQ(chunkMasks(m.avg).strict, m.strict) << m.avg;
    EXPECT_EQ(chunkMasks(m.avg).loose, m.loose) << m.avg;
  }
  EXPECT_FALSE(checkChunkerParams({}));
  EXPECT_FALSE(checkChunkerParams({4, 4, 4}));
  for (const ChunkerParams& p : {ChunkerParams{0, 0, 0}, {8, 4, 16}, {1, 32, 16}}) {
    EXPECT_TRUE(checkChunkerParams(p)) << p.min << " " << p.avg << " " << p.max;
  }
}

TEST(Chunker, CutPointsMatchTheByteWiseDefinition) {
  // Small sizes give many cuts in both mask regions, at the forced maximum and in short tails.
  for (const ChunkerParams& p : {ChunkerParams{64, 256, 1024}, ChunkerParams{0, 16, 64},
                                 ChunkerParams{100, 100, 100}, ChunkerParams{1, 1, 3},
                                 ChunkerParams{512, 4096, 4096}}) {
    for (unsigned seed = 0; seed < 4; ++seed) {
      const auto data = randomBytes(200000 + seed * 37, seed);
      EXPECT_EQ(cutsOf(data, p, false), cutsOf(data, p, true))
          << "min " << p.min << " avg " << p.avg << " max " << p.max << " seed " << seed;
    }
  }
  const auto data = randomBytes(100, 1);
  for (std::uint64_t len : {0u, 10u, 64u}) {  // up to min: one chunk
    EXPECT_EQ(findCutPoint(data.data(), len, ChunkerParams{64, 256, 1024}), len);
  }
  // Default sizes: random data is cut by content, not only at max; zeros at max.
  const auto big = randomBytes(24u << 20, 7);
  const auto cuts = cutsOf(big, {}, false);
  EXPECT_EQ(cuts, cutsOf(big, {}, true));
  EXPECT_GT(cuts.size(), 3u);
  EXPECT_EQ(cutsOf(std::vector<std::uint8_t>(40u << 20, 0), {}, false),
            (std::vector<std::uint64_t>{16u << 20, 32u << 20, 40u << 20}));
}

TEST(Chunker, StreamingInPiecesGivesTheWholeBufferCuts) {
  const ChunkerParams p{64, 256, 1024};
  const auto data = randomBytes(300000, 3);
  const auto expected = cutsOf(data, p, false);
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {
    CutFinder finder(p);
    std::vector<std::uint64_t> cuts;
    for (std::size_t at = 0, piece = 0; at < data.size(); at += piece) {
      // Pieces of 1 byte up to several chunks, so cuts land at piece edges too.
      piece = std::min<std::size_t>(data.size() - at, 1 + rng() % 3000);
      for (std::size_t used = 0; used < piece;) {
        const auto cut = finder.next(data.data() + at + used, piece - used);
        if (!cut) break;
        used += *cut;
        cuts.push_back(at + used);
      }
    }
    if (finder.finish()) cuts.push_back(data.size());
    ASSERT_EQ(cuts, expected) << "round " << round;
    EXPECT_FALSE(finder.finish());
  }
}

class FileChunkerTest : public quill::test::TempDirTest {};

TEST_F(FileChunkerTest, FilesAreChunkedAsTheWholeBufferWouldBe) {
  // Below and above the size where hashing moves to a second thread; small chunk sizes put cuts
  // inside blocks, at block edges and across several blocks. Empty: no chunks; zeros: cut at max.
  const struct {
    ChunkerParams p;
    std::size_t size;
    bool zeros;
  } cases[] = {
      {{}, 0, false}, {{}, 3, false}, {{}, 40u << 20, true}, {{}, 3u << 20, false},
      {{}, (20u << 20) + 5, false}, {{4096, 65536, 1u << 20}, 3u << 20, false},
      {{4096, 65536, 1u << 20}, 16u << 20, false}, {{1u << 20, 1u << 20, 1u << 20}, 20u << 20, false},
  };
  for (const auto& c : cases) {
    const std::string bytes = c.zeros ? std::string(c.size, '\0') : test::randomBytes(c.size, 7);
    std::vector<Chunk> expected;
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    for (std::uint64_t at = 0, len = 0; at < bytes.size(); at += len) {
      len = findCutPoint(data + at, bytes.size() - at, c.p);
      expected.push_back({at, len, chunkId(data + at, len)});
    }
    test::writeFile(dir() / "f", bytes);
    auto chunks = chunkFile(dir() / "f", c.p);
    ASSERT_TRUE(chunks) << chunks.error();
    EXPECT_EQ(chunks.value(), expected) << "size " << bytes.size() << " avg " << c.p.avg;
  }
  EXPECT_EQ(chunkFile(dir() / "missing", {}).error(), "cannot open " + (dir() / "missing").string());
  EXPECT_EQ(chunkFile(dir(), {}).error(), "read error on " + dir().string());
}

namespace fs = std::filesystem;

class TreeScanTest : public quill::test::TempDirTest {
 protected:
  void write(const fs::path& root, const std::string& relative, const std::string& bytes) {
    const fs::path path = root / relative;
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
  }

  static std::vector<std::string> paths(const TreeScan& scan) {
    std::vector<std::string> out;
    for (const auto& file : scan.files) out.push_back(file.path);
    return out;
  }

  // Chunk sizes small enough that a few KiB of text make several chunks.
  const ChunkerParams small_{64, 256, 1024};
};

TEST_F(TreeScanTest, ListsRegularFilesInByteOrderWithForwardSlashes) {
  const fs::path root = dir() / "tree";
  write(root, "b.txt", "b");
  write(root, "a/z.txt", "z");
  write(root, "a/Y.txt", "Y");
  write(root, "B.txt", "B");
  write(root, "a-b", "-");
  fs::create_directories(root / "empty-dir");
  fs::create_symlink(root / "b.txt", root / "link");

  auto scan = scanTree(root, small_);
  ASSERT_TRUE(scan) << scan.error();
  EXPECT_EQ(paths(scan.value()),
            (std::vector<std::string>{"B.txt", "a-b", "a/Y.txt", "a/z.txt", "b.txt"}));
  EXPECT_EQ(scanTree(dir() / "nope", small_).error(),
            "path not found: " + (dir() / "nope").string());
}

TEST_F(TreeScanTest, FollowsOnlyTheLinksItIsToldToAndNeverInCircles) {
  const fs::path root = dir() / "tree";
  const fs::path volume = dir() / "volume";
  write(root, "a.txt", "a");
  write(volume, "shelf/b/files/x.bin", "x");
  write(volume, "b2/files/sub/y.bin", "y");
  write(volume, "stray/z.bin", "z");
  fs::create_symlink(volume / "shelf", root / "builds");
  fs::create_symlink(volume / "b2", volume / "shelf" / "b2");
  fs::create_symlink(volume / "stray", root / "stray");
  fs::create_symlink(volume / "stray/z.bin", root / "z.bin");
  // Asked to be followed, but back to a directory the walk is already inside.
  fs::create_symlink(root, volume / "b2" / "files" / "loop");
  fs::create_symlink(volume / "shelf", volume / "b2" / "files" / "up");

  std::vector<std::string> asked;
  ScanOptions options;
  options.followLink = [&](std::string_view relative) {
    asked.emplace_back(relative);
    return relative != "stray" && relative != "z.bin";
  };
  auto scan = scanTree(root, small_, {}, options);
  ASSERT_TRUE(scan) << scan.error();
  EXPECT_EQ(paths(scan.value()), (std::vector<std::string>{"a.txt", "builds/b/files/x.bin",
                                                           "builds/b2/files/sub/y.bin"}));
  std::sort(asked.begin(), asked.end());
  EXPECT_EQ(asked, (std::vector<std::string>{"builds", "builds/b2", "builds/b2/files/loop",
                                             "builds/b2/files/up", "stray", "z.bin"}));
  // Without the option no link is followed.
  EXPECT_EQ(paths(scanTree(root, small_).value()), std::vector<std::string>{"a.txt"});
}

TEST_F(TreeScanTest, CountsDuplicateChunksOnceAndListsEmptyFiles) {
  const fs::path root = dir() / "tree";
  std::string text;
  for (int i = 0; i < 400; ++i) text += "line " + std::to_string(i * 7919) + "\n";
  write(root, "one", text);
  write(root, "copy/one", text);
  write(root, "empty", "");

  auto scan = scanTree(root, small_);
  ASSERT_TRUE(scan) << scan.error();
  const auto& files = scan.value().files;
  ASSERT_EQ(files.size(), 3u);
  EXPECT_EQ(files[1], (ScannedFile{"empty", 0, {}}));
  EXPECT_EQ(files[0].chunks, files[2].chunks);
  ASSERT_GT(files[0].chunks.size(), 3u);

  std::uint64_t covered = 0;
  for (const ChunkRef& c : files[0].chunks) covered += c.n;
  EXPECT_EQ(covered, text.size());
  EXPECT_EQ(files[0].chunks.front().h, chunkId(text.substr(0, files[0].chunks.front().n)));

  const ScanStats& stats = scan.value().stats;
  EXPECT_EQ(stats.files, 3u);
  EXPECT_EQ(stats.total_bytes, 2 * text.size());
  EXPECT_EQ(stats.unique_bytes, text.size());
  EXPECT_EQ(stats.unique_chunks, files[0].chunks.size());
}

TEST_F(TreeScanTest, RepeatedChunksInsideOneFileCountOnce) {
  const fs::path root = dir() / "tree";
  write(root, "zeros", std::string(40u << 20, '\0'));
  auto scan = scanTree(root, ChunkerParams{});
  ASSERT_TRUE(scan) << scan.error();
  const auto& chunks = scan.value().files[0].chunks;
  ASSERT_EQ(chunks.size(), 3u);
  EXPECT_EQ(chunks[0], chunks[1]);
  EXPECT_EQ(scan.value().stats, (ScanStats{1, 2, 40u << 20, 24u << 20}));
}

}  // namespace
}  // namespace quill::rill
