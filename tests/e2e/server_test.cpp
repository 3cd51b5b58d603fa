// The real programs as an operator runs them: arguments, banners, offline commands beside a
// running server, the tool's refusals. Then one started server on 127.0.0.1: routes and the error
// shape, misbehaving clients that may neither stall others nor make it reserve memory, anonymous
// downloads whole or cancelled, upload refusals before the body, cut and racing uploads, curl
// resuming, the access log, and a graceful stop.

#include <signal.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

#include "app/command_line.h"
#include "e2e/e2e_support.h"

namespace quill::test {
namespace {

const TempDir kLogs;
const std::string kAgent = "User-Agent: quill-e2e";  // marks the access log lines of one test

class ServedE2E : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    s = std::make_unique<Served>(Args{"--access-log", kLogs.path() / "log"});
  }
  static void TearDownTestSuite() { s.reset(); }
  void SetUp() override { ASSERT_TRUE(s->up); }
  static long put(const std::string& build, const std::string& path, const std::string& body) {
    return s->admin("PUT", "/api/builds/" + build + "/files?path=" + path, body).status;
  }
  static std::string get(const std::string& build, const std::string& path) {
    return s->admin("GET", "/api/builds/" + build + "/files?path=" + path).body;
  }
  static Args staged() { return filesBelow(fs::path(s->data) / "builds" / "~incoming"); }
  static inline std::unique_ptr<Served> s;
};

TEST_F(ServedE2E, ServiceRoutesAndErrorDocuments) {
  std::string openapi;  // served with CR LF line ends
  for (char c : readFile(QUILL_SOURCE_DIR "/src/app/resources/openapi.yaml")) {
    openapi += c == '\n' ? "\r\n" : std::string(1, c);
  }
  const std::string html = "text/html; charset=utf-8", json = "application/json; charset=utf-8";
  const std::string error = "{\"error\":";
  const std::tuple<const char*, const char*, long, std::string, std::string> cases[] = {
      {"GET", "/", 200, html, "<title>Quillmoor server</title>"},
      {"GET", "/api/docs", 200, html, "spec-url=\"/api/openapi.yaml\""},
      {"GET", "/api/openapi.yaml", 200, "text/plain; charset=utf-8", openapi},
      {"GET", "/api/version", 200, json,
       R"({"name":"quillmoord","schema_version":1,"version":"0.7.10+g1b83633"})"},
      {"GET", "/nowhere", 404, json, error},
      {"PATCH", "/api/version", 405, json, error}};
  for (const auto& [method, path, status, type, contains] : cases) {
    auto r = s->client.fetch(method, s->url(path));
    EXPECT_EQ(std::tie(r.status, r.headers["content-type"]), std::tie(status, type)) << path;
    EXPECT_NE(r.body.find(contains), std::string::npos) << path;
    const Args members = status == 200 ? Args{"error"} : parseJson(r.body).getMemberNames();
    EXPECT_EQ(members, Args{"error"}) << r.body;  // an error is a document of one message
  }
  EXPECT_EQ(s->client.fetch("GET", s->url("/api/openapi.yaml")).body, openapi);  // nothing more
  auto r = s->client.fetch("OPTIONS", s->url("/api/storage"));
  EXPECT_EQ(std::tie(r.status, r.headers["allow"]),
            std::make_tuple(200L, std::string("GET, HEAD, PUT, DELETE, OPTIONS")));
}

TEST_F(ServedE2E, ASlowHeadStallsNoOneAndHugeAnnouncedBodiesReserveNothing) {
  RawConnection slow(s->server->port());
  const std::string head = "GET /api/version HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  for (std::size_t i = 0; i < head.size(); ++i, std::this_thread::sleep_for(15ms)) {
    ASSERT_TRUE(slow.send(head.substr(i, 1)));
    EXPECT_EQ(i % 10 ? 200 : s->client.fetch("GET", s->url("/api/version")).status, 200);
  }
  EXPECT_NE(slow.readUntil("}", 5s).find("0.7.10+g1b83633"), std::string::npos);

  const auto addressSpaceKiB = [] {  // VmSize
    std::ifstream status("/proc/" + std::to_string(s->server->pid()) + "/status");
    for (std::string line; std::getline(status, line);) {
      if (line.starts_with("VmSize:")) return std::stol(line.substr(7));
    }
    return 0L;
  };
  const long before = addressSpaceKiB();
  std::vector<std::unique_ptr<RawConnection>> open;
  std::ifstream routes(QUILL_SOURCE_DIR "/tests/e2e/routes.txt");
  for (std::string method, path, access; routes >> method >> path >> access;) {
    path = std::regex_replace(path, std::regex("\\{[a-z]+\\}"), "x");
    for (const std::string& auth : {std::string(), s->auth()}) {
      open.push_back(std::make_unique<RawConnection>(s->server->port()));
      open.back()->send(rawHead(method, path, 2147483648, auth) + std::string(4096, '{'));
    }
  }
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(addressSpaceKiB() - before, 512L * 1024) << "KiB of address space reserved";
  open.clear();
  EXPECT_TRUE(s->server->running());
  EXPECT_EQ(s->client.fetch("GET", s->url("/api/version")).status, 200);
}

