#include "http/server.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <thread>

#include "http/json.h"
#include "support/http_client.h"
#include "support/temp_dir.h"

namespace quill::http {
namespace {

using namespace std::chrono_literals;
using test::RawConnection;

// A server on 127.0.0.1 with a port of its own, run on a background thread.
class RunningServer {
 public:
  RunningServer(Router router, ServerOptions options)
      : server_(std::move(router), prepare(options)) {
    if (auto listening = server_.listen(); !listening) throw std::runtime_error(listening.error());
    thread_ = std::thread([this] { server_.run(); });
  }
  ~RunningServer() {
    server_.stop();
    thread_.join();
  }
  Server& server() { return server_; }
  std::uint16_t port() { return server_.port(); }
  std::string url(const std::string& path) {
    return "http://127.0.0.1:" + std::to_string(port()) + path;
  }

 private:
  static ServerOptions prepare(ServerOptions o) {
    o.address = "127.0.0.1";
    o.port = 0;
    return o;
  }
  Server server_;
  std::thread thread_;
};

Route route(std::string method, std::string pattern, Handler handler) {
  Route r;
  r.method = std::move(method);
  r.pattern = std::move(pattern);
  r.handler = std::move(handler);
  return r;
}

class ServerTest : public ::testing::Test {
 protected:
  Router makeRouter() {
    Router router;
    router.add(route("GET", "/ping", [](const Request&) { return Response::text("pong"); }));
    router.add(route("GET", "/boom", [](const Request&) -> Response { throw std::bad_alloc(); }));
    Route echo = route("POST", "/echo", [](const Request& req) {
      return Response::text(req.method + " " + std::to_string(req.body.size()) + " " +
                            std::string(req.param("q").value_or("-")));
    });
    echo.bodyLimit = 1000000;
    router.add(echo);
    // Takes no body: one that arrives is dropped.
    router.add(route("POST", "/bodiless", [](const Request& req) {
      return Response::text(std::to_string(req.body.size()));
    }));
    Route refused = route("POST", "/refused", [](const Request&) { return Response::text("?"); });
    refused.headCheck = [](const Request&) -> std::optional<Response> {
      return errorResponse(409, "build is finalized");
    };
    router.add(refused);
    Route upload = route("PUT", "/upload/{name}", [this](const Request& req) {
      if (req.bodyLost) return errorResponse(500, "could not store file");
      std::filesystem::rename(req.bodyFile, dir.path() / req.segment());
      return Response::text("stored");
    });
    upload.bodyFile = [this](const Request& req) {
      return dir.path() / "incoming" / (req.segment() + ".part");
    };
    router.add(upload);
    router.add(route("GET", "/file/{name}", [this](const Request& req) {
      return Response::fromFile(dir.path() / req.segment(), "application/octet-stream");
    }));
    return router;
  }

