#include "store/data_dir.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <optional>

#include "support/temp_dir_test_base.h"

namespace quill::store {
namespace {

// Runs `check` with LOCALAPPDATA set to `value` (unset for nullptr), then restores it.
template <typename Check>
void withLocalAppData(const char* value, Check check) {
  const char* old = getenv("LOCALAPPDATA");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  value ? setenv("LOCALAPPDATA", value, 1) : unsetenv("LOCALAPPDATA");
  check();
  saved ? setenv("LOCALAPPDATA", saved->c_str(), 1) : unsetenv("LOCALAPPDATA");
}

TEST(DataDirDefault, FollowsLocalAppDataAndIsMadeAbsolute) {
  withLocalAppData("/home/u/Local", [] {
    EXPECT_EQ(defaultDataDir(), fs::path("/home/u/Local/Quillmoor/quillmoord-data"));
  });
  withLocalAppData(nullptr, [] { EXPECT_EQ(defaultDataDir(), fs::path("quillmoord-data")); });
  withLocalAppData("", [] { EXPECT_EQ(defaultDataDir(), fs::path("quillmoord-data")); });
  EXPECT_EQ(DataDir("quillmoord-data").root(), fs::current_path() / "quillmoord-data");
}

class DataDirTest : public test::TempDirTest {};

TEST_F(DataDirTest, PrepareCreatesTheRootAndItsSevenRecordDirectories) {
  const DataDir data(dir() / "missing" / "data");
  std::string error;
  ASSERT_TRUE(data.prepare(error)) << error;
  for (const char* name :
       {"users", "tokens", "channels", "groups", "invites", "access-requests", "builds"}) {
    EXPECT_TRUE(fs::is_directory(data.root() / name)) << name;
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(data.root()), fs::directory_iterator()), 7);
  EXPECT_TRUE(data.prepare(error)) << "preparing again is harmless: " << error;
}

TEST_F(DataDirTest, PrepareNamesTheDirectoryItCannotCreate) {
  const DataDir data(dir());
  std::ofstream(data.tokens()) << "a file where a directory belongs";
  std::string error;
  EXPECT_FALSE(data.prepare(error));
  EXPECT_NE(error.find("tokens"), std::string::npos) << error;
}

}  // namespace
}  // namespace quill::store
