#pragma once
// The HTTP/1.1 server: keep-alive connections served by a few I/O threads, with every route
// handler (and every check that reads files) run on a pool of worker threads.
//
// A request is read head first. The router's head stage (routing, the pre-handling hook, the
// route's own head check) runs before any body byte is read; a refusal is answered at once, and
// the connection is closed when a body was announced but not read. `Expect: 100-continue` is
// honoured: the interim answer goes out only after the head stage let the request through.
// A body is streamed into the route's body file (up to `bodyLimit`), read into memory (up to the
// route's own limit), or, for a route that takes none, read and dropped: no client can make the
// server reserve memory it did not mean to. Malformed framing (a Transfer-Encoding that does not
// end in chunked, both Transfer-Encoding and Content-Length, a bad chunk) is answered 400 and the
// connection closed. A client that goes away mid-answer costs only its connection (SIGPIPE is
// ignored process-wide once the server listens).
//
// Handlers run on worker threads, never on the I/O threads: ordinary handlers on one pool, and
// handlers that wait on a remote service (Route::waitsOn) on a pool per service, so that a
// service that stalls fills only its own pool.
//
// Floods: the open connections are bounded in all (from the open-file limit, so that descriptors
// remain for files) and per client address; when `accept` runs out of descriptors the server
// backs off instead of spinning, and keeps serving the connections it has.
//
// Shutting down gracefully (drain): the listener closes, connections waiting for their next
// request are closed, and every request in flight (an upload or a download included) is finished
// and its connection closed after the answer; run() returns when the last connection has ended or
// the grace period is over.
//
// Thread safety: listen() before run(); stop() and drain() from any thread.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "base/result.h"
#include "http/router.h"

namespace quill::http {

struct ServerCore;

// One answered request, as an access log records it.
struct Exchange {
  const Request& request;    // `method` is empty when the head could not be read
  unsigned status = 0;
  std::uint64_t bodyBytes = 0;  // body bytes sent (fewer than announced when the client left)
  std::chrono::steady_clock::duration took{};  // from the head's arrival to the answer's end
};

struct ServerOptions {
  std::string address = "0.0.0.0";
  std::uint16_t port = 8080;  // 0 picks a free port; see Server::port()
  unsigned ioThreads = 1;
  // Checks and ordinary handlers: about one per core, since they only touch local files; more
  // threads would only add wake-ups.
  unsigned workerThreads = 2;
  // Threads of each remote service's pool: how many requests may wait on one service at once
  // (the others queue behind them, and nothing else does).
  unsigned blockingThreads = 8;
  std::uint64_t bodyLimit = 2147483648ULL;
  std::size_t headerLimit = 64 * 1024;
  // The whole head must arrive within this time (also the keep-alive idle limit), so a client
  // that trickles its headers cannot hold a connection open for long.
  std::chrono::seconds headerTimeout{30};
  // A body read that makes no progress for this long is abandoned.
  std::chrono::seconds bodyIdleTimeout{60};
  // Open connections in all; 0 derives the bound from the open-file limit at listen().
  std::size_t maxConnections = 0;
  // Open connections per client address (0: no bound). Loopback peers are a reverse proxy that
  // every client shares, so they are exempt unless `limitLoopback` is set.
  std::size_t connectionsPerClient = 256;
  bool limitLoopback = false;
  // Told of every answer once it has been sent (or the client left during it), on an I/O thread:
  // it should be quick.
  std::function<void(const Exchange&)> answered;
};

class Server {
 public:
  Server(Router router, ServerOptions options);
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // Opens the listener; fails with a one-line reason.
  base::Result<bool> listen();
  // The bound port (useful after listening on port 0).
  std::uint16_t port() const;
  // Serves until stop() or the end of a drain; returns after every I/O thread has finished.
  void run();
  void stop();
  // Stops taking connections and requests, lets those in flight finish, and ends run() when the
  // last connection has ended or after `grace`, whichever comes first.
  void drain(std::chrono::milliseconds grace);

 private:
  std::unique_ptr<ServerCore> core_;
};

}  // namespace quill::http
