// Publishing and downloading builds with the real binary on 127.0.0.1: a CI-style session over
// HTTP, refusals answered before an upload's body is sent, and uploads that break off or race.

#include <gtest/gtest.h>
#include <json/value.h>

#include <cctype>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "e2e/e2e_support.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::test {
namespace {

namespace fs = std::filesystem;

// Every byte outside the unreserved set percent-encoded, "/" included.
std::string percentEncode(const std::string& text) {
  static constexpr char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 0x0F];
    }
  }
  return out;
}

// Waits (bounded, 20 s) until `condition` holds.
bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 400 && !condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return condition();
}

// The regular files below `root`, relative, as the recursive walk met them.
std::vector<std::string> filesBelow(const fs::path& root) {
  std::vector<std::string> files;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file())
      files.push_back(it->path().lexically_relative(root).generic_string());
  }
  return files;
}

// Whether some file directly in `dir` holds bytes.
bool holdsBytes(const fs::path& dir) {
  std::error_code ec;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file(ec) && it->file_size(ec) > 0) return true;
  }
  return false;
}

class BuildsE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    tmp = std::make_unique<TempDir>();
    dataDir = (tmp->path() / "data").string();
    adminToken = offlineAdminToken(dataDir);
    server = std::make_unique<ServerProcess>(kBinary, std::vector<std::string>{"--data-dir", dataDir});
    ASSERT_TRUE(server->waitUntilListening());
  }
  static void TearDownTestSuite() {
    server.reset();
    tmp.reset();
  }

  Fetched asAdmin(const std::string& method, const std::string& path,
                  const std::string& body = "") {
    return client.fetch(method, server->url(path), body, bearer(adminToken));
  }
  Fetched upload(const std::string& build, const std::string& path, const std::string& body) {
    return asAdmin("PUT", "/api/builds/" + build + "/files?path=" + percentEncode(path), body);
  }
  fs::path buildDir(const std::string& id) const { return fs::path(dataDir) / "builds" / id; }
  // Where upload bodies are streamed while they arrive.
  fs::path incoming() const { return fs::path(dataDir) / "builds" / "~incoming"; }

  // The head of a PUT that announces `length` body bytes.
  static std::string uploadHead(const std::string& target, std::uint64_t length, bool expect,
                                const std::string& token) {
    std::string head = "PUT " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
    if (!token.empty()) head += "Authorization: Bearer " + token + "\r\n";
    head += "Content-Length: " + std::to_string(length) + "\r\n";
    if (expect) head += "Expect: 100-continue\r\n";
    return head + "\r\n";
  }

  static inline std::unique_ptr<TempDir> tmp;
  static inline std::string dataDir, adminToken;
  static inline std::unique_ptr<ServerProcess> server;
  Client client;
};

TEST_F(BuildsE2E, CiSessionPublishesABuildThatAnonymousClientsDownload) {
  const std::vector<std::pair<std::string, std::string>> files = {
      {"Game Data/level 1.pak", randomBytes(70000, 8)},
      {"Game Data/\xC3\xA9t\xC3\xA9/\xC3\xB1"
       "and\xC3\xBA notes.txt",
       "caf\xC3\xA9\n"},
      {"bin/game.exe", randomBytes(6 * 1024 * 1024 + 123, 7)},
      {"docs/read me.txt", "Read me first.\n"},
      {"empty.dat", ""}};  // in byte order

  ASSERT_EQ(asAdmin("POST", "/api/channels/stable").status, 200);
  for (const auto& [path, content] : files) {
    auto r = upload("ci-1042", path, content);
    ASSERT_EQ(r.status, 200) << path << " " << r.body << r.error;
    Json::Value receipt = parseJson(r.body);
    EXPECT_EQ(receipt["build"], "ci-1042");
    EXPECT_EQ(receipt["path"], path);
    EXPECT_EQ(receipt["size"].asUInt64(), content.size());
  }
  auto finalized = asAdmin("POST", "/api/builds/ci-1042/finalize");
  ASSERT_EQ(finalized.status, 200) << finalized.body;
  Json::Value manifest = parseJson(finalized.body);
  EXPECT_EQ(manifest["file_count"], 5);
  for (Json::ArrayIndex i = 0; i < files.size(); ++i) {
    EXPECT_EQ(manifest["files"][i]["path"], files[i].first) << "listed in byte order";
  }

  const std::string fileUrl = "/api/builds/ci-1042/files?path=";
  EXPECT_EQ(client.fetch("GET", server->url(fileUrl + "empty.dat")).status, 401);

  ASSERT_EQ(asAdmin("POST", "/api/channels/stable/promote?build=ci-1042").status, 200);
  ASSERT_EQ(asAdmin("POST", "/api/channels/stable/public?value=true").status, 200);

  Client anonymous;
  auto channel = anonymous.fetch("GET", server->url("/api/channels/stable"));
  ASSERT_EQ(channel.status, 200);
  EXPECT_EQ(parseJson(channel.body)["build"], "ci-1042");
  auto read = anonymous.fetch("GET", server->url("/api/builds/ci-1042"));
  ASSERT_EQ(read.status, 200);
  EXPECT_EQ(parseJson(read.body)["channels"][0], "stable");
  for (const auto& [path, content] : files) {
    auto r = anonymous.fetch("GET", server->url(fileUrl + percentEncode(path)));
    ASSERT_EQ(r.status, 200) << path << r.error;
    EXPECT_TRUE(r.body == content)
        << path << ": " << r.body.size() << " bytes, expected " << content.size();
    EXPECT_EQ(r.headers["content-length"], std::to_string(content.size())) << path;
    const std::string disposition = r.headers["content-disposition"];
    EXPECT_EQ(disposition.rfind("attachment;", 0), 0u) << path << ": " << disposition;
    const std::string name = fs::path(path).filename().string();
    EXPECT_NE(disposition.find(percentEncode(name)), std::string::npos) << disposition;
  }
  EXPECT_EQ(anonymous.fetch("GET", server->url("/api/builds")).status, 401);
}