TEST_F(ServedE2E, ACiBuildIsReadWholeOrCancelledByAnonymousReaders) {
  const std::pair<std::string, std::string> files[] = {
      {"bin%2Fgame.exe", randomBytes(64 * 1024 * 1024 + 123, 7)}, {"empty.dat", ""}};
  for (const auto& [path, bytes] : files) ASSERT_EQ(put("ci-1042", path, bytes), 200) << path;
  for (const char* step :
       {"builds/ci-1042/finalize", "channels/stable", "channels/stable/promote?build=ci-1042",
        "channels/stable/public?value=true"}) {
    ASSERT_EQ(s->admin("POST", std::string("/api/") + step).status, 200) << step;
  }
  Client anonymous;
  for (const auto& [path, bytes] : files) {
    auto r = anonymous.fetch("GET", s->url("/api/builds/ci-1042/files?path=" + path));
    EXPECT_TRUE(r.status == 200 && r.body == bytes) << path << r.error;
    EXPECT_EQ(r.headers["content-length"], std::to_string(bytes.size())) << path;
  }
  // Readers that close with unread bytes: the server's next write meets a reset connection.
  for (int i = 0; i < 8; ++i) {
    RawConnection reader(s->server->port());
    reader.send("GET /api/builds/ci-1042/files?path=bin%2Fgame.exe HTTP/1.1\r\nHost: x\r\n\r\n");
    ASSERT_NE(reader.readUntil("\r\n\r\n", 5s).find("200 OK"), std::string::npos);
  }
  std::this_thread::sleep_for(300ms);
  EXPECT_EQ(anonymous.fetch("GET", s->url("/api/version")).status, 200);
}

TEST_F(ServedE2E, UploadRefusalsAreAnsweredBeforeTheBodyIsSent) {
  ASSERT_EQ(put("sealed", "a.bin", "a"), 200);
  ASSERT_EQ(s->admin("POST", "/api/builds/sealed/finalize").status, 200);
  // The route's own head checks and the gate's; each refusal's text is pinned in-process.
  const std::tuple<std::string, std::string, std::string, std::string> cases[] = {
      {"sealed/files?path=a.bin", "409 Conflict", "build is finalized and immutable", s->auth()},
      {"o/files?path=x", "401 Unauthorized", "missing or invalid token", ""}};
  for (const auto& [target, status, error, auth] : cases) {
    for (const std::string expect : {"", "Expect: 100-continue\r\n"}) {
      RawConnection raw(s->server->port());
      ASSERT_TRUE(raw.send(rawHead("PUT", "/api/builds/" + target, 10 << 20, auth + expect)));
      const std::string answer = raw.readUntil("\"}", 20s);
      EXPECT_TRUE(answer.starts_with("HTTP/1.1 " + status + "\r\n")) << target << answer;
      EXPECT_TRUE(answer.ends_with("{\"error\":\"" + error + "\"}")) << answer;
    }
  }
  EXPECT_FALSE(fs::exists(fs::path(s->data) / "builds" / "o"));
  EXPECT_EQ(filesBelow(fs::path(s->data) / "builds" / "sealed" / "files"), Args{"a.bin"});
  // An acceptable upload is invited to send its body.
  RawConnection raw(s->server->port());
  ASSERT_TRUE(raw.send(rawHead("PUT", "/api/builds/invited/files?path=x.bin", 300000,
                               s->auth() + "Expect: 100-continue\r\n")));
  EXPECT_EQ(raw.readUntil("\r\n\r\n", 20s), "HTTP/1.1 100 Continue\r\n\r\n");
  const std::string body = randomBytes(300000, 3);
  ASSERT_TRUE(raw.send(body));
  const std::string answer = raw.readUntil("}", 20s);
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 OK\r\n")) << answer;
  EXPECT_TRUE(get("invited", "x.bin") == body);
}

