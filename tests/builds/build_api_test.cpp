// The build routes in-process through the route table and the gate: each refusal in its order,
// the stored files and the manifest, the disabled flag, deletion and the listing.

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "builds/builds_fixture.h"
#include "store/utc_time.h"

namespace quill {
namespace {

using test::bodyOf;
using test::Call;
using test::headerOf;
using test::isError;
using test::isOk;
using test::isUtcStamp;
using test::membersOf;
using test::readBytes;
using test::strings;

namespace fs = std::filesystem;

constexpr const char* kRillOnly = "this server is Rill-only: Barge uploads are not accepted";
constexpr const char* kBadId = "invalid build id";
constexpr const char* kBadPath = "missing or invalid ?path= parameter";
constexpr const char* kImmutable = "build is finalized and immutable";
constexpr const char* kAlreadyFinalized = "build already finalized";
constexpr const char* kNoFiles = "build has no files";
constexpr const char* kNotFound = "build not found";
constexpr const char* kFileNotFound = "file not found";

// Ids the name rule refuses, each for a different reason.
std::vector<std::string> invalidIds() {
  return {"bad id", ".", "..", "con", "Lpt9.zip", std::string(129, 'a'), "caf\xC3\xA9", "a+b"};
}

// Every path below `root`, relative and with forward slashes, sorted.
std::vector<std::string> treeOf(const fs::path& root) {
  std::vector<std::string> entries;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    entries.push_back(it->path().lexically_relative(root).generic_string());
  }
  std::sort(entries.begin(), entries.end());
  return entries;
}

class BuildApiTest : public test::BuildsTest {};

TEST_F(BuildApiTest, RillOnlyServerRefusesEveryUploadBeforeAnyOtherCheck) {
  makeBuild("done");
  start(true);
  for (const auto& id : invalidIds()) {
    EXPECT_TRUE(
        isError(send(Call("PUT", "/api/builds/" + id + "/files").as(admin())), 403, kRillOnly))
        << id;
  }
  EXPECT_TRUE(isError(upload("b1", "../escape", "x"), 403, kRillOnly));
  EXPECT_TRUE(isError(upload("done", "app.bin", "x"), 403, kRillOnly));
  EXPECT_TRUE(isError(upload("b1", "a.txt", "x"), 403, kRillOnly));
  EXPECT_FALSE(fs::exists(buildDir("b1")));
  EXPECT_EQ(readBytes(buildDir("done") / "files" / "app.bin"), "bytes");
}

TEST_F(BuildApiTest, UploadChecksTheIdThenThePathThenTheState) {
  for (const auto& id : invalidIds()) {
    EXPECT_TRUE(isError(send(Call("PUT", "/api/builds/" + id + "/files").as(admin())), 400, kBadId))
        << id;
    EXPECT_TRUE(isError(upload(id, "ok.txt", "x"), 400, kBadId)) << id;
  }

  // A few of the path rule's refusals: the rule itself is the names module's business.
  const std::vector<std::string> unsafe = {"",     "/abs", "a//b",    "a/",   "a/../b",
                                           "a\\b", "C:/x", "dir/nul", "end.", "\xC0\x80"};
  for (const auto& path : unsafe) {
    EXPECT_TRUE(isError(upload("b2", path, "x"), 400, kBadPath)) << path;
  }
  EXPECT_TRUE(
      isError(send(Call("PUT", "/api/builds/b2/files").body("x").as(admin())), 400, kBadPath));
  EXPECT_FALSE(fs::exists(buildDir("b2"))) << "refusals touch nothing";

  makeBuild("b3");
  EXPECT_TRUE(isError(upload("b3", "../x", "x"), 400, kBadPath));
  EXPECT_TRUE(isError(upload("b3", "new.txt", "x"), 409, kImmutable));
  EXPECT_TRUE(isError(upload("b3", "app.bin", "changed"), 409, kImmutable));
  EXPECT_EQ(readBytes(buildDir("b3") / "files" / "app.bin"), "bytes");
  EXPECT_FALSE(fs::exists(buildDir("b3") / "files" / "new.txt"));
}

TEST_F(BuildApiTest, UploadStoresTheBodyAtItsPathAndAnswersAReceipt) {
  const std::string path = "Game Data/\xC3\xA9t\xC3\xA9 1.pak";
  auto res = upload("b1", path, std::string("he\0llo", 6));
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(res.body, R"({"build":"b1","path":"Game Data/)"
                      "\xC3\xA9t\xC3\xA9"
                      R"( 1.pak","size":6})");
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / path), std::string("he\0llo", 6));

  auto empty = upload("b1", "empty.dat", "");
  EXPECT_EQ(empty.body, R"({"build":"b1","path":"empty.dat","size":0})");
  EXPECT_TRUE(fs::is_regular_file(buildDir("b1") / "files" / "empty.dat"));
  EXPECT_EQ(fs::file_size(buildDir("b1") / "files" / "empty.dat"), 0u);

  // The atomic write leaves nothing beside the files themselves.
  EXPECT_EQ(
      treeOf(buildDir("b1") / "files"),
      (std::vector<std::string>{"Game Data", "Game Data/\xC3\xA9t\xC3\xA9 1.pak", "empty.dat"}));
}