  test::TempDir dir;
  test::Client client;
};

TEST_F(ServerTest, OneKeptConnectionCarriesQueriesBodiesAndHandlerFailures) {
  RunningServer s(makeRouter(), {});
  auto r = client.fetch("GET", s.url("/ping"));
  EXPECT_EQ(r.body, "pong");
  EXPECT_EQ(r.headers["content-type"], kTextType);
  EXPECT_EQ(r.newConnections, 1);
  r = client.fetch("POST", s.url("/echo?q=a%20b%2Bc"), std::string(100000, 'x'));
  EXPECT_EQ(r.body, "POST 100000 a b+c");
  EXPECT_EQ(client.fetch("POST", s.url("/echo?q=%zz")).status, 400);
  r = client.fetch("GET", s.url("/boom"));
  EXPECT_EQ(r.status, 500);
  EXPECT_EQ(r.body, R"({"error":"internal server error"})");
  // A body to a route that takes none is dropped and the connection kept.
  EXPECT_EQ(client.fetch("POST", s.url("/bodiless"), std::string(3000000, 'x')).body, "0");
  r = client.fetch("GET", s.url("/ping"));
  EXPECT_EQ(r.body, "pong");
  EXPECT_EQ(r.newConnections, 0);
}

TEST_F(ServerTest, HeadAnswersLengthWithoutBody) {
  RunningServer s(makeRouter(), {});
  RawConnection c(s.port());
  c.send("HEAD /ping HTTP/1.1\r\nHost: x\r\n\r\nGET /ping HTTP/1.1\r\nHost: x\r\n\r\n");
  std::string got = c.readUntil("pong", 5s);
  EXPECT_NE(got.find("Content-Length: 4\r\n"), std::string::npos);
  // The first answer has no body: the second status line follows its head directly.
  EXPECT_NE(got.find("\r\n\r\nHTTP/1.1 200 OK"), std::string::npos) << got;
}

TEST_F(ServerTest, IncompleteHeadTimesOut) {
  ServerOptions o;
  o.headerTimeout = 1s;
  RunningServer s(makeRouter(), o);
  RawConnection slow(s.port());
  slow.send("GET /ping HTTP/1.1\r\nHo");
  EXPECT_TRUE(slow.closedByPeer(5s));
  EXPECT_EQ(client.fetch("GET", s.url("/ping")).body, "pong");
}

TEST_F(ServerTest, BodiesOverTheirLimitAreRefusedBeforeTheyAreRead) {
  ServerOptions o;
  o.bodyLimit = 2000000;
  RunningServer s(makeRouter(), o);
  // The route's own limit for bodies in memory, the server's for streamed ones; announced or
  // chunked.
  for (const char* head : {"POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 1000001\r\n\r\n",
                           "PUT /upload/x HTTP/1.1\r\nHost: x\r\nContent-Length: 2000001\r\n\r\n",
                           "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
                           "F4241\r\n"}) {
    RawConnection c(s.port());
    c.send(head);
    if (std::string(head).find("chunked") != std::string::npos) c.send(std::string(1000001, 'x'));
    std::string got = c.readUntil("}", 5s);
    EXPECT_EQ(got.rfind("HTTP/1.1 413", 0), 0u) << head << got;
    EXPECT_TRUE(c.closedByPeer(5s)) << head;
  }
  EXPECT_EQ(client.fetch("POST", s.url("/echo"), std::string(1000000, 'x')).body, "POST 1000000 -");
}

TEST_F(ServerTest, DoubtfulFramingIs400AndCloses) {
  RunningServer s(makeRouter(), {});
  const std::string next = "GET /ping HTTP/1.1\r\nHost: x\r\n\r\n";
  for (const std::string& request : std::vector<std::string>{
           "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: identity\r\n\r\n" + next,
           "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked, gzip\r\n\r\n" + next,
           "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n"
           "Transfer-Encoding: gzip\r\n\r\n" + next,
           "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\nContent-Length: 3\r\n"
           "\r\n0\r\n\r\n",
           "POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\nzz\r\nab\r\n",
           "POST /bodiless HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
           "fffffffffffffffffff\r\n",
           "POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 1x\r\n\r\n",
           "NOT HTTP\r\n\r\n",
       }) {
    RawConnection c(s.port());
    c.send(request);
    std::string got = c.readAll(5s);
    EXPECT_EQ(got.rfind("HTTP/1.1 400", 0), 0u) << request << got;
    EXPECT_EQ(got.find("pong"), std::string::npos) << request;
  }
  EXPECT_EQ(client.fetch("GET", s.url("/ping")).body, "pong");
}

TEST_F(ServerTest, OneAddressGetsItsShareOfConnectionsAndTheTotalWaits) {
  ServerOptions o;
  o.connectionsPerClient = 2;
  o.limitLoopback = true;
  o.maxConnections = 3;
  {
    RunningServer s(makeRouter(), o);
    auto first = std::make_unique<RawConnection>(s.port());
    RawConnection second(s.port());
    RawConnection third(s.port());
    EXPECT_TRUE(third.closedByPeer(5s));  // over its address's share
    first.reset();
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(client.fetch("GET", s.url("/ping")).body, "pong");
  }
  o.connectionsPerClient = 0;
  o.maxConnections = 1;
  RunningServer s(makeRouter(), o);
  auto holder = std::make_unique<RawConnection>(s.port());
  holder->send("GET /ping HTTP/1.1\r\nHost: x\r\n\r\n");
  ASSERT_NE(holder->readUntil("pong", 5s).find("pong"), std::string::npos);
  RawConnection waiting(s.port());  // in the backlog until the holder leaves
  waiting.send("GET /ping HTTP/1.1\r\nHost: x\r\n\r\n");
  EXPECT_EQ(waiting.readUntil("pong", 300ms).find("pong"), std::string::npos);
  holder.reset();
  EXPECT_NE(waiting.readUntil("pong", 5s).find("pong"), std::string::npos);
}

TEST_F(ServerTest, StreamedBodyLandsWholeAndIsServedFromDisk) {
  RunningServer s(makeRouter(), {});
  std::string payload;
  for (int i = 0; i < 300000; ++i) payload += static_cast<char>('a' + i % 26);
  auto r = client.fetch("PUT", s.url("/upload/big.bin"), payload);
  EXPECT_EQ(r.body, "stored");
  EXPECT_TRUE(std::filesystem::file_size(dir.path() / "big.bin") == payload.size());
  EXPECT_TRUE(std::filesystem::is_empty(dir.path() / "incoming"));
  auto back = client.fetch("GET", s.url("/file/big.bin"));
  EXPECT_EQ(back.body, payload);
  EXPECT_EQ(back.headers["content-length"], std::to_string(payload.size()));
  EXPECT_EQ(client.fetch("GET", s.url("/file/missing")).status, 404);
}

TEST_F(ServerTest, ABodyThatCannotBeStoredIsTheRoutesToAnswer) {
  RunningServer s(makeRouter(), {});
  // Every write to this staging file fails as on a full disk; the open of the other one fails.
  std::filesystem::create_directories(dir.path() / "incoming");
  std::filesystem::create_symlink("/dev/full", dir.path() / "incoming" / "full.part");
  std::filesystem::create_directories(dir.path() / "incoming" / "blocked.part");
  for (const char* name : {"full", "blocked"}) {
    auto r = client.fetch("PUT", s.url(std::string("/upload/") + name), std::string(300000, 'x'));
    EXPECT_EQ(r.status, 500) << name << " " << r.error;
    EXPECT_EQ(r.body, R"({"error":"could not store file"})") << name;
    EXPECT_FALSE(std::filesystem::exists(dir.path() / name));
  }
  EXPECT_TRUE(std::filesystem::exists("/dev/full"));
  EXPECT_EQ(client.fetch("GET", s.url("/ping")).body, "pong");
}

TEST_F(ServerTest, AStalledServiceHoldsUpOnlyItsOwnRoutesAndNeverTheTimers) {
  std::mutex mutex;
  std::condition_variable changed;
  int waiting = 0;
  bool released = false;
  Router router = makeRouter();
  Route stalled = route("GET", "/stalled", [&](const Request&) {
    std::unique_lock lock(mutex);
    ++waiting;
    changed.notify_all();
    changed.wait(lock, [&] { return released; });
    return Response::text("late");
  });
  stalled.waitsOn = "stalled service";
  router.add(stalled);
  Route other = route("GET", "/other", [](const Request&) { return Response::text("other"); });
  other.waitsOn = "other service";
  router.add(other);

  ServerOptions o;
  o.blockingThreads = 6;
  RunningServer server(std::move(router), o);
  const auto release = [&] {
    std::lock_guard lock(mutex);
    released = true;
    changed.notify_all();
  };
  // Destroyed before the server: its pools can only be joined once their handlers return.
  std::unique_ptr<void, std::function<void(void*)>> releaseOnExit(&released,
                                                                  [&](void*) { release(); });

  // One request more than the service's pool holds: the pool is full, and one waits.
  std::vector<std::unique_ptr<RawConnection>> clients;
  for (int i = 0; i < 7; ++i) {
    clients.push_back(std::make_unique<RawConnection>(server.port()));
    clients.back()->send("GET /stalled HTTP/1.1\r\nHost: x\r\n\r\n");
  }
  {
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, 10s, [&] { return waiting == 6; })) << waiting;
  }
  EXPECT_EQ(client.fetch("GET", server.url("/other")).body, "other");
  EXPECT_EQ(client.fetch("GET", server.url("/ping")).body, "pong");

  release();
  for (auto& c : clients) EXPECT_NE(c->readUntil("late", 10s).find("late"), std::string::npos);
}

}  // namespace
}  // namespace quill::http
