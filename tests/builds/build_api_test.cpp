// The build routes in-process through the route table and the gate: each refusal in its order,
// the stored files and the manifest, the disabled flag, deletion and the listing.

#include <gtest/gtest.h>

#include <algorithm>
#include <optional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "http/json.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"
#include "support/numbered.h"

namespace quill::test {
namespace {

constexpr const char* kBadId = "invalid build id";
constexpr const char* kBadPath = "missing or invalid ?path= parameter";
constexpr const char* kImmutable = "build is finalized and immutable";
constexpr const char* kNoFiles = "build has no files";
constexpr const char* kNotFound = "build not found";
constexpr const char* kFileNotFound = "file not found";

class BuildApiTest : public ApiTest {
 protected:
  void SetUp() override { start(false); }
  http::Response readBuild(const std::string& id) {
    return asAdmin(Req("GET", "/api/builds/" + id));
  }
  http::Response download(const std::string& id, const std::string& path) {
    return asAdmin(Req("GET", "/api/builds/" + id + "/files").q("path", path));
  }
  http::Response listBuilds() { return asAdmin(Req("GET", "/api/builds")); }
  http::Response remove(const std::string& id) {
    return asAdmin(Req("DELETE", "/api/builds/" + id));
  }
  http::Response disable(const std::string& id, std::optional<std::string> value = std::nullopt) {
    Req req("POST", "/api/builds/" + id + "/disabled");
    if (value) req.q("value", *value);
    return asAdmin(req);
  }
};

TEST_F(BuildApiTest, EveryBuildRouteRefusesAnInvalidIdFirst) {
  for (const std::string id : {"bad id", "Lpt9.zip"}) {
    for (const Req& req :
         {Req("PUT", "/api/builds/" + id + "/files"),
          Req("PUT", "/api/builds/" + id + "/files").q("path", "ok.txt"),
          Req("POST", "/api/builds/" + id + "/finalize"), Req("GET", "/api/builds/" + id),
          Req("GET", "/api/builds/" + id + "/files").q("path", "a.txt"),
          Req("POST", "/api/builds/" + id + "/disabled"), Req("DELETE", "/api/builds/" + id)}) {
      EXPECT_TRUE(isError(asAdmin(req), 400, kBadId)) << req.build().method << " " << id;
    }
  }
  EXPECT_TRUE(isError(upload(std::string(129, 'a'), "ok.txt", "x"), 400, kBadId));
}

TEST_F(BuildApiTest, RillOnlyServerRefusesEveryUploadAfterTheGateAndBeforeAnyOtherCheck) {
  makeBuild("done");
  start(false, true);
  const char* kRillOnly = "this server is Rill-only: Barge uploads are not accepted";
  EXPECT_TRUE(isError(asAdmin(Req("PUT", "/api/builds/bad id/files")), 403, kRillOnly));
  EXPECT_TRUE(isError(upload("done", "app.bin", "x"), 403, kRillOnly));
  // The gate still answers first.
  EXPECT_TRUE(
      isError(send(Req("PUT", "/api/builds/bad id/files")), 401, "missing or invalid token"));
  const std::string mia = seedUser("mia", "member");
  EXPECT_TRUE(isError(as(mia, Req("PUT", "/api/builds/b3/files").q("path", "a")), 403,
                      "this operation requires the admin role"));
  const std::string pete = seedUser("pete", "publisher", {"beta"});
  EXPECT_TRUE(isError(as(pete, Req("PUT", "/api/builds/bad id/files")), 403, kRillOnly));
  EXPECT_FALSE(fs::exists(buildDir("b1")));
  EXPECT_EQ(readBytes(buildDir("done") / "files" / "app.bin"), "bytes");
}

TEST_F(BuildApiTest, UploadChecksThePathThenTheState) {
  // A few of the path rule's refusals: the rule itself is the names module's business.
  for (const std::string path : {"", "a/../b", "dir/nul"}) {
    EXPECT_TRUE(isError(upload("b2", path, "x"), 400, kBadPath)) << path;
  }
  EXPECT_TRUE(isError(asAdmin(Req("PUT", "/api/builds/b2/files").body("x")), 400, kBadPath));
  EXPECT_FALSE(fs::exists(buildDir("b2"))) << "refusals touch nothing";

  makeBuild("b3");
  EXPECT_TRUE(isError(upload("b3", "../x", "x"), 400, kBadPath));
  EXPECT_TRUE(isError(upload("b3", "new.txt", "x"), 409, kImmutable));
  EXPECT_TRUE(isError(upload("b3", "app.bin", "changed"), 409, kImmutable));
  EXPECT_EQ(readBytes(buildDir("b3") / "files" / "app.bin"), "bytes");
  EXPECT_FALSE(fs::exists(buildDir("b3") / "files" / "new.txt"));
}

TEST_F(BuildApiTest, UploadStoresTheBodyAtItsPathAndAReuploadReplacesIt) {
  const std::string path = "Game Data/\xC3\xA9t\xC3\xA9 1.pak";
  auto res = upload("b1", path, std::string("he\0llo", 6));
  EXPECT_EQ(res.body, R"({"build":"b1","path":")" + path + R"(","size":6})");
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / path), std::string("he\0llo", 6));
  EXPECT_EQ(upload("b1", "empty.dat", "").body, R"({"build":"b1","path":"empty.dat","size":0})");
  EXPECT_TRUE(fs::is_regular_file(buildDir("b1") / "files" / "empty.dat"));
  ASSERT_TRUE(isOk(upload("b1", path, "v2")));
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / path), "v2");
  // The atomic write leaves nothing beside the files themselves.
  EXPECT_EQ(filesIn(buildDir("b1") / "files"), 2u);
  EXPECT_FALSE(fs::exists(buildDir("b1") / "incoming"));
  EXPECT_EQ(filesIn(buildDir("b1") / "files" / "Game Data"), 1u);

  // Every upload has a temporary of its own: an empty upload of `x` leaves `x.tmp` alone.
  ASSERT_TRUE(isOk(upload("b1", "x.tmp", "earlier")));
  ASSERT_TRUE(isOk(upload("b1", "x", "")));
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "x.tmp"), "earlier");

  // A segment may be as long as a file name can be.
  const std::string longest(255, 'n');
  ASSERT_TRUE(isOk(upload("b1", "deep/" + longest, "long")));
  EXPECT_EQ(fileBody(download("b1", "deep/" + longest)), "long");
  EXPECT_TRUE(isError(upload("b1", "deep/" + longest + "n", "x"), 400, kBadPath));

  // A path that collides with a file or a directory cannot be stored.
  ASSERT_TRUE(isOk(upload("b1", "plain", "a file")));
  EXPECT_TRUE(isError(upload("b1", "plain/below", "x"), 500, "could not store file"));
  EXPECT_TRUE(isError(upload("b1", "Game Data", "x"), 500, "could not store file"));
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "plain"), "a file");
  // Nor can a body the disk had no room for.
  EXPECT_TRUE(isError(asAdmin(Req("PUT", "/api/builds/b1/files").q("path", "plain").bodyLost()),
                      500, "could not store file"));
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "plain"), "a file");
}