TEST_F(BuildApiTest, ReuploadReplacesTheFileAndTheManifestListsItOnce) {
  ASSERT_TRUE(isOk(upload("b1", "dir/app.bin", "first version")));
  ASSERT_TRUE(isOk(upload("b1", "dir/app.bin", "v2")));
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "dir" / "app.bin"), "v2");
  auto res = finalize("b1");
  ASSERT_TRUE(isOk(res));
  Json::Value manifest = bodyOf(res);
  EXPECT_EQ(manifest["file_count"], 1);
  EXPECT_EQ(manifest["total_size"], 2);
  ASSERT_EQ(manifest["files"].size(), 1u);
  EXPECT_EQ(manifest["files"][0]["path"], "dir/app.bin");
  EXPECT_EQ(manifest["files"][0]["size"], 2);
}

TEST_F(BuildApiTest, FinalizeWritesTheManifestWithFilesInByteOrder) {
  const std::vector<std::pair<std::string, std::string>> uploads = {
      {"a.txt", "1"},
      {"B.txt", "22"},
      {"dir2/y", "333"},
      {"dir/x", "4444"},
      {"dir.txt", "55555"},
      {"z.txt", ""},
      {"\xC3\xA9.txt", "666666"},
      {"dir/sub/deep.bin", "7777777"}};
  for (const auto& [path, content] : uploads) ASSERT_TRUE(isOk(upload("b1", path, content)));
  fs::create_directories(buildDir("b1") / "files" / "empty dir");

  const std::string before = store::nowUtcText();
  auto res = finalize("b1");
  const std::string after = store::nowUtcText();
  ASSERT_TRUE(isOk(res));
  Json::Value manifest = bodyOf(res);
  EXPECT_EQ(membersOf(manifest),
            (std::vector<std::string>{"build", "created_at", "file_count", "files",
                                      "schema_version", "total_size"}));
  EXPECT_EQ(manifest["schema_version"], 1);
  EXPECT_EQ(manifest["build"], "b1");
  ASSERT_TRUE(isUtcStamp(manifest["created_at"])) << manifest["created_at"];
  EXPECT_LE(before, manifest["created_at"].asString());
  EXPECT_GE(after, manifest["created_at"].asString());
  EXPECT_EQ(manifest["file_count"], 8);
  EXPECT_EQ(manifest["total_size"], 28);

  const std::vector<std::pair<std::string, int>> expected = {
      {"B.txt", 2}, {"a.txt", 1},  {"dir.txt", 5}, {"dir/sub/deep.bin", 7},
      {"dir/x", 4}, {"dir2/y", 3}, {"z.txt", 0},   {"\xC3\xA9.txt", 6}};
  ASSERT_EQ(manifest["files"].size(), expected.size());
  for (Json::ArrayIndex i = 0; i < expected.size(); ++i) {
    const Json::Value& file = manifest["files"][i];
    EXPECT_EQ(membersOf(file), (std::vector<std::string>{"path", "size"}));
    EXPECT_EQ(file["path"], expected[i].first) << i;
    EXPECT_EQ(file["size"], expected[i].second) << i;
  }

  // The stored manifest is the one answered, in the indented form.
  const std::string stored = readBytes(buildDir("b1") / "manifest.json");
  EXPECT_EQ(test::parseJsonText(stored), manifest);
  EXPECT_EQ(stored.rfind("{\n", 0), 0u) << stored;
  EXPECT_TRUE(std::regex_search(stored, std::regex("\n[ \t]+\"build\"")))
      << "members on indented lines: " << stored;
}

