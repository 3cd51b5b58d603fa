// Publishing and downloading builds with the real binary on 127.0.0.1: a CI-style session over
// HTTP, downloads cancelled by anonymous readers, refusals answered before an upload's body is
// sent, and uploads that break off, race, or land on another volume.

#include <json/value.h>

#include <cctype>
#include <filesystem>
#include <thread>

#include "e2e/e2e_support.h"

namespace quill::test {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Every byte outside the unreserved set percent-encoded, "/" included.
std::string percentEncode(const std::string& text) {
  std::string out;
  for (unsigned char c : text) {
    if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
      out.push_back(static_cast<char>(c));
    } else {
      out += '%';
      out += "0123456789ABCDEF"[c >> 4];
      out += "0123456789ABCDEF"[c & 0x0F];
    }
  }
  return out;
}

// The regular files below `root`, relative; `withBytes`: only those holding bytes.
std::vector<std::string> filesBelow(const fs::path& root, bool withBytes = false) {
  std::vector<std::string> files;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file(ec) && (!withBytes || it->file_size(ec) > 0))
      files.push_back(it->path().lexically_relative(root).generic_string());
  }
  return files;
}

class BuildsE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s = std::make_unique<Served>();
    ASSERT_TRUE(s->up);
  }
  static void TearDownTestSuite() { s.reset(); }
  Fetched upload(const std::string& build, const std::string& path, const std::string& body) {
    return s->admin("PUT", "/api/builds/" + build + "/files?path=" + percentEncode(path), body);
  }
  static fs::path buildDir(const std::string& id) { return fs::path(s->data()) / "builds" / id; }
  // Where upload bodies are streamed while they arrive.
  static fs::path incoming() { return fs::path(s->data()) / "builds" / "~incoming"; }

  static inline std::unique_ptr<Served> s;
};