TEST_F(ServedE2E, UploadsCutShortLeaveNothingAndRacingUploadsEachLandWhole) {
  const std::string v1 = randomBytes(5000, 11);
  ASSERT_EQ(put("cut", "keep%2Fover.bin", v1), 200);
  for (const std::string target :
       {"cut/files?path=keep%2Fover.bin", "cut/files?path=new%2Fpart", "fresh/files?path=a.bin"}) {
    {
      RawConnection raw(s->server->port());
      ASSERT_TRUE(raw.send(rawHead("PUT", "/api/builds/" + target, 10000000, s->auth()) +
                           randomBytes(1000 * 1000, 12)));
      ASSERT_TRUE(eventually([] { return !staged().empty(); })) << "the body is being stored";
    }  // the connection closes here, 9 MB short
    ASSERT_TRUE(eventually([] { return staged().empty(); })) << "the partial body is removed";
  }
  EXPECT_FALSE(fs::exists(fs::path(s->data) / "builds" / "fresh")) << "no build made";
  EXPECT_TRUE(get("cut", "keep%2Fover.bin") == v1);
  EXPECT_EQ(s->admin("GET", "/api/builds/cut/files?path=new%2Fpart").status, 404);
  ASSERT_EQ(put("cut", "later.txt", "later"), 200);
  const Json::Value manifest = parseJson(s->admin("POST", "/api/builds/cut/finalize").body);
  EXPECT_EQ(manifest["file_count"], 2);
  EXPECT_EQ(manifest["total_size"].asUInt64(), v1.size() + 5);

  const std::string bodies[2] = {randomBytes(4 << 20, 21), randomBytes(4 << 20, 22)};
  const std::string blob = s->url("/api/builds/race/files?path=d%2Fblob");
  for (int round = 0; round < 3; ++round) {
    long statuses[2] = {0, 0};
    auto race = [&](int i) {
      statuses[i] = Client().fetch("PUT", blob, bodies[i], bearer(s->token)).status;
    };
    std::thread a(race, 0), b(race, 1);
    a.join(), b.join();
    EXPECT_EQ(std::tie(statuses[0], statuses[1]), std::make_tuple(200L, 200L)) << round;
    const std::string landed = s->client.fetch("GET", blob, "", bearer(s->token)).body;
    EXPECT_TRUE(landed == bodies[0] || landed == bodies[1]) << round << ": neither upload whole";
  }
  EXPECT_TRUE(eventually([] { return staged().empty(); }));
  EXPECT_EQ(filesBelow(fs::path(s->data) / "builds" / "race" / "files"), Args{"d/blob"});
}

TEST_F(ServedE2E, CurlResumesACutDownloadAndLeavesACompleteOneAlone) {
  const std::string bytes = randomBytes(3 * 1024 * 1024 + 17, 7);
  ASSERT_EQ(put("b1", "game.pak", bytes), 200);
  ASSERT_EQ(s->admin("POST", "/api/builds/b1/finalize").status, 200);
  const fs::path out = s->tmp.path() / "game.pak";
  writeFile(out, bytes.substr(0, 1024 * 1024 + 5));  // the line broke here
  // The second time the file is complete: curl takes the 416 as done unless told -f.
  for (const std::string failOnError : {"-f", "-s"}) {
    auto run =
        runProcess("/usr/bin/curl", {"-sS", failOnError, "-C", "-", "-H", bearer(s->token)[0], "-o",
                                     out, s->url("/api/builds/b1/files?path=game.pak")});
    EXPECT_EQ(run.exitCode, 0) << run.err;
    EXPECT_TRUE(readFile(out) == bytes);
  }
}