TEST_F(BuildApiTest, FinalizeRefusalsAndTheEmptyBuild) {
  for (const auto& id : invalidIds()) {
    EXPECT_TRUE(
        isError(send(Call("POST", "/api/builds/" + id + "/finalize").as(admin())), 400, kBadId))
        << id;
  }
  EXPECT_TRUE(isError(finalize("never"), 404, kNoFiles));
  EXPECT_FALSE(fs::exists(buildDir("never")));

  // A build directory without files/ (say, only a broken upload's leftovers) has no files.
  fs::create_directories(buildDir("husk") / "incoming");
  EXPECT_TRUE(isError(finalize("husk"), 404, kNoFiles));
  EXPECT_FALSE(fs::exists(buildDir("husk") / "manifest.json"));

  fs::create_directories(buildDir("hollow") / "files");
  auto res = finalize("hollow");
  ASSERT_TRUE(isOk(res));
  Json::Value manifest = bodyOf(res);
  EXPECT_EQ(manifest["file_count"], 0);
  EXPECT_EQ(manifest["total_size"], 0);
  EXPECT_TRUE(manifest["files"].isArray());
  EXPECT_EQ(manifest["files"].size(), 0u);

  EXPECT_TRUE(isError(finalize("hollow"), 409, kAlreadyFinalized));
  EXPECT_EQ(test::parseJsonText(readBytes(buildDir("hollow") / "manifest.json")), manifest);
}

TEST_F(BuildApiTest, ReadAnnotatesTheStoredManifest) {
  for (const auto& id : invalidIds()) {
    EXPECT_TRUE(isError(send(Call("GET", "/api/builds/" + id).as(admin())), 400, kBadId)) << id;
  }
  EXPECT_TRUE(isError(readBuild("nobody"), 404, kNotFound));

  makeBuild("b1", {{"a.txt", "abc"}});
  makeBuild("b2");
  writeChannel("nightly", "b1");
  writeChannel("beta", "b1");
  writeChannel("Zeta", "b1");
  writeChannel("other", "b2");
  writeChannel("upper", "B1");
  writeChannel("spaced", "b1 ");
  writeChannel("empty", "");
  writeText(data().channels() / "old.json.bak", R"({"build":"b1"})");
  writeText(data().channels() / "notes.txt", R"({"build":"b1"})");
  writeText(data().channels() / "broken.json", R"({"build":"b1")");
  fs::create_directories(data().channels() / "folder.json");

  Json::Value expected = test::parseJsonText(readBytes(buildDir("b1") / "manifest.json"));
  expected["disabled"] = false;
  expected["channels"] = strings({"Zeta", "beta", "nightly"});
  auto res = readBuild("b1");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(bodyOf(res), expected);
}

TEST_F(BuildApiTest, OpenOrDamagedBuildsAreNotFoundYetTheirFilesDownload) {
  ASSERT_TRUE(isOk(upload("open", "dir/a.txt", "still uploading")));
  EXPECT_TRUE(isError(readBuild("open"), 404, kNotFound));
  auto res = download("open", "dir/a.txt");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(readBytes(res.file), "still uploading");
  EXPECT_EQ(bodyOf(listBuilds())["builds"].size(), 0u);

  makeBuild("damaged");
  writeText(buildDir("damaged") / "manifest.json", "{ not json");
  EXPECT_TRUE(isError(readBuild("damaged"), 404, kNotFound));
}

