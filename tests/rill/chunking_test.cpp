// Chunking: the cut points against their byte-wise definition, streamed, over files and trees.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "rill/chunks/chunk_id.h"
#include "rill/chunks/chunker.h"
#include "rill/chunks/file_chunker.h"
#include "rill/chunks/gear.h"
#include "rill/chunks/tree_scan.h"
#include "rill_trees.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

namespace fs = std::filesystem;
using Cuts = std::vector<std::uint64_t>;
using Paths = std::vector<std::string>;
const ChunkerParams kSmall{64, 256, 1024};  // a few KiB make several chunks

const std::uint8_t* bytesOf(const std::string& s) {
  return reinterpret_cast<const std::uint8_t*>(s.data());
}

// The cut-point search exactly as the algorithm defines it, one byte at a time.
std::uint64_t referenceCut(const std::uint8_t* data, std::uint64_t len, const ChunkerParams& p) {
  if (len <= p.min) return len;
  const std::uint64_t limit = std::min(len, p.max), normal = std::min(p.avg, limit);
  const ChunkMasks masks = chunkMasks(p.avg);
  std::uint64_t h = 0;
  for (std::uint64_t i = p.min; i < limit; ++i) {
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

std::vector<ChunkRef> refsOf(const std::string& data, const ChunkerParams& p) {
  std::vector<ChunkRef> refs;
  std::uint64_t at = 0;
  for (const std::uint64_t cut : cutsOf(data, p))
    refs.push_back({chunkId(data.substr(at, cut - at)), cut - std::exchange(at, cut)});
  return refs;
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
  const std::string data = test::randomBytes(300000, 3);
  for (std::uint64_t len : {0u, 10u, 64u}) EXPECT_EQ(findCutPoint(bytesOf(data), len, kSmall), len);
  // Default sizes: random data is cut by content, not only at the maximum.
  const std::string big = test::randomBytes(24u << 20, 7);
  EXPECT_EQ(cutsOf(big, {}), cutsOf(big, {}, true));
  EXPECT_GT(cutsOf(big, {}).size(), 3u);

  // Streamed in pieces of 1 byte up to several chunks, so cuts land at piece edges too.
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {
    CutFinder finder(kSmall);
    Cuts cuts;
    for (std::size_t at = 0, piece = 0; at < data.size(); at += piece) {
      piece = std::min<std::size_t>(data.size() - at, 1 + rng() % 3000);
      for (std::size_t used = 0; used < piece; cuts.push_back(at + used)) {
        const auto cut = finder.next(bytesOf(data) + at + used, piece - used);
        if (!cut) break;
        used += *cut;
      }
    }
    if (finder.finish()) cuts.push_back(data.size());
    ASSERT_EQ(cuts, cutsOf(data, kSmall)) << "round " << round;
    EXPECT_FALSE(finder.finish());
  }
}

class ChunkingFiles : public quill::test::TempDirTest {
 protected:
  static Paths paths(const TreeScan& scan) {
    Paths out;
    for (const auto& file : scan.files) out.push_back(file.path);
    return out;
  }
};

TEST_F(ChunkingFiles, FilesAreChunkedAsTheWholeBufferWouldBe) {
  // Below and above the size where hashing moves to a second thread; small chunk sizes put cuts
  // inside blocks, at block edges and across several blocks (all forced at max in the last).
  const ChunkerParams kib{4096, 65536, 1u << 20}, mib{1u << 20, 1u << 20, 1u << 20};
  const std::pair<ChunkerParams, std::size_t> cases[] = {
      {{}, 0}, {{}, 3}, {{}, 3u << 20}, {{}, (20u << 20) + 5}, {kib, 3u << 20}, {kib, 16u << 20},
      {mib, 20u << 20}};
  for (const auto& [p, size] : cases) {
    const std::string bytes = test::randomBytes(size, 7);
    std::vector<Chunk> expected;
    for (std::uint64_t at = 0; const ChunkRef& ref : refsOf(bytes, p))
      expected.push_back({std::exchange(at, at + ref.n), ref.n, ref.h});
    test::writeFile(dir() / "f", bytes);
    const auto chunks = chunkFile(dir() / "f", p);
    ASSERT_TRUE(chunks) << chunks.error();
    EXPECT_EQ(chunks.value(), expected) << "size " << size << " avg " << p.avg;
  }
  EXPECT_EQ(chunkFile(dir() / "none", {}).error(), "cannot open " + (dir() / "none").string());
  EXPECT_EQ(chunkFile(dir(), {}).error(), "read error on " + dir().string());
}

TEST_F(ChunkingFiles, TreesListRegularFilesInByteOrderAndFollowOnlyTheLinksTheyAreToldTo) {
  const fs::path root = dir() / "tree", volume = dir() / "volume";
  for (const char* file : {"b.txt", "a/z.txt", "a/Y.txt", "B.txt", "a-b"})
    test::writeFile(root / file, file);
  for (const char* file : {"shelf/b/files/x.bin", "b2/files/sub/y.bin", "stray/z.bin"})
    test::writeFile(volume / file, file);
  fs::create_directories(root / "empty-dir");
  fs::create_symlink(volume / "shelf", root / "builds");
  fs::create_symlink(volume / "b2", volume / "shelf" / "b2");
  fs::create_symlink(volume / "stray", root / "stray");
  fs::create_symlink(volume / "stray/z.bin", root / "z.bin");
  // Asked to be followed, but back to a directory the walk is already inside.
  fs::create_symlink(root, volume / "b2" / "files" / "loop");
  fs::create_symlink(volume / "shelf", volume / "b2" / "files" / "up");

  const Paths plain{"B.txt", "a-b", "a/Y.txt", "a/z.txt", "b.txt"};
  EXPECT_EQ(paths(scanTree(root, kSmall).value()), plain);  // without the option no link is taken
  Paths asked;
  ScanOptions options;
  options.followLink = [&](std::string_view relative) {
    asked.emplace_back(relative);
    return relative != "stray" && relative != "z.bin";
  };
  Paths followed = plain;
  followed.insert(followed.end(), {"builds/b/files/x.bin", "builds/b2/files/sub/y.bin"});
  EXPECT_EQ(paths(scanTree(root, kSmall, {}, options).value()), followed);
  std::sort(asked.begin(), asked.end());
  EXPECT_EQ(asked, (Paths{"builds", "builds/b2", "builds/b2/files/loop", "builds/b2/files/up",
                          "stray", "z.bin"}));
  EXPECT_EQ(scanTree(dir() / "nope", kSmall).error(), "path not found: " + (dir() / "nope").string());
}

TEST_F(ChunkingFiles, TreesCountDuplicateChunksOnceAndListEmptyFiles) {
  std::string text, zeros(3000, '\0');  // zeros are cut at max: two equal chunks and a tail
  for (int i = 0; i < 400; ++i) text += "line " + std::to_string(i * 7919) + "\n";
  for (const auto& [file, bytes] : {std::pair{"one", text}, {"copy/one", text}, {"empty", ""},
                                    {"zeros", zeros}})
    test::writeFile(dir() / "tree" / file, bytes);
  const auto scan = scanTree(dir() / "tree", kSmall);
  ASSERT_TRUE(scan) << scan.error();
  const auto textRefs = refsOf(text, kSmall);
  ASSERT_GT(textRefs.size(), 3u);
  EXPECT_EQ(scan.value().files,
            (std::vector<ScannedFile>{{"copy/one", text.size(), textRefs}, {"empty", 0, {}},
                                      {"one", text.size(), textRefs}, {"zeros", 3000, refsOf(zeros, kSmall)}}));
  EXPECT_EQ(refsOf(zeros, kSmall)[0], refsOf(zeros, kSmall)[1]);
  EXPECT_EQ(scan.value().stats,
            (ScanStats{4, textRefs.size() + 2, 2 * text.size() + 3000, text.size() + 1024 + 952}));
}

}  // namespace
}  // namespace quill::rill
