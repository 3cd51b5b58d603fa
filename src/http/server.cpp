#include "http/server.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <thread>
#include <vector>

#include "http/server_core.h"

namespace quill::http {

namespace {

// Descriptors kept free of connections for the files that requests open.
constexpr std::size_t kReservedDescriptors = 128;

// Connections in all: what the open-file limit allows, less a reserve for the files that
// requests open.
std::size_t connectionBound(const ServerOptions& options) {
  if (options.maxConnections != 0) return options.maxConnections;
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 0;
  const auto descriptors = static_cast<std::size_t>(limit.rlim_cur);
  return descriptors > 2 * kReservedDescriptors ? descriptors - kReservedDescriptors
                                                : descriptors / 2;
}

}  // namespace

ServerCore::ServerCore(Router r, ServerOptions o)
    : router(std::move(r)),
      options(std::move(o)),
      workers(std::max(1U, options.workerThreads)),
      acceptor(ioc),
      acceptRetry(ioc),
      drainDeadline(ioc) {
  for (const Route& route : router.routes()) {
    if (route.waitsOn.empty() || remotePools.count(route.waitsOn) != 0) continue;
    remotePools.emplace(route.waitsOn,
                        std::make_unique<asio::thread_pool>(std::max(1U, options.blockingThreads)));
  }
}

void ServerCore::joinPools() {
  workers.join();
  for (auto& [service, pool] : remotePools) pool->join();
}

Server::Server(Router router, ServerOptions options)
    : core_(std::make_unique<ServerCore>(std::move(router), std::move(options))) {}

Server::~Server() {
  core_->stopping = true;
  stop();
  core_->joinPools();
}

base::Result<bool> Server::listen() {
  // A client that closes mid-answer must cost its connection, never the process: sendfile(2)
  // raises SIGPIPE on a closed socket (socket writes use MSG_NOSIGNAL).
  std::signal(SIGPIPE, SIG_IGN);
  core_->limits = std::make_unique<ConnectionLimits>(connectionBound(core_->options),
                                                     core_->options.connectionsPerClient,
                                                     !core_->options.limitLoopback);
  boost::system::error_code ec;
  auto address = asio::ip::make_address(core_->options.address, ec);
  if (ec) return base::Failure("invalid bind address '" + core_->options.address + "'");
  tcp::endpoint endpoint(address, core_->options.port);
  auto& acceptor = core_->acceptor;
  acceptor.open(endpoint.protocol(), ec);
  if (!ec) acceptor.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    return base::Failure("cannot listen on " + core_->options.address + ":" +
                         std::to_string(core_->options.port) + ": " + ec.message(),
                         ec.value());
  }
  acceptLoop(*core_);
  return true;
}

std::uint16_t Server::port() const {
  boost::system::error_code ec;
  auto endpoint = core_->acceptor.local_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

void Server::run() {
  std::vector<std::thread> extra;
  // An exception from an I/O handler (an allocation that failed) ends that handler, not serving.
  auto serve = [this] {
    for (;;) {
      try {
        core_->ioc.run();
        return;
      } catch (...) {
      }
    }
  };
  for (unsigned i = 1; i < core_->options.ioThreads; ++i) extra.emplace_back(serve);
  serve();
  for (auto& t : extra) t.join();
}

void Server::stop() { core_->ioc.stop(); }

void Server::drain(std::chrono::milliseconds grace) {
  asio::post(core_->ioc, [&core = *core_, grace] {
    if (core.draining.exchange(true)) return;
    boost::system::error_code ignored;
    core.acceptor.close(ignored);
    core.acceptRetry.cancel();
    core.drainDeadline.expires_after(grace);
    core.drainDeadline.async_wait([&core](boost::system::error_code ec) {
      if (!ec) core.ioc.stop();
    });
    closeIdleSessions(core);
    if (core.limits && core.limits->open() == 0) core.ioc.stop();
  });
}

}  // namespace quill::http