TEST_F(BuildApiTest, ChannelDocumentsOfAnyShapeLeaveBuildReadsWorking) {
  makeBuild("b1");
  makeBuild("b2");
  writeChannel("beta", "b1");
  writeText(data().channels() / "list.json", R"(["b1"])");
  writeText(data().channels() / "text.json", R"("b1")");
  writeText(data().channels() / "number.json", "7");
  writeText(data().channels() / "nothing.json", "null");
  writeText(data().channels() / "wrongtype.json", R"({"build": 5, "public": "yes"})");

  auto read = readBuild("b1");
  EXPECT_TRUE(isOk(read));
  if (read.status == 200) {
    EXPECT_EQ(bodyOf(read)["channels"], strings({"beta"}));
  }
  auto list = listBuilds();
  EXPECT_TRUE(isOk(list));
  if (list.status == 200) {
    EXPECT_EQ(bodyOf(list)["builds"].size(), 2u);
  }
  EXPECT_TRUE(isError(send(Call("DELETE", "/api/builds/b1").as(admin())), 409,
                      "build is still on channel(s): beta - promote them away first"));
  EXPECT_TRUE(isOk(send(Call("DELETE", "/api/builds/b2").as(admin()))));
}

TEST_F(BuildApiTest, ChannelDocumentsOfAnyShapeLeaveTheGatesPublicReadsWorking) {
  makeBuild("b1");
  makeBuild("b2");
  writeChannel("stable", "b1", true);
  writeText(data().channels() / "list.json", R"(["b2"])");
  writeText(data().channels() / "text.json", R"("b2")");
  EXPECT_TRUE(isOk(send(Call("GET", "/api/builds/b1"))));
  EXPECT_TRUE(isOk(send(Call("GET", "/api/builds/b1/files").q("path", "app.bin"))));
  EXPECT_TRUE(isOk(send(Call("GET", "/api/channels/stable"))));
  EXPECT_TRUE(isError(send(Call("GET", "/api/builds/b2")), 401, "missing or invalid token"));
  EXPECT_TRUE(isError(send(Call("GET", "/api/channels/list")), 401, "missing or invalid token"));
}

TEST_F(BuildApiTest, AFileThatCannotBeStoredIsA500) {
  ASSERT_TRUE(isOk(upload("b1", "plain", "a file")));
  EXPECT_TRUE(isError(upload("b1", "plain/below", "x"), 500, "could not store file"));
  ASSERT_TRUE(isOk(upload("b1", "folder/inside", "x")));
  EXPECT_TRUE(isError(upload("b1", "folder", "x"), 500, "could not store file"));
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "plain"), "a file");
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "folder" / "inside"), "x");
}

TEST_F(BuildApiTest, DownloadStreamsTheFileNamedAsAnAttachment) {
  for (const auto& id : invalidIds()) {
    EXPECT_TRUE(isError(download(id, "a.txt"), 400, kBadId)) << id;
  }
  ASSERT_TRUE(isOk(upload("b1", "docs/read me.TXT", "text")));
  ASSERT_TRUE(isOk(upload("b1", "Game Data/\xC3\xA9t\xC3\xA9.pak", "pak")));
  EXPECT_TRUE(isError(send(Call("GET", "/api/builds/b1/files").as(admin())), 400, kBadPath));
  EXPECT_TRUE(isError(download("b1", "../b1/docs/read me.TXT"), 400, kBadPath));
  EXPECT_TRUE(isError(download("b1", "docs//read me.TXT"), 400, kBadPath));
  EXPECT_TRUE(isError(download("b1", "docs/absent.txt"), 404, kFileNotFound));
  EXPECT_TRUE(isError(download("b1", "docs"), 404, kFileNotFound));
  EXPECT_TRUE(isError(download("nobody", "docs/read me.TXT"), 404, kFileNotFound));

  auto text = download("b1", "docs/read me.TXT");
  ASSERT_TRUE(isOk(text));
  EXPECT_EQ(readBytes(text.file), "text");
  EXPECT_TRUE(text.body.empty()) << "streamed from disk, not held in the answer";
  EXPECT_EQ(text.contentType, "text/plain; charset=utf-8");
  EXPECT_EQ(headerOf(text, "Content-Disposition"),
            "attachment; filename=\"read me.TXT\"; filename*=UTF-8''read%20me.TXT");

  auto pak = download("b1", "Game Data/\xC3\xA9t\xC3\xA9.pak");
  ASSERT_TRUE(isOk(pak));
  EXPECT_EQ(readBytes(pak.file), "pak");
  EXPECT_EQ(pak.contentType, "application/octet-stream");
  const std::string disposition = headerOf(pak, "Content-Disposition");
  EXPECT_EQ(disposition.rfind("attachment; filename=\"", 0), 0u) << disposition;
  EXPECT_NE(disposition.find("filename*=UTF-8''%C3%A9t%C3%A9.pak"), std::string::npos)
      << disposition;
}

