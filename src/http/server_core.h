#pragma once
// What the acceptor, the sessions and the server share: the router, the options, the I/O context,
// the worker pools and the connection bookkeeping. Internal to the HTTP layer.

#include <atomic>
#include <boost/asio.hpp>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "http/connection_limits.h"
#include "http/server.h"

namespace quill::http {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

class Session;

// Everything a connection needs. Destroyed after the I/O threads have stopped; its members go in
// reverse order, so the worker pools (whose pending tasks hold connections) are joined before the
// I/O context that those connections' sockets belong to, and the connection limits outlive both.
struct ServerCore {
  ServerCore(Router r, ServerOptions o);

  // Waits for every pool's pending tasks; the pools stay usable by no one after.
  void joinPools();

  Router router;
  ServerOptions options;
  std::unique_ptr<ConnectionLimits> limits;  // set by listen()
  std::atomic<bool> stopping{false};
  // Shutting down: no new connection or request is taken, and serving ends with the last
  // connection (or when the grace period runs out).
  std::atomic<bool> draining{false};
  asio::io_context ioc;
  // Serving goes on while no I/O is pending (accepting paused at the bound, every connection's
  // request with a worker); only stop() or the end of a drain ends run().
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning =
      asio::make_work_guard(ioc);
  asio::thread_pool workers;  // checks and handlers that touch only local files
  // Handlers that wait on a remote service, one pool per service; built from the route table
  // before any thread runs, and only read after.
  std::map<std::string, std::unique_ptr<asio::thread_pool>> remotePools;
  tcp::acceptor acceptor;
  asio::steady_timer acceptRetry;
  asio::steady_timer drainDeadline;
  // The open sessions, so that a drain can close the idle ones.
  std::mutex sessionsMutex;
  std::unordered_map<const Session*, std::weak_ptr<Session>> sessions;
};

// Accepts connections until the server stops or drains, pausing at the connection bound and
// backing off when descriptors run out. Runs on the I/O context.
void acceptLoop(ServerCore& core);

// Starts serving an accepted connection from `peer` (admitted by the connection limits).
void startSession(ServerCore& core, tcp::socket socket, std::string peer);

// Closes every connection that waits for its next request; the others finish the request they
// are on, then close.
void closeIdleSessions(ServerCore& core);

// Called as a connection ends: resumes a paused acceptor, or ends serving after the last
// connection of a drain.
void connectionEnded(ServerCore& core, const std::string& peer);

}  // namespace quill::http
