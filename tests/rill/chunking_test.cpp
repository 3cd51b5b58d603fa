// Chunking: the cut points against their byte-wise definition, streamed, over files and trees.

#include <gtest/gtest.h>

#include "rill/chunks/chunk_id.h"
#include "rill/chunks/gear.h"
#include "rill/chunks/tree_scan.h"
#include "rill_trees.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

namespace fs = std::filesystem;
using Cuts = std::vector<std::uint64_t>;
using Paths = std::vector<std::string>;
using ChunkingFiles = quill::test::TempDirTest;
const ChunkerParams kSmall{64, 256, 1024};  // a few KiB make several chunks

const auto* bytesOf(const std::string& s) { return reinterpret_cast<const std::uint8_t*>(s.data()); }

// The cut-point search exactly as the algorithm defines it, one byte at a time.
std::uint64_t referenceCut(const std::uint8_t* data, std::uint64_t len, const ChunkerParams& p) {
  if (len <= p.min) return len;
  const std::uint64_t limit = std::min(len, p.max), normal = std::min(p.avg, limit);
  const ChunkMasks masks = chunkMasks(p.avg);
  for (std::uint64_t i = p.min, h = 0; i < limit; ++i) {
    h = (h << 1) + gearTable()[data[i]];
    if ((h & (i < normal ? masks.strict : masks.loose)) == 0) return i + 1;
  }
  return limit;
}

// Every cut of `data` by repeated whole-buffer searches.
Cuts cutsOf(const std::string& data, const ChunkerParams& p, bool reference = false) {
  Cuts cuts;
  for (std::uint64_t at = 0; at < data.size(); cuts.push_back(at))
    at += (reference ? referenceCut : findCutPoint)(bytesOf(data) + at, data.size() - at, p);
  return cuts;
}

std::vector<Chunk> chunksOf(const std::string& data, const ChunkerParams& p) {
  std::vector<Chunk> chunks;
  for (std::uint64_t at = 0; const std::uint64_t cut : cutsOf(data, p))
    chunks.push_back({at, cut - at, chunkId(data.substr(at, cut - at))}), at = cut;
  return chunks;
}

std::vector<ChunkRef> refsOf(const std::string& data, const ChunkerParams& p) {
  std::vector<ChunkRef> refs;
  for (const Chunk& c : chunksOf(data, p)) refs.push_back({c.hash, c.length});
  return refs;
}

Paths paths(const Result<TreeScan>& scan) {
  Paths out;
  for (const auto& file : scan.value().files) out.push_back(file.path);
  return out;
}

TEST(Chunker, GearTableMasksAndParameters) {
  EXPECT_EQ((Cuts{gearTable()[0], gearTable()[1], gearTable()[255]}),  // SplitMix64, bit for bit
            (Cuts{0x157A3807A48FAA9DULL, 0xD573529B34A1D093ULL, 0x293D194EEE358FF8ULL}));
  const std::uint64_t masks[][3] = {  // avg, strict, loose; an avg not a power of two rounds up
      {4194304, (1ULL << 24) - 1, (1ULL << 20) - 1}, {4194305, (1ULL << 25) - 1, (1ULL << 21) - 1},
      {1, 3, 0}, {0, 3, 0}, {1ULL << 62, ~0ULL, (1ULL << 60) - 1}};
  for (const auto& [avg, strict, loose] : masks)
    EXPECT_EQ((Cuts{chunkMasks(avg).strict, chunkMasks(avg).loose}), (Cuts{strict, loose})) << avg;
  EXPECT_FALSE(checkChunkerParams({}) || checkChunkerParams({4, 4, 4}));
  EXPECT_TRUE(checkChunkerParams({0, 0, 0}) && checkChunkerParams({8, 4, 16}) &&
              checkChunkerParams({1, 32, 16}));
}

TEST(Chunker, CutsMatchTheByteWiseDefinitionWholeOrStreamed) {
  // Small sizes give many cuts in both mask regions, at the forced maximum and in short tails.
  for (const ChunkerParams& p : {kSmall, {0, 16, 64}, {100, 100, 100}, {1, 1, 3}, {512, 4096, 4096}})
    for (unsigned seed = 0; seed < 4; ++seed) {
      const std::string data = test::randomBytes(200000 + seed * 37, seed);
      EXPECT_EQ(cutsOf(data, p), cutsOf(data, p, true)) << p.min << " " << p.avg << " " << seed;
    }
  const std::string data = test::randomBytes(300000, 3), big = test::randomBytes(24u << 20, 7);
  for (std::uint64_t len : {0u, 10u, 64u}) EXPECT_EQ(findCutPoint(bytesOf(data), len, kSmall), len);
  // Default sizes: random data is cut by content, not only at the maximum.
  EXPECT_EQ(cutsOf(big, {}), cutsOf(big, {}, true));
  EXPECT_GT(cutsOf(big, {}).size(), 3u);
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {  // in pieces of 1 byte to several chunks
    CutFinder finder(kSmall);
    Cuts cuts;
    for (std::size_t at = 0, piece = 0; at < data.size(); at += piece) {
      piece = std::min<std::size_t>(data.size() - at, 1 + rng() % 3000);
      for (std::size_t used = 0; const auto cut = used < piece ? finder.next(bytesOf(data) + at + used,
                                                       piece - used) : std::nullopt;)
        cuts.push_back(at + (used += *cut));
    }
    if (finder.finish()) cuts.push_back(data.size());
    ASSERT_EQ(cuts, cutsOf(data, kSmall)) << "round " << round;
    EXPECT_FALSE(finder.finish());
  }
}