TEST_F(BuildApiTest, FinalizeWritesTheManifestWithFilesInByteOrder) {
  for (const auto& [path, content] :
       std::vector<std::pair<std::string, std::string>>{{"a.txt", "1"},
                                                        {"B.txt", "22"},
                                                        {"dir2/y", "333"},
                                                        {"dir/x", "4444"},
                                                        {"dir.txt", "55555"},
                                                        {"z.txt", ""},
                                                        {"\xC3\xA9.txt", "666666"}}) {
    ASSERT_TRUE(isOk(upload("b1", path, content)));
  }
  fs::create_directories(buildDir("b1") / "files" / "empty dir");

  const std::string before = store::nowUtcText();
  auto res = finalize("b1");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"build", "created_at", "file_count",
                                                        "files", "schema_version", "total_size"}));
  Json::Value manifest = bodyOf(res);
  EXPECT_EQ(manifest["schema_version"], 1);
  EXPECT_EQ(manifest["build"], "b1");
  ASSERT_TRUE(isUtcStamp(manifest["created_at"]));
  EXPECT_LE(before, manifest["created_at"].asString());
  EXPECT_EQ(manifest["file_count"], 7);
  EXPECT_EQ(manifest["total_size"], 21);
  std::vector<std::string> paths;
  for (const auto& f : manifest["files"]) paths.push_back(f["path"].asString());
  EXPECT_EQ(paths, (std::vector<std::string>{"B.txt", "a.txt", "dir.txt", "dir/x", "dir2/y",
                                             "z.txt", "\xC3\xA9.txt"}));
  EXPECT_EQ(manifest["files"][3]["size"], 4);

  // The stored manifest is the one answered, in the indented form.
  const std::string stored = readBytes(buildDir("b1") / "manifest.json");
  EXPECT_EQ(parseJson(stored), manifest);
  EXPECT_TRUE(std::regex_search(stored, std::regex("^\\{\n[ \t]+\"build\""))) << stored;
  EXPECT_TRUE(isError(finalize("b1"), 409, "build already finalized"));
}

