// The build store's reading rules and the download headers, below the handlers.

#include "builds/build_store.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <vector>

#include "builds/content_type.h"
#include "support/temp_dir.h"
#include "support/temp_dir_test_base.h"

namespace quill::builds {
namespace {

class BuildStoreTest : public test::TempDirTest {
 protected:
  void SetUp() override {
    const auto prepared = data_.prepare();
    ASSERT_TRUE(prepared) << prepared.error();
  }
  void write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  store::DataDir data_{dir() / "data"};
};

TEST_F(BuildStoreTest, UploadsAreStagedOnTheFileSystemOfTheirBuild) {
  EXPECT_EQ(uploadStaging(data_, "new"), data_.builds() / "~incoming");
  fs::create_directories(buildPaths(data_, "here").dir);
  EXPECT_EQ(uploadStaging(data_, "here"), data_.builds() / "~incoming");

  // A build kept on another volume stages inside itself.
  const test::TempDir elsewhere("/dev/shm");
  struct stat a {
  }, b{};
  if (elsewhere.path().empty() || ::stat(elsewhere.path().c_str(), &a) != 0 ||
      ::stat(data_.builds().c_str(), &b) != 0 || a.st_dev == b.st_dev) {
    GTEST_SKIP() << "no second file system at /dev/shm";
  }
  fs::create_directory_symlink(elsewhere.path(), buildPaths(data_, "away").dir);
  EXPECT_EQ(uploadStaging(data_, "away"), buildPaths(data_, "away").dir / "incoming");
}

TEST_F(BuildStoreTest, StartUpRemovesWhatBrokenUploadsLeftAndNothingElse) {
  write(data_.root() / "incoming" / "old", "partial");
  write(data_.builds() / "~incoming" / "x.tmp", "partial");
  write(buildPaths(data_, "b1").dir / "incoming" / "y.tmp", "partial");
  write(buildPaths(data_, "b1").files / "incoming" / "kept", "a file of the build");
  write(buildPaths(data_, "b1").manifest, "{}");
  removeUploadLeftovers(data_);
  for (const fs::path& gone : {data_.root() / "incoming", data_.builds() / "~incoming",
                               buildPaths(data_, "b1").dir / "incoming"}) {
    EXPECT_FALSE(fs::exists(gone)) << gone;
  }
  EXPECT_TRUE(fs::exists(buildPaths(data_, "b1").files / "incoming" / "kept"));
  EXPECT_TRUE(fs::exists(buildPaths(data_, "b1").manifest));
}

TEST(ContentType, FollowsTheExtensionAndTheDispositionCannotBreakTheHeader) {
  for (const auto& [name, type] : std::vector<std::pair<const char*, const char*>>{
           {"read me.TXT", "text/plain; charset=utf-8"}, {"page.Html", "text/html; charset=utf-8"},
           {"data.tar.gz", "application/gzip"}, {"game.exe", "application/octet-stream"},
           {"LICENSE", "application/octet-stream"}, {"trailing.", "application/octet-stream"}}) {
    EXPECT_EQ(contentTypeFor(name), type) << name;
  }
  EXPECT_EQ(attachmentDisposition("game.exe"),
            "attachment; filename=\"game.exe\"; filename*=UTF-8''game.exe");
  // Quotes, backslashes and line breaks never reach the header raw.
  EXPECT_EQ(attachmentDisposition("a\"b\\c\r\nSet-Cookie: x.txt"),
            "attachment; filename=\"a_b_c__Set-Cookie: x.txt\"; "
            "filename*=UTF-8''a%22b%5Cc%0D%0ASet-Cookie%3A%20x.txt");
  // A non-ASCII name keeps an ASCII-only fallback and its exact bytes in the encoded form.
  const std::string wide = attachmentDisposition("\xC3\xA9t\xC3\xA9.pak");
  EXPECT_NE(wide.find("filename*=UTF-8''%C3%A9t%C3%A9.pak"), std::string::npos) << wide;
  EXPECT_TRUE(std::all_of(wide.begin(), wide.end(), [](unsigned char c) { return c < 0x80; }))
      << wide;
}

}  // namespace
}  // namespace quill::builds