TEST_F(BuildApiTest, DisabledFlagIsFalseOnlyForTheExactWordFalse) {
  for (const auto& id : invalidIds()) {
    EXPECT_TRUE(
        isError(send(Call("POST", "/api/builds/" + id + "/disabled").as(admin())), 400, kBadId))
        << id;
  }
  EXPECT_TRUE(
      isError(send(Call("POST", "/api/builds/nobody/disabled").as(admin())), 404, kNotFound));
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  EXPECT_TRUE(
      isError(send(Call("POST", "/api/builds/open/disabled").q("value", "true").as(admin())), 404,
              kNotFound));
  EXPECT_FALSE(fs::exists(buildDir("open") / "state.json"));

  makeBuild("b1");
  struct Case {
    std::optional<std::string> value;
    bool disabled;
  };
  const std::vector<Case> cases = {{"false", false}, {std::nullopt, true}, {"false", false},
                                   {"FALSE", true},  {"false", false},     {"False", true},
                                   {"false", false}, {"", true},           {"true", true}};
  for (const auto& c : cases) {
    Call call("POST", "/api/builds/b1/disabled");
    if (c.value) call.q("value", *c.value);
    auto res = send(call.as(admin()));
    const std::string shown = c.value ? "'" + *c.value + "'" : "absent";
    ASSERT_TRUE(isOk(res)) << shown;
    EXPECT_EQ(res.body,
              std::string(R"({"build":"b1","disabled":)") + (c.disabled ? "true" : "false") + "}")
        << shown;
    Json::Value state = readDoc(buildDir("b1") / "state.json");
    EXPECT_EQ(membersOf(state), (std::vector<std::string>{"disabled", "schema_version"}));
    EXPECT_EQ(state["schema_version"], 1);
    EXPECT_EQ(state["disabled"], c.disabled) << shown;
    EXPECT_EQ(bodyOf(readBuild("b1"))["disabled"], c.disabled) << shown;
  }

  // Disabled, the build is still read, downloaded and listed.
  EXPECT_TRUE(isOk(readBuild("b1")));
  auto file = download("b1", "app.bin");
  ASSERT_TRUE(isOk(file));
  EXPECT_EQ(readBytes(file.file), "bytes");
  EXPECT_EQ(bodyOf(listBuilds())["builds"][0]["disabled"], true);

  // An unreadable state document means "not disabled".
  writeText(buildDir("b1") / "state.json", "{\"disabled\": tru");
  EXPECT_EQ(bodyOf(readBuild("b1"))["disabled"], false);
  EXPECT_EQ(bodyOf(listBuilds())["builds"][0]["disabled"], false);
}

