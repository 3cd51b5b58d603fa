// File replacement keeps the cause of a failure (the errno of the step that failed) and leaves
// nothing behind; the data directory's writer passes it on.

#include "base/durable_file.h"

#include <fcntl.h>

#include <cerrno>
#include <fstream>
#include <iterator>

#include "base/unique_fd.h"
#include "store/documents.h"
#include "support/temp_dir_test_base.h"

namespace quill::base {
namespace {

namespace fs = std::filesystem;

class DurableFileTest : public test::TempDirTest {
 protected:
  std::string contents(const fs::path& path) const {
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  }
};

TEST_F(DurableFileTest, FailuresKeepTheirErrnoAndLeaveTheOldFile) {
  const UniqueFd dirFd(::open(dir().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(dirFd);
  ASSERT_TRUE(replaceFileAt(dirFd.get(), "doc", "doc.1.tmp", "old", 0644));
  std::ofstream(dir() / "leftover.tmp") << "x";
  fs::create_directory(dir() / "folder");
  fs::create_directory(dir() / "folder" / "inside");

  const struct {
    const char* name;
    const char* temporary;
    int errnoValue;
    const char* reason;
  } failures[] = {
      {"doc", "leftover.tmp", EEXIST, "create failed for leftover.tmp: "},  // never overwritten
      {"folder", "doc.2.tmp", EISDIR, "rename failed for doc.2.tmp: "},     // a full directory
  };
  for (const auto& f : failures) {
    const auto replaced = replaceFileAt(dirFd.get(), f.name, f.temporary, "new", 0644);
    ASSERT_FALSE(replaced) << f.name;
    EXPECT_EQ(replaced.failure().sysErrno, f.errnoValue) << replaced.error();
    EXPECT_TRUE(replaced.error().starts_with(f.reason)) << replaced.error();
  }
  EXPECT_EQ(contents(dir() / "doc"), "old");
  EXPECT_EQ(contents(dir() / "leftover.tmp"), "x");
  EXPECT_FALSE(fs::exists(dir() / "doc.2.tmp"));

  // The document writer: a parent that is a file is the cause it reports.
  const auto written = store::writeFileAtomic(dir() / "doc" / "child.json", "{}");
  ASSERT_FALSE(written);
  EXPECT_EQ(written.failure().sysErrno, ENOTDIR) << written.error();
}

}  // namespace
}  // namespace quill::base
