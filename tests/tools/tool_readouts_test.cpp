// What quillmoor-rill shows a person: its version, and sizes, rates and time left in words.

#include <gtest/gtest.h>

#include "rill/ops/human_size.h"
#include "rill/ops/progress_line.h"
#include "tool_options.h"

namespace quill::rilltool {
namespace {

TEST(ToolReadouts, VersionIsACommandOfItsOwn) {
  for (const std::string word : {"--version", "version"}) {
    auto parsed = parseToolOptions({word}, {});
    ASSERT_TRUE(parsed) << parsed.error();
    EXPECT_TRUE(parsed.value().version) << word;
  }
  EXPECT_FALSE(parseToolOptions({"publish", "--version"}, {}));
}

TEST(ToolReadouts, SizesRatesAndDurations) {
  const std::vector<std::pair<std::uint64_t, std::string>> sizes = {
      {0, "0 B"},
      {1023, "1023 B"},
      {1024, "1.0 KiB"},
      {1536, "1.5 KiB"},
      {1048575, "1.0 MiB"},
      {1288490189, "1.2 GiB"},
      {5ULL << 40, "5.0 TiB"},
      {UINT64_MAX, "16384.0 PiB"}};
  for (const auto& [bytes, text] : sizes) EXPECT_EQ(rill::humanBytes(bytes), text) << bytes;
  EXPECT_EQ(rill::humanRate(35 * 1048576ULL, 1.0), "35.0 MiB/s");
  EXPECT_EQ(rill::humanRate(100, 0.0), "0 B/s");
  const std::vector<std::pair<double, std::string>> durations = {
      {0, "0s"}, {0.2, "1s"}, {59, "59s"}, {65, "1m05s"}, {3599, "59m59s"}, {7620, "2h07m"}};
  for (const auto& [seconds, text] : durations) EXPECT_EQ(rill::humanDuration(seconds), text);
}

TEST(ToolReadouts, ProgressShowsTotalsOnlyOnceTheScanKnowsThem) {
  rill::PublishProgress scanning{
      .chunksDone = 3, .chunksFound = 9, .bytesFound = 9 << 20, .bytesDone = 3 << 20};
  EXPECT_EQ(rill::progressText(rill::publishCounts(scanning), 2.0),
            "  3.0 MiB, 3 chunk(s), 1.5 MiB/s");
  scanning.scanned = true;
  EXPECT_EQ(rill::progressText(rill::publishCounts(scanning), 2.0),
            "  3.0 MiB of 9.0 MiB (33%), 3/9 chunk(s), 1.5 MiB/s, 4s left");
  const rill::PullProgress pulled{.chunksDone = 0, .chunksTotal = 4, .bytesDone = 0,
                                  .bytesTotal = 4096};
  EXPECT_EQ(rill::progressText(rill::pullCounts(pulled), 0.0),
            "  0 B of 4.0 KiB (0%), 0/4 chunk(s), 0 B/s");
}

}  // namespace
}  // namespace quill::rilltool