TEST_F(BuildsE2E, UploadRefusalsAreAnsweredBeforeTheBodyIsSent) {
  ASSERT_EQ(upload("sealed", "a.bin", "a").status, 200);
  ASSERT_EQ(asAdmin("POST", "/api/builds/sealed/finalize").status, 200);
  struct Case {
    std::string target;
    std::string token;
    std::string status;
    std::string answer;
  };
  const std::vector<Case> cases = {
      {"/api/builds/sealed/files?path=a.bin", adminToken, "HTTP/1.1 409 Conflict\r\n",
       R"({"error":"build is finalized and immutable"})"},
      {"/api/builds/open-1/files?path=..%2Fx", adminToken, "HTTP/1.1 400 Bad Request\r\n",
       R"({"error":"missing or invalid ?path= parameter"})"},
      {"/api/builds/bad%20id/files?path=x", adminToken, "HTTP/1.1 400 Bad Request\r\n",
       R"({"error":"invalid build id"})"},
      {"/api/builds/open-1/files?path=x", "", "HTTP/1.1 401 Unauthorized\r\n",
       R"({"error":"missing or invalid token"})"},
  };
  for (const auto& c : cases) {
    for (bool expect : {true, false}) {
      RawConnection raw(server->port());
      ASSERT_TRUE(raw.connected());
      ASSERT_TRUE(raw.send(uploadHead(c.target, 10 * 1024 * 1024, expect, c.token)));
      // No body byte is sent: the answer must come on the head alone.
      const std::string answer = raw.readUntil("\"}", std::chrono::seconds(20));
      EXPECT_EQ(answer.rfind(c.status, 0), 0u) << c.target << ":\n" << answer;
      EXPECT_NE(answer.find(c.answer), std::string::npos) << answer;
      EXPECT_EQ(answer.find("100 Continue"), std::string::npos) << answer;
    }
  }
  EXPECT_FALSE(fs::exists(buildDir("open-1")));
  EXPECT_EQ(filesBelow(buildDir("sealed") / "files"), std::vector<std::string>{"a.bin"});
}

TEST_F(BuildsE2E, AnAcceptableUploadIsInvitedToSendItsBody) {
  RawConnection raw(server->port());
  ASSERT_TRUE(raw.connected());
  const std::string body = randomBytes(300000, 3);
  ASSERT_TRUE(
      raw.send(uploadHead("/api/builds/invited/files?path=x.bin", body.size(), true, adminToken)));
  const std::string interim = raw.readUntil("\r\n\r\n", std::chrono::seconds(20));
  EXPECT_EQ(interim, "HTTP/1.1 100 Continue\r\n\r\n");
  ASSERT_TRUE(raw.send(body));
  const std::string answer = raw.readUntil("}", std::chrono::seconds(20));
  EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
  EXPECT_NE(answer.find(R"({"build":"invited","path":"x.bin","size":300000})"), std::string::npos)
      << answer;
  EXPECT_TRUE(upload("invited", "y.bin", "y").status == 200);
  auto fetched = asAdmin("GET", "/api/builds/invited/files?path=x.bin");
  EXPECT_TRUE(fetched.body == body);
}

TEST_F(BuildsE2E, RillOnlyServerRefusesAnUploadOnItsHead) {
  TempDir own;
  const std::string dir = (own.path() / "data").string();
  const std::string token = offlineAdminToken(dir);
  ServerProcess rillOnly(kBinary, {"--data-dir", dir, "--rill-only"});
  ASSERT_TRUE(rillOnly.waitUntilListening());
  RawConnection raw(rillOnly.port());
  ASSERT_TRUE(raw.connected());
  ASSERT_TRUE(raw.send(uploadHead("/api/builds/bad%20id/files", 10 * 1024 * 1024, true, token)));
  const std::string answer = raw.readUntil("\"}", std::chrono::seconds(20));
  EXPECT_EQ(answer.rfind("HTTP/1.1 403 Forbidden\r\n", 0), 0u) << answer;
  EXPECT_NE(answer.find(R"({"error":"this server is Rill-only: Barge uploads are not accepted"})"),
            std::string::npos)
      << answer;
}