TEST_F(BuildApiTest, DeleteRefusesWhileOnChannelsNamingThemInOrder) {
  for (const auto& id : invalidIds()) {
    EXPECT_TRUE(isError(send(Call("DELETE", "/api/builds/" + id).as(admin())), 400, kBadId)) << id;
  }
  EXPECT_TRUE(isError(send(Call("DELETE", "/api/builds/nobody").as(admin())), 404, kNotFound));

  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  auto open = send(Call("DELETE", "/api/builds/open").as(admin()));
  EXPECT_EQ(open.status, 200u);
  EXPECT_EQ(open.body, R"({"deleted":"open"})");
  EXPECT_FALSE(fs::exists(buildDir("open")));

  makeBuild("b1");
  makeBuild("b2");
  ASSERT_TRUE(isOk(createChannel("nightly")));
  ASSERT_TRUE(isOk(createChannel("beta")));
  ASSERT_TRUE(isOk(createChannel("stable")));
  ASSERT_TRUE(isOk(promote("nightly", "b1")));
  ASSERT_TRUE(isOk(promote("beta", "b1")));
  ASSERT_TRUE(isOk(promote("stable", "b2")));
  ASSERT_TRUE(isOk(setPublic("beta", "true")));
  EXPECT_TRUE(isError(send(Call("DELETE", "/api/builds/b1").as(admin())), 409,
                      "build is still on channel(s): beta, nightly - promote them away first"));
  EXPECT_TRUE(fs::exists(buildDir("b1") / "manifest.json"));

  ASSERT_TRUE(isOk(promote("beta", "b2")));
  EXPECT_TRUE(isError(send(Call("DELETE", "/api/builds/b1").as(admin())), 409,
                      "build is still on channel(s): nightly - promote them away first"));
  ASSERT_TRUE(isOk(promote("nightly", "b2")));
  ASSERT_TRUE(isOk(send(Call("POST", "/api/builds/b1/disabled").as(admin()))));
  auto res = send(Call("DELETE", "/api/builds/b1").as(admin()));
  EXPECT_EQ(res.status, 200u);
  EXPECT_EQ(res.body, R"({"deleted":"b1"})");
  EXPECT_FALSE(fs::exists(buildDir("b1")));
  EXPECT_TRUE(isError(readBuild("b1"), 404, kNotFound));
  EXPECT_TRUE(isError(download("b1", "app.bin"), 404, kFileNotFound));
  for (const char* channel : {"beta", "nightly", "stable"}) {
    EXPECT_EQ(readDoc(channelFile(channel))["build"], "b2") << channel;
  }
}