TEST_F(BuildApiTest, FinalizeNeedsAFilesDirectoryButNotAFile) {
  EXPECT_TRUE(isError(finalize("never"), 404, kNoFiles));
  EXPECT_FALSE(fs::exists(buildDir("never")));
  // Only a broken upload's leftovers: no files.
  fs::create_directories(buildDir("husk") / "incoming");
  EXPECT_TRUE(isError(finalize("husk"), 404, kNoFiles));
  EXPECT_FALSE(fs::exists(buildDir("husk") / "manifest.json"));

  fs::create_directories(buildDir("hollow") / "files");
  auto res = finalize("hollow");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(http::toCompactJson(bodyOf(res)["files"]), "[]");
  EXPECT_EQ(bodyOf(res)["total_size"], 0);
}

TEST_F(BuildApiTest, LinksLeftUnderABuildAreNeverFollowed) {
  const fs::path outside = dir() / "outside";
  fs::create_directories(outside / "dir");
  writeText(outside / "secret.txt", "secret");
  ASSERT_TRUE(isOk(upload("b1", "real.txt", "real")));
  const fs::path files = buildDir("b1") / "files";
  fs::create_directory_symlink(outside / "dir", files / "linked-dir");
  fs::create_symlink(outside / "secret.txt", files / "linked-file");

  EXPECT_TRUE(isError(upload("b1", "linked-dir/new.txt", "x"), 500, "could not store file"));
  EXPECT_TRUE(fs::is_empty(outside / "dir"));
  EXPECT_TRUE(isError(download("b1", "linked-file"), 404, kFileNotFound));
  EXPECT_TRUE(isError(download("b1", "linked-dir/../secret.txt"), 400, kBadPath));
  writeText(outside / "dir" / "inner.txt", "inner");
  EXPECT_TRUE(isError(download("b1", "linked-dir/inner.txt"), 404, kFileNotFound));

  // Finalize lists neither link nor what lies behind it.
  auto res = finalize("b1");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(http::toCompactJson(bodyOf(res)["files"]), R"([{"path":"real.txt","size":4}])");

  // An upload over a link replaces the link, never the file it points at.
  ASSERT_TRUE(isOk(upload("b2", "real.txt", "real")));
  fs::create_symlink(outside / "secret.txt", buildDir("b2") / "files" / "over");
  ASSERT_TRUE(isOk(upload("b2", "over", "replaced")));
  EXPECT_FALSE(fs::is_symlink(buildDir("b2") / "files" / "over"));
  EXPECT_EQ(readBytes(outside / "secret.txt"), "secret");

  // Nor are the build's documents read through links.
  writeText(outside / "manifest.json", R"({"build":"b4","files":[]})");
  ASSERT_TRUE(isOk(upload("b4", "a.txt", "x")));
  fs::create_symlink(outside / "manifest.json", buildDir("b4") / "manifest.json");
  EXPECT_TRUE(isError(readBuild("b4"), 404, kNotFound));
  EXPECT_TRUE(isError(upload("b4", "a.txt", "y"), 409, kImmutable));

  // A `files` that is itself a link is no files directory.
  fs::create_directories(buildDir("b3"));
  fs::create_directory_symlink(outside / "dir", buildDir("b3") / "files");
  EXPECT_TRUE(isError(finalize("b3"), 404, kNoFiles));
  EXPECT_TRUE(isError(upload("b3", "a.txt", "x"), 500, "could not store file"));
}

