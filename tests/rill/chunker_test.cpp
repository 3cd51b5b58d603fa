#include "rill/chunker.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "rill/gear.h"

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
  for (std::uint64_t i = p.min; i < normal; ++i) {
    h = (h << 1) + gearTable()[data[i]];
    if ((h & masks.strict) == 0) return i + 1;
  }
  for (std::uint64_t i = normal; i < limit; ++i) {
    h = (h << 1) + gearTable()[data[i]];
    if ((h & masks.loose) == 0) return i + 1;
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
  std::uint64_t at = 0;
  while (at < data.size()) {
    const std::uint64_t len = data.size() - at;
    at +=
        reference ? referenceCut(data.data() + at, len, p) : findCutPoint(data.data() + at, len, p);
    cuts.push_back(at);
  }
  return cuts;
}

TEST(GearTable, IsTheSplitMix64SequenceBitForBit) {
  const GearTable& gear = gearTable();
  EXPECT_EQ(gear[0], 0x157A3807A48FAA9DULL);
  EXPECT_EQ(gear[1], 0xD573529B34A1D093ULL);
  EXPECT_EQ(gear[255], 0x293D194EEE358FF8ULL);
}

TEST(ChunkMasks, FollowTheAverageSize) {
  EXPECT_EQ(chunkMasks(4194304).strict, (1ULL << 24) - 1);
  EXPECT_EQ(chunkMasks(4194304).loose, (1ULL << 20) - 1);
  EXPECT_EQ(chunkMasks(4194305).strict, (1ULL << 25) - 1);  // not a power of two: rounds up
  EXPECT_EQ(chunkMasks(1).strict, 3u);
  EXPECT_EQ(chunkMasks(1).loose, 0u);
  EXPECT_EQ(chunkMasks(0).strict, 3u);
  EXPECT_EQ(chunkMasks(1ULL << 62).strict, ~0ULL);
  EXPECT_EQ(chunkMasks(1ULL << 62).loose, (1ULL << 60) - 1);
}

TEST(ChunkerParams, RefusesSizesThatCannotWork) {
  EXPECT_FALSE(checkChunkerParams({}));
  EXPECT_FALSE(checkChunkerParams({4, 4, 4}));
  EXPECT_TRUE(checkChunkerParams({0, 0, 0}));
  EXPECT_TRUE(checkChunkerParams({8, 4, 16}));
  EXPECT_TRUE(checkChunkerParams({1, 32, 16}));
}

TEST(FindCutPoint, MatchesTheByteWiseDefinition) {
  // Small sizes give many cuts in both mask regions, at the forced maximum and in short tails.
  for (const ChunkerParams& p :
       {ChunkerParams{64, 256, 1024}, ChunkerParams{0, 16, 64}, ChunkerParams{100, 100, 100},
        ChunkerParams{1, 1, 3}, ChunkerParams{512, 4096, 4096}}) {
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
}

TEST(FindCutPoint, DefaultSizesCutByContentAndZerosAtMax) {
  const auto data = randomBytes(24u << 20, 7);
  const ChunkerParams p;
  const auto cuts = cutsOf(data, p, false);
  EXPECT_EQ(cuts, cutsOf(data, p, true));
  EXPECT_GT(cuts.size(), 3u);  // random data is cut by content, not only at max
  const std::vector<std::uint8_t> zeros(40u << 20, 0);
  EXPECT_EQ(cutsOf(zeros, p, false), (std::vector<std::uint64_t>{16u << 20, 32u << 20, 40u << 20}));
}

TEST(CutFinder, StreamInPiecesGivesTheWholeBufferCuts) {
  const ChunkerParams p{64, 256, 1024};
  const auto data = randomBytes(300000, 3);
  const auto expected = cutsOf(data, p, false);
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {
    CutFinder finder(p);
    std::vector<std::uint64_t> cuts;
    std::size_t at = 0;
    while (at < data.size()) {
      // Pieces of 1 byte up to several chunks, so cuts land at piece edges too.
      const std::size_t piece = std::min<std::size_t>(data.size() - at, 1 + rng() % 3000);
      std::size_t used = 0;
      while (used < piece) {
        const auto cut = finder.next(data.data() + at + used, piece - used);
        if (!cut) break;
        used += *cut;
        cuts.push_back(at + used);
      }
      at += piece;
    }
    if (finder.finish()) cuts.push_back(data.size());
    ASSERT_EQ(cuts, expected) << "round " << round;
    EXPECT_FALSE(finder.finish());
  }
}

}  // namespace
}  // namespace quill::rill
