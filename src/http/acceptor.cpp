// Taking connections: the accept loop with its pause at the connection bound and its back-off
// when descriptors run out.

#include <cerrno>

#include "http/server_core.h"

namespace quill::http {

namespace {

// How long accept waits after running out of descriptors before it tries again.
constexpr std::chrono::milliseconds kAcceptBackoff{100};

bool outOfDescriptors(const boost::system::error_code& ec) {
  return ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space ||
         ec == asio::error::no_memory || ec.value() == ENFILE;
}

// Starts a session unless the peer's address already holds its share of connections.
void admit(ServerCore& core, tcp::socket socket) {
  boost::system::error_code ec;
  auto endpoint = socket.remote_endpoint(ec);
  if (ec) return;  // already gone
  std::string peer = endpoint.address().to_string();
  if (!core.limits->admit(peer)) return;  // closed as the socket goes out of scope
  startSession(core, std::move(socket), std::move(peer));
}

}  // namespace

void acceptLoop(ServerCore& core) {
  // At the bound, waiting connections stay in the backlog; the next session to end resumes us.
  if (core.stopping || core.draining || core.limits->pauseIfFull()) return;
  core.acceptor.async_accept(
      asio::make_strand(core.ioc), [&core](boost::system::error_code ec, tcp::socket socket) {
        if (ec == asio::error::operation_aborted) return;
        if (!ec) {
          admit(core, std::move(socket));
          return acceptLoop(core);
        }
        if (!outOfDescriptors(ec)) return acceptLoop(core);
        // Retrying at once would spin: the pending connection stays pending until a descriptor
        // is freed.
        core.acceptRetry.expires_after(kAcceptBackoff);
        core.acceptRetry.async_wait([&core](boost::system::error_code timerError) {
          if (!timerError) acceptLoop(core);
        });
      });
}

void connectionEnded(ServerCore& core, const std::string& peer) {
  const bool resume = core.limits->release(peer);
  if (core.draining) {
    if (core.limits->open() == 0) core.ioc.stop();
    return;
  }
  if (resume && !core.stopping) asio::post(core.ioc, [&core] { acceptLoop(core); });
}

}  // namespace quill::http