TEST_F(BuildApiTest, AnUploadRacingFinalizeIsListedOrRefusedNeverChangedAfterwards) {
  for (int round = 0; round < 40; ++round) {
    const std::string id = test::numbered("r", round);
    ASSERT_TRUE(isOk(upload(id, "a.bin", "1")));
    http::Response uploaded;
    std::thread uploader([&] { uploaded = upload(id, "a.bin", std::string(20000, 'x')); });
    http::Response finalized = finalize(id);
    uploader.join();
    ASSERT_TRUE(isOk(finalized));
    const std::uint64_t listed = bodyOf(finalized)["files"][0]["size"].asUInt64();
    EXPECT_EQ(fs::file_size(buildDir(id) / "files" / "a.bin"), listed) << round;
    if (uploaded.status == 200u) {
      EXPECT_EQ(listed, 20000u) << round;
    } else {
      EXPECT_TRUE(isError(uploaded, 409, kImmutable)) << round;
    }
  }
}

TEST_F(BuildApiTest, ReadAnnotatesTheManifestWithTheChannelsPointingAtIt) {
  EXPECT_TRUE(isError(readBuild("nobody"), 404, kNotFound));
  makeBuild("b1", {{"a.txt", "abc"}});
  makeBuild("b2");
  for (const char* name : {"nightly", "beta", "Zeta"}) writeChannel(name, "b1");
  writeChannel("other", "b2");
  writeChannel("upper", "B1");
  writeChannel("spaced", "b1 ");
  writeText(data().channels() / "old.json.bak", R"({"build":"b1"})");
  writeText(data().channels() / "broken.json", R"({"build":"b1")");
  // Channel documents of any shape leave reads working.
  int odd = 0;
  for (const char* text :
       {R"(["b1"])", R"("b1")", "7", "null", R"({"build": 5, "public": "yes"})"}) {
    writeText(channelPath("odd" + std::to_string(++odd)), text);
  }
  fs::create_directories(data().channels() / "folder.json");

  Json::Value expected = parseJson(readBytes(buildDir("b1") / "manifest.json"));
  expected["disabled"] = false;
  expected["channels"] = strings({"Zeta", "beta", "nightly"});
  EXPECT_EQ(bodyOf(readBuild("b1")), expected);
  EXPECT_EQ(bodyOf(listBuilds())["builds"].size(), 2u);
}

TEST_F(BuildApiTest, DownloadStreamsTheFileNamedAsAnAttachment) {
  ASSERT_TRUE(isOk(upload("b1", "docs/read me.TXT", "text")));
  EXPECT_TRUE(isError(asAdmin(Req("GET", "/api/builds/b1/files")), 400, kBadPath));
  EXPECT_TRUE(isError(download("b1", "../b1/docs/read me.TXT"), 400, kBadPath));
  EXPECT_TRUE(isError(download("b1", "docs/absent.txt"), 404, kFileNotFound));
  EXPECT_TRUE(isError(download("b1", "docs"), 404, kFileNotFound));
  EXPECT_TRUE(isError(download("nobody", "docs/read me.TXT"), 404, kFileNotFound));

  auto text = download("b1", "docs/read me.TXT");
  ASSERT_TRUE(isOk(text));
  EXPECT_EQ(fileBody(text), "text");
  EXPECT_TRUE(text.body.empty()) << "streamed from disk, not held in the answer";
  EXPECT_EQ(text.contentType, "text/plain; charset=utf-8");
  EXPECT_EQ(headerOf(text, "Content-Disposition"),
            "attachment; filename=\"read me.TXT\"; filename*=UTF-8''read%20me.TXT");
}