TEST_F(ServedE2E, AccessLogLinesHoldNoSecretAndFollowARotation) {
  ASSERT_EQ(put("log", "a.txt", "hello"), 200);
  // A request, a header it carries, and what its line holds around the time stamp.
  const std::tuple<std::string, std::string, std::string, std::string> rows[] = {
      {"GET /api/builds/log/files?path=a.txt", bearer(s->token)[0], "127.0.0.1 - ci", " 200"},
      {"GET /api/sso/callback?code=SECRETCODE42&state=SECRETSTATE42", kAgent, "127.0.0.1 - -",
       " 400"},
      {"GET /api/me", "X-Forwarded-For: 203.0.113.9, 10.0.0.1", "203.0.113.9 - -", " 401"}};
  std::string expected;
  for (const auto& [request, header, who, status] : rows) {
    const auto space = request.find(' ');
    s->client.fetch(request.substr(0, space), s->url(request.substr(space + 1)), "",
                    {header, kAgent});
    expected += who + " \"" +
                std::regex_replace(request, std::regex("(code|state)=[A-Z0-9]+"), "$1=-") +
                " HTTP/1.1\"" + status + " \"-\" \"quill-e2e\"\n";
  }
  const fs::path log = kLogs.path() / "log";
  const std::regex varying(R"re( \[[0-9]{2}/[A-Z][a-z]{2}/[0-9]{4}(:[0-9]{2}){3} \+0000\])re"
                           R"re(| [0-9]+(?= "-")| [0-9]+\.[0-9]{3}$)re");
  std::string got;
  EXPECT_TRUE(eventually([&] {  // these requests' lines without time, length and seconds
    std::istringstream lines(readFile(log));
    got.clear();
    for (std::string line; std::getline(lines, line);) {
      if (line.find("\"quill-e2e\"") != std::string::npos)
        got += std::regex_replace(line, varying, "") + "\n";
    }
    return got == expected;
  })) << got;
  const std::string text = readFile(log);
  EXPECT_NE(text.find("a.txt HTTP/1.1\" 200 5 \"-\""), std::string::npos);
  EXPECT_EQ(text.find("SECRET"), std::string::npos);
  EXPECT_EQ(text.find(s->token), std::string::npos);
  // A failed sign-in is one line on standard error, without the request's secrets.
  EXPECT_NE(s->server->errors().find("sign-in failed (400)"), std::string::npos);
  EXPECT_EQ(s->server->errors().find("SECRET"), std::string::npos);
  // logrotate moves the file and sends SIGHUP: the next lines go to a new file.
  fs::rename(log, kLogs.path() / "log.1");
  ASSERT_EQ(::kill(s->server->pid(), SIGHUP), 0);
  EXPECT_TRUE(eventually([&] {
    s->client.fetch("GET", s->url("/api/version"));
    return readFile(log).find("\"GET /api/version HTTP/1.1\" 200") != std::string::npos;
  }));
  EXPECT_TRUE(readFile(kLogs.path() / "log.1").starts_with(text));
}

TEST(Cli, TheServerPrintsItsVersionRoutesAndUsageAndDispatches) {
  const std::string routes = readFile(QUILL_SOURCE_DIR "/tests/e2e/routes.txt");
  EXPECT_EQ(std::count(routes.begin(), routes.end(), '\n'), 65);
  // clang-format off
  const std::tuple<std::vector<Args>, int, std::string, std::string> cases[] = {
      {{{"--version"}, {"--port", "1", "version"}}, 0, "0.7.10+g1b83633\n", ""},
      {{{"--dump-routes"}}, 0, routes, ""},
      // Which words make a usage error: CommandLine's unit test.
      {{{"--bogus", "--version"}, {""}, {"--port", "99999"}}, 1, "", usageText()},
      {{{"user", "create"}, {"user"}, {"token", "list", "extra"}, {"frobnicate"},
        {"backup", "schedule"}, {"restore"}}, 1, "", "unknown command\n"}};
  // clang-format on
  for (const auto& [argsList, code, out, err] : cases) {
    for (const Args& args : argsList) {
      const auto r = runProcess(kBinary, args);
      EXPECT_EQ(std::tie(r.exitCode, r.out, r.err), std::tie(code, out, err)) << args[0];
    }
  }
}

TEST(Cli, TheToolRefusesBadCommandLines) {
  EXPECT_EQ(runProcess(kTool, {"publish", "--help"}).exitCode, 0);
  const std::string closed = "http://127.0.0.1:" + std::to_string(freePort());
  // clang-format off
  const std::pair<Args, std::string> cases[] = {
      {{}, "a command is required: publish, pull or keygen\n"},
      {{"push"}, "unknown command 'push'\n"},
      {{"publish", "dir"}, "--channel is required\n"},
      {{"publish", "dir", "--channel", "bad name"}, "invalid channel name\n"},
      {{"publish", "dir", "--channel", "c", "--endpoint"}, "--endpoint needs a value\n"},
      {{"pull", "c", "dir", "--wat"}, "unknown option --wat\n"},
      {{"publish", "d", "--channel", "c", "--endpoint", "ftp://x", "--bucket", "b", "--access-key",
        "a", "--secret-key", "s"},
       "endpoint must start with https:// (or http:// for a local test server)\n"},
      {{"pull", "c", "dir", "--server", closed}, "cannot reach server: curl: "}};
  // clang-format on
  for (const auto& [args, err] : cases) {
    const auto r = runProcess(kTool, args);
    EXPECT_EQ(std::make_pair(r.exitCode, r.err.substr(0, err.size())), std::make_pair(1, err));
  }
}