TEST_F(BuildApiTest, ListingSummarisesFinalizedBuildsInByteOrder) {
  fs::remove_all(data().builds());
  auto none = listBuilds();
  ASSERT_TRUE(isOk(none));
  EXPECT_EQ(none.body, R"({"builds":[],"schema_version":1})");
  fs::create_directories(data().builds());
  EXPECT_EQ(listBuilds().body, R"({"builds":[],"schema_version":1})");

  for (const char* id : {"b", "B", "a.1", "a-1"}) makeBuild(id, {{"f.bin", "12345"}});
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  writeText(data().builds() / "stray.json", R"({"created_at":"x"})");
  writeText(buildDir("damaged") / "manifest.json", "[");
  // Directory names are not checked against the id rule, and the figures are copied as stored.
  Json::Value handmade(Json::objectValue);
  handmade["schema_version"] = 1;
  handmade["build"] = "not an id";
  handmade["created_at"] = "2020-02-02T02:02:02Z";
  handmade["file_count"] = 7;
  handmade["total_size"] = Json::UInt64(12345678901234ULL);
  handmade["files"] = Json::Value(Json::arrayValue);
  writeDoc(buildDir("not an id") / "manifest.json", handmade);
  writeChannel("zed", "b");
  writeChannel("alpha", "b");
  writeChannel("odd", "not an id");
  ASSERT_TRUE(isOk(send(Call("POST", "/api/builds/a.1/disabled").as(admin()))));

  auto res = listBuilds();
  ASSERT_TRUE(isOk(res));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(membersOf(doc), (std::vector<std::string>{"builds", "schema_version"}));
  EXPECT_EQ(doc["schema_version"], 1);
  const Json::Value& builds = doc["builds"];
  std::vector<std::string> names;
  for (const auto& summary : builds) names.push_back(summary["build"].asString());
  EXPECT_EQ(names, (std::vector<std::string>{"B", "a-1", "a.1", "b", "not an id"}));
  for (const auto& summary : builds) {
    EXPECT_EQ(membersOf(summary),
              (std::vector<std::string>{"build", "channels", "created_at", "disabled", "file_count",
                                        "total_size"}))
        << summary;
  }
  ASSERT_EQ(builds.size(), 5u);
  Json::Value b = readDoc(buildDir("b") / "manifest.json");
  EXPECT_EQ(builds[3]["created_at"], b["created_at"]);
  EXPECT_EQ(builds[3]["file_count"], 1);
  EXPECT_EQ(builds[3]["total_size"], 5);
  EXPECT_EQ(builds[3]["channels"], strings({"alpha", "zed"}));
  EXPECT_EQ(builds[3]["disabled"], false);
  EXPECT_EQ(builds[2]["disabled"], true);
  EXPECT_EQ(builds[0]["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(builds[4]["created_at"], "2020-02-02T02:02:02Z");
  EXPECT_EQ(builds[4]["file_count"], 7);
  EXPECT_EQ(builds[4]["total_size"].asUInt64(), 12345678901234ULL);
  EXPECT_EQ(builds[4]["channels"], strings({"odd"}));
}

// The listing reads the channels once for all builds; its answer must match reading each
// build's channels on its own, whatever the mix of channels.
TEST_F(BuildApiTest, ListingOfAThousandBuildsAgreesWithEachBuildsOwnRead) {
  constexpr int kBuilds = 1000;
  constexpr int kChannels = 100;
  auto idOf = [](int i) {
    std::string digits = std::to_string(i);
    return "b" + std::string(4 - digits.size(), '0') + digits;
  };
  for (int i = 0; i < kBuilds; ++i) {
    Json::Value manifest(Json::objectValue);
    manifest["schema_version"] = 1;
    manifest["build"] = idOf(i);
    manifest["created_at"] = store::formatUtc(1700000000 + i);
    manifest["file_count"] = i % 17;
    manifest["total_size"] = Json::UInt64(i) * 1000;
    manifest["files"] = Json::Value(Json::arrayValue);
    writeDoc(buildDir(idOf(i)) / "manifest.json", manifest);
    if (i % 7 == 0) writeText(buildDir(idOf(i)) / "state.json", R"({"disabled":true})");
  }
  std::map<std::string, std::vector<std::string>> expected;
  for (int k = 0; k < kChannels; ++k) {
    const std::string name = (k % 3 ? "ch" : "CH") + std::to_string(k);
    std::string build;
    if (k % 11 == 0) {
      build = "";
    } else if (k % 13 == 0) {
      build = "gone";
    } else {
      build = idOf((k / 2) * 19 % kBuilds);  // pairs of channels share a build
    }
    writeChannel(name, build, k % 2 == 0);
    if (!build.empty()) expected[build].push_back(name);
  }
  writeText(data().channels() / "junk.json", "{");
  for (auto& [build, names] : expected) std::sort(names.begin(), names.end());

  auto res = listBuilds();
  ASSERT_TRUE(isOk(res));
  const Json::Value builds = bodyOf(res)["builds"];
  ASSERT_EQ(builds.size(), static_cast<Json::ArrayIndex>(kBuilds));
  for (int i = 0; i < kBuilds; ++i) {
    const Json::Value& summary = builds[i];
    const std::string id = idOf(i);
    ASSERT_EQ(summary["build"], id);
    Json::Value own = bodyOf(readBuild(id));
    EXPECT_EQ(summary["channels"], own["channels"]) << id;
    EXPECT_EQ(summary["disabled"], own["disabled"]) << id;
    EXPECT_EQ(summary["created_at"], own["created_at"]) << id;
    EXPECT_EQ(summary["file_count"], own["file_count"]) << id;
    EXPECT_EQ(summary["total_size"], own["total_size"]) << id;
    Json::Value want(Json::arrayValue);
    for (const auto& name : expected[id]) want.append(name);
    EXPECT_EQ(summary["channels"], want) << id;
    EXPECT_EQ(summary["disabled"], i % 7 == 0) << id;
  }
}

}  // namespace
}  // namespace quill