TEST_F(BuildApiTest, DisabledFlagIsFalseOnlyForTheExactWordFalse) {
  EXPECT_TRUE(isError(disable("nobody"), 404, kNotFound));
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  EXPECT_TRUE(isError(disable("open", "true"), 404, kNotFound));
  EXPECT_FALSE(fs::exists(buildDir("open") / "state.json"));

  makeBuild("b1");
  const std::vector<std::pair<std::optional<std::string>, bool>> cases = {
      {std::nullopt, true}, {"false", false}, {"FALSE", true}, {"false", false},
      {"False", true},      {"false", false}, {"", true},      {"true", true}};
  for (const auto& [value, disabled] : cases) {
    auto res = disable("b1", value);
    const std::string shown = value ? "'" + *value + "'" : "absent";
    EXPECT_EQ(res.body,
              std::string(R"({"build":"b1","disabled":)") + (disabled ? "true" : "false") + "}")
        << shown;
    EXPECT_EQ(readDoc(buildDir("b1") / "state.json"),
              parseJson(std::string(R"({"disabled":)") + (disabled ? "true" : "false") +
                        R"(,"schema_version":1})"))
        << shown;
    EXPECT_EQ(bodyOf(readBuild("b1"))["disabled"], disabled) << shown;
  }
  // Disabled, the build is still read, downloaded and listed.
  EXPECT_EQ(fileBody(download("b1", "app.bin")), "bytes");
  EXPECT_EQ(bodyOf(listBuilds())["builds"][0]["disabled"], true);
  // An unreadable state document means "not disabled".
  writeText(buildDir("b1") / "state.json", "{\"disabled\": tru");
  EXPECT_EQ(bodyOf(readBuild("b1"))["disabled"], false);
  EXPECT_EQ(bodyOf(listBuilds())["builds"][0]["disabled"], false);
}

TEST_F(BuildApiTest, DeleteRefusesWhileOnChannelsNamingThemInOrder) {
  EXPECT_TRUE(isError(remove("nobody"), 404, kNotFound));
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  EXPECT_EQ(remove("open").body, R"({"deleted":"open"})");
  EXPECT_FALSE(fs::exists(buildDir("open")));

  makeBuild("b1");
  makeBuild("b2");
  writeChannel("nightly", "b1");
  writeChannel("beta", "b1", true);
  writeChannel("stable", "b2");
  EXPECT_TRUE(isError(remove("b1"), 409,
                      "build is still on channel(s): beta, nightly - promote them away first"));
  ASSERT_TRUE(isOk(promote("beta", "b2")));
  EXPECT_TRUE(isError(remove("b1"), 409,
                      "build is still on channel(s): nightly - promote them away first"));
  EXPECT_TRUE(fs::exists(buildDir("b1") / "manifest.json"));
  ASSERT_TRUE(isOk(promote("nightly", "b2")));
  ASSERT_TRUE(isOk(disable("b1")));
  EXPECT_EQ(remove("b1").body, R"({"deleted":"b1"})");
  EXPECT_FALSE(fs::exists(buildDir("b1")));
  EXPECT_TRUE(isError(readBuild("b1"), 404, kNotFound));
  EXPECT_EQ(readDoc(channelPath("nightly"))["build"], "b2");
}

