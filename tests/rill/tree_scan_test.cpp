#include "rill/tree_scan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "rill/chunk_id.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

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
