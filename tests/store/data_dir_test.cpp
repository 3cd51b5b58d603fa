#include "store/data_dir.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <iterator>
#include <optional>
#include <tuple>
#include <vector>

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
  const auto prepared = data.prepare();
  ASSERT_TRUE(prepared) << prepared.error();
  for (const char* name :
       {"users", "tokens", "channels", "groups", "invites", "access-requests", "builds"}) {
    EXPECT_TRUE(fs::is_directory(data.root() / name)) << name;
  }
  EXPECT_EQ(std::distance(fs::directory_iterator(data.root()), fs::directory_iterator()), 7);
  EXPECT_TRUE(data.prepare()) << "preparing again is harmless";
}

TEST_F(DataDirTest, PrepareNamesTheDirectoryItCannotCreate) {
  const DataDir data(dir());
  std::ofstream(data.tokens()) << "a file where a directory belongs";
  const auto prepared = data.prepare();
  EXPECT_FALSE(prepared);
  EXPECT_NE(prepared.error().find("tokens"), std::string::npos) << prepared.error();
  EXPECT_NE(prepared.failure().sysErrno, 0) << "the cause is kept";
}

TEST(DataDirLayout, WorkInProgressIsStagingAndDocumentTemporariesOutsideBuildFiles) {
  const std::string tmp = "alice.json.AbCdEfGh1234.tmp";
  for (auto [relative, directory, inProgress] : std::vector<std::tuple<std::string, bool, bool>>{
           {"builds/~incoming", true, true},
           {"builds/b1/incoming", true, true},
           {"incoming", true, true},
           {"builds/b1/files/incoming", true, false},
           {"builds/b1/files", true, false},
           {"users/incoming", true, false},
           {"users/" + tmp, false, true},
           {tmp, false, true},
           {"builds/b1/" + tmp, false, true},
           {"builds/b1/files/" + tmp, false, false},
           {"builds/b1/files/deep/" + tmp, false, false},
           {"users/alice.json.tmp", false, false},
           {"users/alice.json.AbCdEfGh123.tmp", false, false},
           {"users/alice.json.AbCdEfGh12-4.tmp", false, false},
           {"users/.AbCdEfGh1234.tmp", false, false},
           {"users/alice.json", false, false}}) {
    EXPECT_EQ(DataDir::isWorkInProgress(relative, directory), inProgress) << relative;
  }
  for (auto [relative, followed] :
       std::vector<std::pair<std::string, bool>>{{"builds", true},
                                                 {"builds/b2", true},
                                                 {"builds/b2/files", false},
                                                 {"users", false},
                                                 {"buildsx", false},
                                                 {"x/builds", false}}) {
    EXPECT_EQ(DataDir::isVolumeLink(relative), followed) << relative;
  }
}

TEST_F(DataDirTest, StartUpRemovesOnlyStaleDocumentTemporaries) {
  const DataDir data(dir());
  const auto prepared = data.prepare();
  ASSERT_TRUE(prepared) << prepared.error();
  const auto write = [](const fs::path& path) { std::ofstream(path) << "{"; };
  const std::vector<fs::path> stale = {data.users() / "a.json.AbCdEfGh1234.tmp",
                                       data.root() / "sso.json.AbCdEfGh1234.tmp",
                                       data.accessRequests() / "r.json.AbCdEfGh1234.tmp"};
  const std::vector<fs::path> kept = {data.users() / "a.json", data.users() / "b.json.tmp",
                                      data.builds() / "b1.json.AbCdEfGh1234.tmp",
                                      data.tokens() / "t.json.AbCdEfGh1234.tmp"};
  const auto startedAt = fs::file_time_type::clock::now();
  for (const auto& path : stale) write(path);
  for (const auto& path : kept) write(path);
  for (const auto& path : stale) fs::last_write_time(path, startedAt - std::chrono::minutes(1));
  for (const auto& path : kept) fs::last_write_time(path, startedAt - std::chrono::minutes(1));
  // Written after start-up: an offline command's write in progress.
  fs::last_write_time(kept.back(), startedAt + std::chrono::seconds(1));
  data.removeDocumentLeftovers(startedAt);
  for (const auto& path : stale) EXPECT_FALSE(fs::exists(path)) << path;
  for (const auto& path : kept) EXPECT_TRUE(fs::exists(path)) << path;
}

}  // namespace
}  // namespace quill::store
