#include "http/server.h"

#include <gtest/gtest.h>

#include <future>
#include <map>
#include <semaphore>
#include <thread>

#include "http/json.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::http {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::RawConnection;
const std::string kPing = "GET /ping HTTP/1.1\r\nHost: x\r\n\r\n";

// A server on a free loopback port, run on a background thread while it lives.
struct RunningServer {
  RunningServer(Router router, const ServerOptions& o) : server(std::move(router), o) {
    std::string error;
    if (!server.listen(error)) throw std::runtime_error(error);
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