// Waits for the banner, then for anything printed after it.
void expectBanner(ServerProcess& server, const std::string& mode, const std::string& dir,
                  const std::string& hint) {
  const std::string expected = "quillmoord 0.7.10+g1b83633\n  listening on http://127.0.0.1:" +
                               std::to_string(server.port()) + mode + "\n  data dir: " + dir +
                               "\n" + hint;
  eventually([&] { return server.output().size() >= expected.size(); });
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(server.output(), expected);
}

TEST(StartUp, BannersTheClaimOfflineCommandsAndTheDefaultDataDirectory) {
  TempDir tmp;
  const std::string dir = (tmp.path() / "nested" / "data").string();
  Served fresh({"--claimable", "--claimpin", "1234"}, dir);
  ASSERT_TRUE(fresh.up);
  expectBanner(*fresh.server, "", dir,
               std::regex_replace(R"(
  No tokens exist yet - every request will be rejected with 401.
  Mint your first (admin) token with:

    quillmoord user create <name> --role admin --data-dir DIR
    quillmoord token create <token-name> --user <name> --data-dir DIR

  Configure clients with:  quillmoor config set token <token>

)",
                                  std::regex("DIR"), dir));
  const auto me = [&](const std::string& token) {  // the claim is enabled on the command line
    return fresh.client.fetch("GET", fresh.url("/api/me"), "", bearer(token)).body;
  };
  const auto claimed = fresh.client.fetch("POST", fresh.url("/api/claim?pin=1234"));
  EXPECT_EQ(me(parseJson(claimed.body)["token"].asString()),
            R"({"channels":[],"groups":[],"name":"admin","role":"admin","schema_version":1})");
  // Offline commands beside the running server take effect at its next request.
  const std::string token = offlineAdminToken(dir);
  EXPECT_EQ(parseJson(me(token))["name"], "ci");
  EXPECT_EQ(runProcess(kBinary, {"token", "delete", "ci", "--data-dir", dir}).exitCode, 0);
  EXPECT_EQ(me(token), R"({"error":"missing or invalid token"})");

  // Where a token exists there is no hint; a document write a crash left before start-up is swept.
  const fs::path leftover = fs::path(dir) / "users" / "admin.json.AbCdEfGh1234.tmp";
  std::ofstream(leftover) << "{";
  fs::last_write_time(leftover, fs::file_time_type::clock::now() - std::chrono::hours(1));
  fresh.server.reset();
  fresh.server = std::make_unique<ServerProcess>(kBinary, Args{"--data-dir", dir, "--rill-only"});
  ASSERT_TRUE(fresh.server->waitUntilListening());
  expectBanner(*fresh.server, "  (Rill-only)", dir, "");
  EXPECT_FALSE(fs::exists(leftover));

  ::setenv("LOCALAPPDATA", tmp.path().c_str(), 1);
  ServerProcess byDefault(kBinary, {});
  ::unsetenv("LOCALAPPDATA");
  ASSERT_TRUE(byDefault.waitUntilListening());
  EXPECT_TRUE(fs::is_directory(tmp.path() / "Quillmoor" / "quillmoord-data" / "users"));
}

TEST(GracefulStop, SigtermLetsAnUploadInFlightFinishThenExitsZero) {
  Served s;
  ASSERT_TRUE(s.up);
  const std::string bytes = randomBytes(4 * 1024 * 1024, 9);
  RawConnection idle(s.server->port()), upload(s.server->port());
  ASSERT_TRUE(upload.send(rawHead("PUT", "/api/builds/b2/files?path=big", bytes.size(), s.auth()) +
                          bytes.substr(0, 1 << 20)));
  std::this_thread::sleep_for(300ms);  // the head is judged and the body is arriving
  ASSERT_EQ(::kill(s.server->pid(), SIGTERM), 0);
  EXPECT_TRUE(idle.closedByPeer(5s));  // waiting for a request: closed at once
  EXPECT_TRUE(eventually([&] { return !RawConnection(s.server->port()).connected(); }));
  ASSERT_TRUE(upload.send(bytes.substr(1 << 20)));
  const std::string answer = upload.readAll(10s);
  EXPECT_TRUE(answer.starts_with("HTTP/1.1 200 ")) << answer;
  EXPECT_NE(answer.find("Connection: close"), std::string::npos) << answer;
  EXPECT_EQ(s.server->waitForExit(10s), 0);
  EXPECT_TRUE(readFile(fs::path(s.data) / "builds/b2/files/big") == bytes);
}

}  // namespace
}  // namespace quill::test
