// The HTTP layer: reading a request from bytes (the verdicts the fuzz target relies on),
// dispatching it by the route table, the URL and JSON helpers, and the server on a real socket.

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <semaphore>
#include <stdexcept>
#include <thread>
#include <tuple>

#include "base/percent_encoding.h"
#include "http/json.h"
#include "http/request_reading.h"
#include "http/router.h"
#include "http/server.h"
#include "http/url.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::http {
namespace {

// "METHOD /pattern": a route that answers with its method, the path and the captures.
Route echo(std::string line) {
  Route r;
  r.method = line.substr(0, line.find(' '));
  r.pattern = line.substr(line.find(' ') + 1);
  r.handler = [method = r.method](const Request& req) {
    std::string text = method + " " + req.path + (req.headOnly ? " head" : "");
    for (const auto& s : req.segments) text += " [" + s + "]";
    return Response::text(text);
  };
  return r;
}

TEST(RouterTest, DispatchesByPathThenMethodAndContainsFailures) {
  Router router;
  for (const char* line :
       {"GET /", "GET /api/channels", "POST /api/channels/{channel}", "GET /api/channels/{channel}",
        "POST /api/channels/{channel}/promote", "DELETE /api/invites/{id}",
        "POST /api/invites/redeem", "GET /boom", "GET /check", "GET /hook"}) {
    Route r = echo(line);
    if (r.pattern == "/boom") r.handler = [](const Request&) -> Response { throw 42; };
    if (r.pattern == "/check")
      r.headCheck = [](const Request&) -> std::optional<Response> {
        throw std::runtime_error("bug");
      };
    router.add(r);
  }
  int calls = 0;  // the hook sees routed requests only
  router.setPreHandling([&](const Request& req) -> std::optional<Response> {
    ++calls;
    if (req.path == "/hook") throw std::logic_error("bug");
    if (req.path.ends_with("/refused")) return errorResponse(401, "missing or invalid token");
    return std::nullopt;
  });
  const std::string notFound = R"({"error":"not found"})";
  const std::string notAllowed = R"({"error":"method not allowed"})";
  const std::string failed = R"({"error":"internal server error"})";
  const struct {
    const char *method, *path;
    unsigned status;
    std::string body;
    const char* allow = nullptr;
  } rows[] = {
      {"GET", "/", 200, "GET /"},
      {"GET", "/api/channels/beta", 200, "GET /api/channels/beta [beta]"},
      {"HEAD", "/api/channels", 200, "GET /api/channels head"},
      {"POST", "/api/channels/beta/promote", 200, "POST /api/channels/beta/promote [beta]"},
      // A literal segment beats a capture, for the methods it has.
      {"POST", "/api/invites/redeem", 200, "POST /api/invites/redeem"},
      {"DELETE", "/api/invites/redeem", 200, "DELETE /api/invites/redeem [redeem]"},
      {"GET", "/api/invites/redeem", 405, notAllowed, "DELETE, POST, OPTIONS"},
      {"PUT", "/api/channels/beta", 405, notAllowed, "POST, GET, HEAD, OPTIONS"},
      {"OPTIONS", "/api/channels", 200, "", "GET, HEAD, OPTIONS"},
      {"GET", "/api/channels/refused", 401, R"({"error":"missing or invalid token"})"},
      {"GET", "/api/channels/a/b", 404, notFound},
      {"GET", "/api/channels/", 404, notFound},
      {"GET", "//", 404, notFound},
      {"GET", "", 404, notFound},
      {"GET", "/api/channels/beta/promote/x", 404, notFound},
      {"GET", "/api", 404, notFound},
      {"OPTIONS", "/unknown", 404, notFound},
      {"GET", "/boom", 500, failed},
      {"GET", "/check", 500, failed},
      {"GET", "/hook", 500, failed},
  };
  int routed = 0;
  for (const auto& row : rows) {
    Request req;
    req.method = row.method;
    req.path = row.path;
    const Response r = router.dispatch(req);
    EXPECT_EQ(r.status, row.status) << row.method << " " << row.path;
    EXPECT_EQ(r.body, row.body) << row.method << " " << row.path;
    using Headers = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(r.headers, (row.allow ? Headers{{"Allow", row.allow}} : Headers{})) << row.path;
    EXPECT_EQ(r.contentType, row.status < 400 ? r.contentType : kJsonType) << row.path;
    routed += row.status != 404 && row.status != 405 && std::string(row.method) != "OPTIONS";
  }
  EXPECT_EQ(calls, routed);
}

TEST(Url, PercentDecodingAndQueries) {
  for (const auto& [text, plus, decoded] : std::vector<std::tuple<std::string, bool, std::string>>{
           {"a%20b%2Fc", false, "a b/c"},
           {"a+b", false, "a+b"},
           {"a+b", true, "a b"},
           {"%C3%A9t%c3%a9", false, "\xC3\xA9t\xC3\xA9"}}) {
    EXPECT_EQ(base::percentDecode(text, plus), decoded) << text;
  }
  for (const char* bad : {"%", "%4", "ab%zz"}) EXPECT_FALSE(base::percentDecode(bad, false)) << bad;
  EXPECT_EQ(
      *parseQuery("path=Game%20Data%2F%C3%A9t%C3%A9.pak&flag&x=1&x=2&&empty="),
      (std::map<std::string, std::string, std::less<>>{
          {"path", "Game Data/\xC3\xA9t\xC3\xA9.pak"}, {"flag", ""}, {"x", "1"}, {"empty", ""}}));
  EXPECT_FALSE(parseQuery("a=%G1"));
  EXPECT_TRUE(parseQuery("")->empty());
  Json::Value v(Json::objectValue);  // compact, members sorted, UTF-8 as it is
  v["zeta"] = 1;
  v["alpha"] = "\xC3\xA9";
  v["mid"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(toCompactJson(v), "{\"alpha\":\"\xC3\xA9\",\"mid\":[],\"zeta\":1}");
}

TEST(RequestReading, RefusesWhatTheServerRefusesAndKeepsBodiesWithinTheirLimit) {
  ServerOptions o;
  o.headerLimit = 200;
  o.bodyLimit = 100;
  const std::string head = "POST /a%20b?x=1 HTTP/1.1\r\nHost: x\r\n", te = "Transfer-Encoding: ";
  const struct {
    std::string bytes;
    std::uint64_t bodyLimit;  // 0: a route that drops bodies
    unsigned refusal;
    bool incomplete;
    std::string body;
  } cases[] = {
      {head + "Content-Length: 3\r\n\r\nabc", 10, 0, false, "abc"},
      {head + te + "chunked\r\n\r\n3;x=y\r\nabc\r\n1\r\nd\r\n0\r\n\r\n", 10, 0, false, "abcd"},
      {head + "Content-Length: 3\r\n\r\nabc", 0, 0, false, ""},
      {head + "Content-Length: 3\r\n\r\nab", 10, 0, true, ""},
      {head + "Host: y", 10, 0, true, ""},
      {head + "Content-Length: 11\r\n\r\n", 10, 413, false, ""},
      {head + "Content-Length: 101\r\n\r\n", 0, 413, false, ""},
      {head + te + "chunked\r\n\r\nb\r\n", 10, 413, false, ""},
      {head + "X: " + std::string(200, 'x') + "\r\n\r\n", 10, 431, false, ""},
      {head + te + "chunked\r\nContent-Length: 3\r\n\r\n", 10, 400, false, ""},
      {head + te + "@, chunked\r\nContent-Length: 3\r\n\r\nabc", 10, 400, false, ""},
      {head + te + "chunked\r\n\r\nzz\r\n", 10, 400, false, ""},
      {head + te + "chunked\r\n\r\nfffffffffffffffffff\r\n", 0, 400, false, ""},
      {head + te + "identity\r\n\r\n", 10, 400, false, ""},
      {head + te + "chunked, gzip\r\n\r\n", 10, 400, false, ""},
      {head + te + "chunked\r\n" + te + "gzip\r\n\r\n", 10, 400, false, ""},
      {head + "Content-Length: 1x\r\n\r\n", 10, 400, false, ""},
      {"NOT HTTP\r\n\r\n", 0, 400, false, ""},
      {"GET /%zz HTTP/1.1\r\n\r\n", 0, 400, false, ""},
      {"GET nothing HTTP/1.1\r\n\r\n", 0, 400, false, ""},
  };
  for (const auto& c : cases) {
    const ReadRequest read = readRequest(c.bytes, o, c.bodyLimit);
    EXPECT_EQ(std::tie(read.refusal, read.incomplete, read.body),
              std::tie(c.refusal, c.incomplete, c.body))
        << c.bytes;
    EXPECT_EQ(read.path, read.refusal == 0 && !read.incomplete ? "/a b" : read.path);
  }
}

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::RawConnection;
const std::string kPing = "GET /ping HTTP/1.1\r\nHost: x\r\n\r\n";

// A server on a free loopback port, run on a background thread while it lives.
struct RunningServer {
  RunningServer(Router router, const ServerOptions& o) : server(std::move(router), o) {
    if (auto listening = server.listen(); !listening) throw std::runtime_error(listening.error());
    thread = std::thread([this] { server.run(); });
  }
  ~RunningServer() { server.stop(), thread.join(); }
  std::uint16_t port() { return server.port(); }
  std::string url(const std::string& path) {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
  }
  Server server;
  std::thread thread;
};

Route route(std::string method, std::string pattern, Handler handler, std::uint64_t bodyLimit = 0,
            BodyFileFor bodyFile = {}, std::string waitsOn = {}) {
  return {std::move(method),   std::move(pattern), std::move(handler), {},
          std::move(bodyFile), bodyLimit,          std::move(waitsOn)};
}

class ServerTest : public ::testing::Test {
 protected:
  ServerTest() { o.address = "127.0.0.1", o.port = 0; }  // a free port
  Router makeRouter() {
    Router router;
    router.add(route("GET", "/ping", [](const Request&) { return Response::text("pong"); }));
    router.add(route("GET", "/boom", [](const Request&) -> Response { throw std::bad_alloc(); }));
    const auto echo = [](const Request& req) {
      return Response::text(req.method + " " + std::to_string(req.body.size()) + " " +
                            std::string(req.param("q").value_or("-")));
    };
    router.add(route("POST", "/echo", echo, 1000000));
    router.add(route("POST", "/bodiless", echo));  // takes no body
    const auto store = [this](const Request& req) {
      if (req.bodyLost) return errorResponse(500, "could not store file");
      fs::rename(req.bodyFile, dir.path() / req.segment());
      return Response::text("stored");
    };
    router.add(route("PUT", "/upload/{name}", store, 0, [this](const Request& req) {
      return dir.path() / "incoming" / (req.segment() + ".part");
    }));
    router.add(route("GET", "/file/{name}", [this](const Request& req) {
      return Response::fromFile(dir.path() / req.segment(), "application/octet-stream");
    }));
    return router;
  }

  ServerOptions o;
  test::TempDir dir;
  test::Client client;
};

TEST_F(ServerTest, OneKeptConnectionCarriesBodiesFilesAndFailures) {
  RunningServer s(makeRouter(), o);
  auto r = client.fetch("GET", s.url("/ping"));
  EXPECT_EQ(std::tie(r.headers["content-type"], r.newConnections),
            std::make_tuple(std::string(kTextType), 1L));
  EXPECT_EQ(client.fetch("POST", s.url("/echo?q=a%20b%2Bc"), std::string(100000, 'x')).body,
            "POST 100000 a b+c");
  EXPECT_EQ(client.fetch("POST", s.url("/echo?q=%zz")).status, 400);
  EXPECT_EQ(client.fetch("GET", s.url("/boom")).body, R"({"error":"internal server error"})");
  // A body to a route that takes none is dropped and the connection kept.
  EXPECT_EQ(client.fetch("POST", s.url("/bodiless"), std::string(3000000, 'x')).body, "POST 0 -");
  std::string payload;
  for (int i = 0; i < 300000; ++i) payload += static_cast<char>('a' + i % 26);
  EXPECT_EQ(client.fetch("PUT", s.url("/upload/big.bin"), payload).body, "stored");
  EXPECT_TRUE(fs::is_empty(dir.path() / "incoming"));
  r = client.fetch("GET", s.url("/file/big.bin"));
  EXPECT_EQ(std::tie(r.body, r.newConnections, r.headers["content-length"]),
            std::make_tuple(payload, 0L, std::to_string(payload.size())));
  EXPECT_EQ(client.fetch("GET", s.url("/file/missing")).status, 404);
  // Every write to one staging file fails as on a full disk; the open of the other one fails:
  // the route answers for a body it could not store.
  fs::create_symlink("/dev/full", dir.path() / "incoming" / "full.part");
  fs::create_directories(dir.path() / "incoming" / "blocked.part");
  for (const std::string name : {"full", "blocked"}) {
    r = client.fetch("PUT", s.url("/upload/" + name), std::string(300000, 'x'));
    EXPECT_EQ(std::tie(r.status, r.body),
              std::make_tuple(500L, R"({"error":"could not store file"})"))
        << name << " " << r.error;
    EXPECT_FALSE(fs::exists(dir.path() / name));
  }
  EXPECT_TRUE(fs::exists("/dev/full"));
  EXPECT_EQ(client.fetch("GET", s.url("/ping")).status, 200);
  // HEAD answers the length and no body: the next status line follows its head directly.
  RawConnection c(s.port());
  c.send("HEAD /ping HTTP/1.1\r\nHost: x\r\n\r\n" + kPing);
  std::string got = c.readUntil("pong", 5s);
  EXPECT_NE(got.find("Content-Length: 4\r\n\r\nHTTP/1.1 200 OK"), std::string::npos) << got;
}

// Each is refused (or, a head never finished, dropped) and its connection closed; the bytes after
// one are never read as a request. The framing verdicts themselves: RequestReading.
TEST_F(ServerTest, BadlyFramedSlowOrOversizedRequestsCloseTheirConnection) {
  o.headerTimeout = 1s;
  o.bodyLimit = 2000000;
  RunningServer s(makeRouter(), o);
  const std::string post = "POST /echo HTTP/1.1\r\nHost: x\r\n", te = "Transfer-Encoding: ";
  const std::pair<std::string, unsigned> rows[] = {
      {"GET /ping HTTP/1.1\r\nHo", 0},
      // The route's own limit for bodies in memory, the server's for streamed ones.
      {post + "Content-Length: 1000001\r\n\r\n", 413},
      {"PUT /upload/x HTTP/1.1\r\nHost: x\r\nContent-Length: 2000001\r\n\r\n", 413},
      {post + te + "chunked\r\n\r\nF4241\r\n" + std::string(1000001, 'x'), 413},
      // A proxy in front may read this chunked, the parser as three bytes: never a second request.
      {post + te + "@, chunked\r\nContent-Length: 3\r\n\r\nabc" + kPing, 400},
      {"POST /bodiless HTTP/1.1\r\nHost: x\r\n" + te + "chunked\r\n\r\nfffffffffffffffffff\r\n",
       400},
      {"NOT HTTP\r\n\r\n", 400},
  };
  const std::map<unsigned, std::string> bodies = {{0, ""},
                                                  {400, R"({"error":"malformed request"})"},
                                                  {413, R"({"error":"request body too large"})"}};
  for (const auto& [request, status] : rows) {
    RawConnection c(s.port());
    c.send(request);
    std::string got = c.readAll(5s);
    EXPECT_EQ(got.substr(0, 12), status ? "HTTP/1.1 " + std::to_string(status) : "") << request;
    EXPECT_TRUE(got.ends_with(bodies.at(status))) << got;
    EXPECT_TRUE(c.closedByPeer(1s)) << request;
    EXPECT_EQ(got.find("pong"), std::string::npos) << request;
  }
  EXPECT_EQ(client.fetch("POST", s.url("/echo"), std::string(1000000, 'x')).body, "POST 1000000 -");
}

TEST_F(ServerTest, OneAddressGetsItsShareOfConnectionsAndTheTotalWaits) {
  o.connectionsPerClient = 2, o.limitLoopback = true, o.maxConnections = 3;
  {
    RunningServer s(makeRouter(), o);
    auto first = std::make_unique<RawConnection>(s.port());
    RawConnection second(s.port()), third(s.port());
    EXPECT_TRUE(third.closedByPeer(5s));  // over its address's share
    first.reset();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(client.fetch("GET", s.url("/ping")).body, "pong");
  }
  o.connectionsPerClient = 0, o.maxConnections = 1;
  RunningServer s(makeRouter(), o);
  auto holder = std::make_unique<RawConnection>(s.port());
  holder->send(kPing);
  ASSERT_NE(holder->readUntil("pong", 5s).find("pong"), std::string::npos);
  RawConnection waiting(s.port());  // in the backlog until the holder leaves
  waiting.send(kPing);
  EXPECT_EQ(waiting.readUntil("pong", 300ms).find("pong"), std::string::npos);
  holder.reset();
  EXPECT_NE(waiting.readUntil("pong", 5s).find("pong"), std::string::npos);
}

TEST_F(ServerTest, AStalledServiceHoldsUpOnlyItsOwnRoutes) {
  std::counting_semaphore<> arrived(0);
  std::promise<void> release;
  std::shared_future<void> released = release.get_future().share();
  Router router = makeRouter();
  const auto stalled = [&](const Request&) {
    arrived.release();
    released.wait();
    return Response::text("late");
  };
  router.add(route("GET", "/stalled", stalled, 0, {}, "stalled service"));
  const auto other = [](const Request&) { return Response::text("other"); };
  router.add(route("GET", "/other", other, 0, {}, "other service"));
  o.blockingThreads = 6;
  RunningServer s(std::move(router), o);
  // Destroyed before the server: its pools can only be joined once their handlers return.
  std::unique_ptr<std::promise<void>, void (*)(std::promise<void>*)> releaseOnExit(
      &release, [](std::promise<void>* p) { p->set_value(); });
  // One request more than the service's pool holds: the pool is full, and one waits.
  std::vector<std::unique_ptr<RawConnection>> clients;
  for (int i = 0; i < 7; ++i) {
    clients.push_back(std::make_unique<RawConnection>(s.port()));
    clients.back()->send("GET /stalled HTTP/1.1\r\nHost: x\r\n\r\n");
  }
  for (int i = 0; i < 6; ++i) ASSERT_TRUE(arrived.try_acquire_for(10s)) << i;
  EXPECT_EQ(client.fetch("GET", s.url("/other")).body, "other");
  EXPECT_EQ(client.fetch("GET", s.url("/ping")).body, "pong");
  releaseOnExit.reset();
  for (auto& c : clients) EXPECT_NE(c->readUntil("late", 10s).find("late"), std::string::npos);
}

}  // namespace
}  // namespace quill::http