TEST_F(ChunkingFiles, FilesAreChunkedAsTheWholeBufferWouldBe) {
  // Below and above the size where hashing moves to a second thread; small chunk sizes put cuts
  // inside blocks, at block edges and across several blocks (all forced at max in the last).
  const ChunkerParams kib{4096, 65536, 1u << 20}, mib{1u << 20, 1u << 20, 1u << 20};
  for (const auto& [p, size] : std::vector<std::pair<ChunkerParams, std::size_t>>{
           {{}, 0}, {{}, 3}, {{}, 3u << 20}, {{}, (20u << 20) + 5}, {kib, 3u << 20},
           {kib, 16u << 20}, {mib, 20u << 20}}) {
    const std::string bytes = test::randomBytes(size, 7);
    test::writeFile(dir() / "f", bytes);
    EXPECT_EQ(chunkFile(dir() / "f", p).value(), chunksOf(bytes, p)) << size << " " << p.avg;
  }
  EXPECT_EQ(chunkFile(dir() / "none", {}).error(), "cannot open " + (dir() / "none").string());
  EXPECT_EQ(chunkFile(dir(), {}).error(), "read error on " + dir().string());
}

TEST_F(ChunkingFiles, TreesListRegularFilesInByteOrderAndFollowOnlyTheLinksTheyAreToldTo) {
  const fs::path root = dir() / "tree", volume = dir() / "volume";
  for (const fs::path& file : {root / "b.txt", root / "a/z.txt", root / "a/Y.txt", root / "B.txt",
                               root / "a-b", volume / "shelf/b/files/x.bin",
                               volume / "b2/files/sub/y.bin", volume / "stray/z.bin"})
    test::writeFile(file, "x");
  fs::create_directories(root / "empty-dir");
  const std::pair<fs::path, fs::path> links[] = {  // target, link; the last two lead back inside
      {volume / "shelf", root / "builds"}, {volume / "b2", volume / "shelf/b2"},
      {volume / "stray", root / "stray"}, {volume / "stray/z.bin", root / "z.bin"},
      {root, volume / "b2/files/loop"}, {volume / "shelf", volume / "b2/files/up"}};
  for (const auto& [target, link] : links) fs::create_symlink(target, link);
  Paths asked, followed{"B.txt", "a-b", "a/Y.txt", "a/z.txt", "b.txt"};
  EXPECT_EQ(paths(scanTree(root, kSmall)), followed);  // without the option no link is taken
  ScanOptions options;
  options.followLink = [&](std::string_view relative) {
    asked.emplace_back(relative);
    return relative != "stray" && relative != "z.bin";
  };
  followed.insert(followed.end(), {"builds/b/files/x.bin", "builds/b2/files/sub/y.bin"});
  EXPECT_EQ(paths(scanTree(root, kSmall, {}, options)), followed);
  std::sort(asked.begin(), asked.end());
  EXPECT_EQ(asked, (Paths{"builds", "builds/b2", "builds/b2/files/loop", "builds/b2/files/up",
                          "stray", "z.bin"}));
  EXPECT_EQ(scanTree(dir() / "no", kSmall).error(), "path not found: " + (dir() / "no").string());
}

TEST_F(ChunkingFiles, TreesCountDuplicateChunksOnceAndListEmptyFiles) {
  std::string text, zeros(3000, '\0');  // zeros are cut at max: two equal chunks and a tail
  for (int i = 0; i < 400; ++i) text += "line " + std::to_string(i * 7919) + "\n";
  for (const auto& [file, bytes] :
       {std::pair{"one", text}, {"copy/one", text}, {"empty", ""}, {"zeros", zeros}})
    test::writeFile(dir() / "tree" / file, bytes);
  const auto scan = scanTree(dir() / "tree", kSmall);
  const auto textRefs = refsOf(text, kSmall), zeroRefs = refsOf(zeros, kSmall);
  ASSERT_GT(textRefs.size(), 3u);
  EXPECT_EQ(scan.value().files, (std::vector<ScannedFile>{{"copy/one", text.size(), textRefs},
                                                          {"empty", 0, {}},
                                                          {"one", text.size(), textRefs},
                                                          {"zeros", 3000, zeroRefs}}));
  EXPECT_EQ(zeroRefs[0], zeroRefs[1]);
  EXPECT_EQ(scan.value().stats,
            (ScanStats{4, textRefs.size() + 2, 2 * text.size() + 3000, text.size() + 1024 + 952}));
}

}  // namespace
}  // namespace quill::rill