TEST_F(BuildsE2E, AnUploadCutShortLeavesNothingBehind) {
  const std::string v1 = randomBytes(5000, 11);
  ASSERT_EQ(upload("cut", "keep/over.bin", v1).status, 200);

  for (const char* target : {"cut/files?path=keep%2Fover.bin", "cut/files?path=new%2Fpartial.bin",
                             "fresh/files?path=a.bin"}) {
    {
      RawConnection raw(server->port());
      ASSERT_TRUE(raw.connected());
      ASSERT_TRUE(raw.send(
          uploadHead(std::string("/api/builds/") + target, 10 * 1000 * 1000, false, adminToken)));
      ASSERT_TRUE(raw.send(randomBytes(1000 * 1000, 12)));
      ASSERT_TRUE(eventually([&] { return holdsBytes(incoming()); })) << "the body is being stored";
    }  // the connection closes here, 9 MB short
    ASSERT_TRUE(eventually([&] { return filesBelow(incoming()).empty(); }))
        << "the partial body is removed";
  }

  EXPECT_FALSE(fs::exists(buildDir("cut") / "files" / "new" / "partial.bin"));
  EXPECT_FALSE(fs::exists(buildDir("fresh"))) << "a broken first upload makes no build";
  auto kept = asAdmin("GET", "/api/builds/cut/files?path=keep%2Fover.bin");
  EXPECT_EQ(kept.status, 200);
  EXPECT_TRUE(kept.body == v1) << "the earlier whole upload stays";
  EXPECT_EQ(asAdmin("GET", "/api/builds/cut/files?path=new%2Fpartial.bin").status, 404);

  ASSERT_EQ(upload("cut", "later.txt", "later").status, 200);
  auto finalized = asAdmin("POST", "/api/builds/cut/finalize");
  ASSERT_EQ(finalized.status, 200);
  Json::Value manifest = parseJson(finalized.body);
  EXPECT_EQ(manifest["file_count"], 2);
  EXPECT_EQ(manifest["total_size"].asUInt64(), v1.size() + 5);
}

TEST_F(BuildsE2E, ConcurrentUploadsOfOnePathEachLandWhole) {
  const std::string first = randomBytes(4 * 1024 * 1024, 21);
  const std::string second = randomBytes(4 * 1024 * 1024, 22);
  for (int round = 0; round < 3; ++round) {
    long statuses[2] = {0, 0};
    auto put = [&](int which, const std::string& body) {
      Client own;
      statuses[which] = own.fetch("PUT", server->url("/api/builds/race/files?path=data%2Fblob.bin"),
                                  body, bearer(adminToken))
                            .status;
    };
    std::thread a(put, 0, std::cref(first));
    std::thread b(put, 1, std::cref(second));
    a.join();
    b.join();
    EXPECT_EQ(statuses[0], 200) << round;
    EXPECT_EQ(statuses[1], 200) << round;
    auto landed = asAdmin("GET", "/api/builds/race/files?path=data%2Fblob.bin");
    ASSERT_EQ(landed.status, 200);
    EXPECT_TRUE(landed.body == first || landed.body == second)
        << "round " << round << ": " << landed.body.size() << " bytes, neither upload whole";
  }
  EXPECT_TRUE(eventually([&] { return filesBelow(incoming()).empty(); }));
  EXPECT_EQ(filesBelow(buildDir("race") / "files"), std::vector<std::string>{"data/blob.bin"});
}

// Builds kept on another file system than the data directory: all of `builds/`, or one build.
TEST(BuildsOnAnotherVolume, UploadsLandAndDownload) {
  TempDir tmp;
  TempDir volume("/dev/shm");
  if (volume.path().empty()) GTEST_SKIP() << "no /dev/shm";
  const fs::path data = tmp.path() / "data";
  const std::string token = offlineAdminToken(data.string());
  fs::create_directories(volume.path() / "builds" / "away");
  fs::remove_all(data / "builds");
  fs::create_directory_symlink(volume.path() / "builds", data / "builds");
  ServerProcess server(kBinary, {"--data-dir", data.string()});
  ASSERT_TRUE(server.waitUntilListening());
  fs::create_directories(tmp.path() / "away");
  fs::create_directory_symlink(tmp.path() / "away", volume.path() / "builds" / "linked");

  Client client;
  const std::vector<std::string> auth = bearer(token);
  const std::string body = randomBytes(300000, 5);
  for (const char* build : {"onvolume", "linked"}) {
    const std::string files = std::string("/api/builds/") + build + "/files?path=dir%2Fa.bin";
    auto put = client.fetch("PUT", server.url(files), body, auth);
    EXPECT_EQ(put.status, 200) << build << " " << put.body;
    EXPECT_EQ(
        client
            .fetch("POST", server.url(std::string("/api/builds/") + build + "/finalize"), "", auth)
            .status,
        200)
        << build;
    auto got = client.fetch("GET", server.url(files), "", auth);
    EXPECT_TRUE(got.status == 200 && got.body == body) << build << " " << got.status;
  }
  EXPECT_TRUE(fs::is_regular_file(tmp.path() / "away" / "files" / "dir" / "a.bin"));
}

}  // namespace
}  // namespace quill::test