TEST_F(BuildsE2E, CiSessionPublishesABuildThatAnonymousClientsDownloadOrCancel) {
  const std::vector<std::pair<std::string, std::string>> files = {
      {"Game Data/level 1.pak", randomBytes(70000, 8)},
      {"Game Data/\xC3\xA9t\xC3\xA9/\xC3\xB1"
       "and\xC3\xBA notes.txt",
       "caf\xC3\xA9\n"},
      {"bin/game.exe", randomBytes(64 * 1024 * 1024 + 123, 7)},
      {"empty.dat", ""}};
  ASSERT_EQ(s->admin("POST", "/api/channels/stable").status, 200);
  for (const auto& [path, content] : files) {
    auto r = upload("ci-1042", path, content);
    ASSERT_EQ(r.status, 200) << path << " " << r.body << r.error;
  }
  ASSERT_EQ(parseJson(s->admin("POST", "/api/builds/ci-1042/finalize").body)["file_count"], 4);
  const std::string fileUrl = "/api/builds/ci-1042/files?path=";
  Client anonymous;
  EXPECT_EQ(anonymous.fetch("GET", s->url(fileUrl + "empty.dat")).status, 401);
  ASSERT_EQ(s->admin("POST", "/api/channels/stable/promote?build=ci-1042").status, 200);
  ASSERT_EQ(s->admin("POST", "/api/channels/stable/public?value=true").status, 200);
  for (const auto& [path, content] : files) {
    auto r = anonymous.fetch("GET", s->url(fileUrl + percentEncode(path)));
    ASSERT_EQ(r.status, 200) << path << r.error;
    EXPECT_TRUE(r.body == content) << path << ": " << r.body.size() << " bytes";
    EXPECT_EQ(r.headers["content-length"], std::to_string(content.size())) << path;
    EXPECT_EQ(r.headers["content-disposition"].rfind("attachment;", 0), 0u) << path;
  }
  // Readers that close with unread bytes: the server's next write meets a reset connection.
  for (int i = 0; i < 8; ++i) {
    RawConnection reader(s->server->port());
    reader.send("GET " + fileUrl + "bin%2Fgame.exe HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    ASSERT_NE(reader.readUntil("\r\n\r\n", 5s).find("200 OK"), std::string::npos);
  }
  std::this_thread::sleep_for(300ms);
  EXPECT_TRUE(s->server->running());
  EXPECT_EQ(anonymous.fetch("GET", s->url("/api/version")).status, 200);
}

TEST_F(BuildsE2E, UploadRefusalsAreAnsweredBeforeTheBodyIsSent) {
  ASSERT_EQ(upload("sealed", "a.bin", "a").status, 200);
  ASSERT_EQ(s->admin("POST", "/api/builds/sealed/finalize").status, 200);
  Served rillOnly({"--rill-only"});
  ASSERT_TRUE(rillOnly.up);
  const struct {
    Served* server;
    std::string target, token, status, answer;
  } cases[] = {
      {s.get(), "/api/builds/sealed/files?path=a.bin", s->token, "409 Conflict",
       R"({"error":"build is finalized and immutable"})"},
      {s.get(), "/api/builds/open-1/files?path=..%2Fx", s->token, "400 Bad Request",
       R"({"error":"missing or invalid ?path= parameter"})"},
      {s.get(), "/api/builds/bad%20id/files?path=x", s->token, "400 Bad Request",
       R"({"error":"invalid build id"})"},
      {s.get(), "/api/builds/open-1/files?path=x", "", "401 Unauthorized",
       R"({"error":"missing or invalid token"})"},
      {&rillOnly, "/api/builds/bad%20id/files", rillOnly.token, "403 Forbidden",
       R"({"error":"this server is Rill-only: Barge uploads are not accepted"})"},
  };
  for (const auto& c : cases) {
    for (bool expect : {true, false}) {
      const std::string answer =
          answerToHead(c.server->server->port(), c.target, 10 * 1024 * 1024, expect, c.token);
      EXPECT_EQ(answer.rfind("HTTP/1.1 " + c.status + "\r\n", 0), 0u) << c.target << answer;
      EXPECT_NE(answer.find(c.answer), std::string::npos) << answer;
      EXPECT_EQ(answer.find("100 Continue"), std::string::npos) << answer;
    }
  }
  EXPECT_FALSE(fs::exists(buildDir("open-1")));
  EXPECT_EQ(filesBelow(buildDir("sealed") / "files"), std::vector<std::string>{"a.bin"});

  // An acceptable upload is invited to send its body.
  RawConnection raw(s->server->port());
  const std::string body = randomBytes(300000, 3);
  ASSERT_TRUE(raw.send("PUT /api/builds/invited/files?path=x.bin HTTP/1.1\r\nHost: x\r\n"
                       "Authorization: Bearer " + s->token + "\r\nContent-Length: 300000\r\n"
                       "Expect: 100-continue\r\n\r\n"));
  EXPECT_EQ(raw.readUntil("\r\n\r\n", 20s), "HTTP/1.1 100 Continue\r\n\r\n");
  ASSERT_TRUE(raw.send(body));
  const std::string answer = raw.readUntil("}", 20s);
  EXPECT_EQ(answer.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << answer;
  EXPECT_NE(answer.find(R"({"build":"invited","path":"x.bin","size":300000})"), std::string::npos);
  EXPECT_TRUE(s->admin("GET", "/api/builds/invited/files?path=x.bin").body == body);
}

TEST_F(BuildsE2E, AnUploadCutShortLeavesNothingBehind) {
  const std::string v1 = randomBytes(5000, 11);
  ASSERT_EQ(upload("cut", "keep/over.bin", v1).status, 200);
  for (const char* target : {"cut/files?path=keep%2Fover.bin", "cut/files?path=new%2Fpartial.bin",
                             "fresh/files?path=a.bin"}) {
    {
      RawConnection raw(s->server->port());
      ASSERT_TRUE(raw.send(std::string("PUT /api/builds/") + target +
                           " HTTP/1.1\r\nHost: x\r\nAuthorization: Bearer " + s->token +
                           "\r\nContent-Length: 10000000\r\n\r\n"));
      ASSERT_TRUE(raw.send(randomBytes(1000 * 1000, 12)));
      ASSERT_TRUE(eventually([] { return !filesBelow(incoming(), true).empty(); }))
          << "the body is being stored";
    }  // the connection closes here, 9 MB short
    ASSERT_TRUE(eventually([] { return filesBelow(incoming()).empty(); }))
        << "the partial body is removed";
  }
  EXPECT_FALSE(fs::exists(buildDir("cut") / "files" / "new" / "partial.bin"));
  EXPECT_FALSE(fs::exists(buildDir("fresh"))) << "a broken first upload makes no build";
  EXPECT_TRUE(s->admin("GET", "/api/builds/cut/files?path=keep%2Fover.bin").body == v1);
  EXPECT_EQ(s->admin("GET", "/api/builds/cut/files?path=new%2Fpartial.bin").status, 404);
  ASSERT_EQ(upload("cut", "later.txt", "later").status, 200);
  const Json::Value manifest = parseJson(s->admin("POST", "/api/builds/cut/finalize").body);
  EXPECT_EQ(manifest["file_count"], 2);
  EXPECT_EQ(manifest["total_size"].asUInt64(), v1.size() + 5);
}

TEST_F(BuildsE2E, ConcurrentUploadsOfOnePathEachLandWhole) {
  const std::string bodies[2] = {randomBytes(4 << 20, 21), randomBytes(4 << 20, 22)};
  for (int round = 0; round < 3; ++round) {
    long statuses[2] = {0, 0};
    auto put = [&](int which) {
      Client own;
      statuses[which] = own.fetch("PUT", s->url("/api/builds/race/files?path=data%2Fblob.bin"),
                                  bodies[which], bearer(s->token))
                            .status;
    };
    std::thread a(put, 0), b(put, 1);
    a.join();
    b.join();
    EXPECT_EQ(statuses[0], 200) << round;
    EXPECT_EQ(statuses[1], 200) << round;
    const std::string landed = s->admin("GET", "/api/builds/race/files?path=data%2Fblob.bin").body;
    EXPECT_TRUE(landed == bodies[0] || landed == bodies[1]) << round << ": neither upload whole";
  }
  EXPECT_TRUE(eventually([] { return filesBelow(incoming()).empty(); }));
  EXPECT_EQ(filesBelow(buildDir("race") / "files"), std::vector<std::string>{"data/blob.bin"});
}

// Builds kept on another file system than the data directory: all of `builds/`, or one build.
TEST(BuildsOnAnotherVolume, UploadsLandAndDownload) {
  TempDir tmp, volume("/dev/shm");
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
  const std::string body = randomBytes(300000, 5);
  for (const std::string build : {"onvolume", "linked"}) {
    const std::string files = "/api/builds/" + build + "/files?path=dir%2Fa.bin";
    EXPECT_EQ(client.fetch("PUT", server.url(files), body, bearer(token)).status, 200) << build;
    EXPECT_EQ(client.fetch("POST", server.url("/api/builds/" + build + "/finalize"), "",
                           bearer(token)).status, 200) << build;
    EXPECT_TRUE(client.fetch("GET", server.url(files), "", bearer(token)).body == body) << build;
  }
  EXPECT_TRUE(fs::is_regular_file(tmp.path() / "away" / "files" / "dir" / "a.bin"));
}

}  // namespace
}  // namespace quill::test