TEST_F(BuildApiTest, ListingSummarisesOnlyFinalizedBuildsInByteOrder) {
  fs::remove_all(data().builds());
  EXPECT_EQ(listBuilds().body, R"({"builds":[],"schema_version":1})");

  for (const char* id : {"b", "B", "a.1", "a-1"}) makeBuild(id, {{"f.bin", "12345"}});
  ASSERT_TRUE(isOk(upload("open", "dir/a.txt", "still uploading")));
  writeText(data().builds() / "stray.json", R"({"created_at":"x"})");
  writeText(buildDir("damaged") / "manifest.json", "[");
  // Open or damaged builds are not found, yet an open one's files download.
  EXPECT_TRUE(isError(readBuild("open"), 404, kNotFound));
  EXPECT_TRUE(isError(readBuild("damaged"), 404, kNotFound));
  EXPECT_EQ(fileBody(download("open", "dir/a.txt")), "still uploading");
  // Directory names are not checked against the id rule, and the figures are copied as stored.
  writeText(buildDir("not an id") / "manifest.json",
            R"({"schema_version":1,"build":"not an id","created_at":"2020-02-02T02:02:02Z",)"
            R"("file_count":7,"total_size":12345678901234,"files":[]})");
  writeChannel("zed", "b");
  writeChannel("alpha", "b");
  writeChannel("odd", "not an id");
  ASSERT_TRUE(isOk(disable("a.1")));

  auto res = listBuilds();
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"builds", "schema_version"}));
  const Json::Value builds = bodyOf(res)["builds"];
  ASSERT_EQ(builds.size(), 5u);
  std::vector<std::string> names;
  for (const auto& summary : builds) names.push_back(summary["build"].asString());
  EXPECT_EQ(names, (std::vector<std::string>{"B", "a-1", "a.1", "b", "not an id"}));
  Json::Value b = readDoc(buildDir("b") / "manifest.json");
  EXPECT_EQ(http::toCompactJson(builds[3]),
            R"({"build":"b","channels":["alpha","zed"],"created_at":")" +
                b["created_at"].asString() +
                R"(","disabled":false,"file_count":1,"total_size":5})");
  EXPECT_EQ(builds[2]["disabled"], true);
  EXPECT_EQ(http::toCompactJson(builds[4]),
            R"({"build":"not an id","channels":["odd"],"created_at":"2020-02-02T02:02:02Z",)"
            R"("disabled":false,"file_count":7,"total_size":12345678901234})");
}

// The listing reads the channels once for all builds; it must agree with each build's own read.
TEST_F(BuildApiTest, ListingOfManyBuildsAgreesWithEachBuildsOwnRead) {
  constexpr int kBuilds = 300;
  auto idOf = [](int i) { return test::numbered("b", 1000 + i); };
  for (int i = 0; i < kBuilds; ++i) {
    const std::string id = idOf(i);
    writeText(buildDir(id) / "manifest.json",
              R"({"schema_version":1,"build":")" + id + R"(","created_at":")" +
                  store::formatUtc(1700000000 + i) + R"(","file_count":)" + std::to_string(i % 17) +
                  R"(,"total_size":)" + std::to_string(i * 1000) + R"(,"files":[]})");
    if (i % 7 == 0) writeText(buildDir(id) / "state.json", R"({"disabled":true})");
  }
  for (int k = 0; k < 60; ++k) {
    // Pairs of channels share a build; some point nowhere or at a missing build.
    writeChannel((k % 3 ? "ch" : "CH") + std::to_string(k),
                 k % 11 == 0   ? ""
                 : k % 13 == 0 ? "gone"
                               : idOf((k / 2) * 19 % kBuilds),
                 k % 2 == 0);
  }
  const Json::Value builds = bodyOf(listBuilds())["builds"];
  ASSERT_EQ(builds.size(), static_cast<Json::ArrayIndex>(kBuilds));
  for (int i = 0; i < kBuilds; ++i) {
    Json::Value own = bodyOf(readBuild(idOf(i)));
    own.removeMember("files");
    own.removeMember("schema_version");
    EXPECT_EQ(builds[i], own) << idOf(i);
  }
}

}  // namespace
}  // namespace quill::test
