#include "http/server.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cerrno>
#include <csignal>
#include <map>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "http/connection_limits.h"
#include "http/json.h"
#include "http/request_framing.h"
#include "http/url.h"

namespace quill::http {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace bhttp = beast::http;
using tcp = asio::ip::tcp;

// Everything a connection needs. Destroyed after the I/O threads have stopped; its members go in
// reverse order, so the worker pools (whose pending tasks hold connections) are joined before the
// I/O context that those connections' sockets belong to, and the connection limits outlive both.
struct ServerCore {
  ServerCore(Router r, ServerOptions o)
      : router(std::move(r)),
        options(std::move(o)),
        workers(std::max(1U, options.workerThreads)),
        acceptor(ioc),
        acceptRetry(ioc) {
    for (const Route& route : router.routes()) {
      if (route.waitsOn.empty() || remotePools.count(route.waitsOn) != 0) continue;
      remotePools.emplace(route.waitsOn, std::make_unique<asio::thread_pool>(
                                             std::max(1U, options.blockingThreads)));
    }
  }

  // Waits for every pool's pending tasks; the pools stay usable by no one after.
  void joinPools() {
    workers.join();
    for (auto& [service, pool] : remotePools) pool->join();
    timerThread.join();
  }

  Router router;
  ServerOptions options;
  std::unique_ptr<ConnectionLimits> limits;  // set by listen()
  std::atomic<bool> stopping{false};
  asio::io_context ioc;
  // Serving goes on while no I/O is pending (accepting paused at the bound, every connection's
  // request with a worker); only stop() ends run().
  asio::executor_work_guard<asio::io_context::executor_type> keepRunning =
      asio::make_work_guard(ioc);
  asio::thread_pool workers;  // checks and handlers that touch only local files
  // Handlers that wait on a remote service, one pool per service; built from the route table
  // before any thread runs, and only read after.
  std::map<std::string, std::unique_ptr<asio::thread_pool>> remotePools;
  asio::thread_pool timerThread{1};
  tcp::acceptor acceptor;
  asio::steady_timer acceptRetry;
  std::vector<std::unique_ptr<asio::steady_timer>> timers;
};

void acceptLoop(ServerCore& core);

namespace {

constexpr std::size_t kDrainLimit = 1 << 20;
constexpr std::size_t kBodyReadSize = 64 * 1024;
constexpr std::chrono::seconds kDrainTime{2};
// Descriptors kept free of connections for the files that requests open.
constexpr std::size_t kReservedDescriptors = 128;
// How long accept waits after running out of descriptors before it tries again.
constexpr std::chrono::milliseconds kAcceptBackoff{100};

// The file a streamed body is written into, remembering that a write failed: the disk being full
// is the route's to answer, where a failed read means the client went away.
class BodyFile : public beast::file {
 public:
  std::size_t write(const void* buffer, std::size_t n, beast::error_code& ec) {
    const std::size_t written = beast::file::write(buffer, n, ec);
    if (ec) writeFailed_ = true;
    return written;
  }
  bool writeFailed() const { return writeFailed_; }

 private:
  bool writeFailed_ = false;
};

// The error text of an answer to a request that could not be read.
std::string_view failureText(unsigned status) {
  if (status == 413) return "request body too large";
  if (status == 431) return "request header too large";
  return "malformed request";
}

bool equalsIgnoreCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    if (std::tolower(static_cast<unsigned char>(a[i])) !=
        std::tolower(static_cast<unsigned char>(b[i]))) {
      return false;
    }
  }
  return true;
}

// The status line and header fields of an answer, ready to send. Header values that carry a CR
// or LF are dropped rather than sent, so no handler can split a response.
std::string formatHead(const Response& r, unsigned version, std::uint64_t contentLength,
                       bool keepAlive) {
  auto safe = [](std::string_view text) {
    return text.find_first_of("\r\n") == std::string_view::npos;
  };
  std::string head = version == 10 ? "HTTP/1.0 " : "HTTP/1.1 ";
  head += std::to_string(r.status);
  head += ' ';
  head += bhttp::obsolete_reason(static_cast<bhttp::status>(r.status));
  head += "\r\nServer: quillmoord\r\n";
  if (!r.contentType.empty() && safe(r.contentType)) {
    head += "Content-Type: " + r.contentType + "\r\n";
  }
  for (const auto& [name, value] : r.headers) {
    if (safe(name) && safe(value)) head += name + ": " + value + "\r\n";
  }
  head += "Content-Length: " + std::to_string(contentLength) + "\r\n";
  if (version == 10 && keepAlive) head += "Connection: keep-alive\r\n";
  if (version != 10 && !keepAlive) head += "Connection: close\r\n";
  head += "\r\n";
  return head;
}

// One client connection. It lives as long as an asynchronous operation or a worker task holds
// it; the I/O side runs on the connection's strand, the checks and handlers on the worker pool.
class Session : public std::enable_shared_from_this<Session> {
 public:
  // `peer` was admitted by the connection limits; the session gives its place back when it ends.
  Session(tcp::socket socket, ServerCore& core, std::string peer)
      : stream_(std::move(socket)),
        core_(core),
        peer_(std::move(peer)),
        idleTimer_(stream_.get_executor()) {}

  ~Session() {
    discardBodyFile();
    closeFile();
    if (core_.limits->release(peer_) && !core_.stopping) {
      asio::post(core_.ioc, [&core = core_] { acceptLoop(core); });
    }
  }

  void start() {
    beast::error_code ec;
    stream_.socket().set_option(tcp::no_delay(true), ec);
    asio::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->readHead(); });
  }

 private:
  // --- I/O strand -------------------------------------------------------------------------

  void readHead() {
    req_ = Request{};
    head_.emplace();
    limitHead(*head_, core_.options);
    stringParser_.reset();
    fileParser_.reset();
    discardParser_.reset();
    route_ = nullptr;
    stream_.expires_after(core_.options.headerTimeout);
    bhttp::async_read_header(
        stream_, buffer_, *head_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onHead(ec); });
  }

  void onHead(beast::error_code ec) {
    if (ec) {
      const auto status = headFailureStatus(ec);
      if (!status) return closeNow();
      return answerAndClose(*status, failureText(*status));
    }
    if (!framingIsSound(*head_)) return answerAndClose(400, failureText(400));
    stream_.expires_never();

    const auto& msg = head_->get();
    version_ = msg.version();
    keepAlive_ = msg.keep_alive();
    req_.method = std::string(msg.method_string());
    req_.target = std::string(msg.target());
    req_.peer = peer_;
    for (const auto& field : msg) {
      req_.headers.add(std::string(field.name_string()), std::string(field.value()));
    }
    if (auto length = head_->content_length()) req_.contentLength = *length;
    req_.hasBody = !head_->is_done();

    if (!splitTarget(req_.target, req_.path, req_.query)) {
      return answerAndClose(400, "malformed request target");
    }
    asio::post(core_.workers, [self = shared_from_this()] { self->guarded([&] { self->judge(); }); });
  }

  void readBody() {
    if (equalsIgnoreCase(req_.header("expect"), "100-continue")) {
      auto interim =
          std::make_shared<bhttp::response<bhttp::empty_body>>(bhttp::status::continue_, version_);
      bhttp::async_write(stream_, *interim,
                         [self = shared_from_this(), interim](beast::error_code ec, std::size_t) {
                           if (ec) return self->closeNow();
                           self->readSomeBody();
                         });
      return;
    }
    readSomeBody();
  }

  void readSomeBody() {
    // Beast reads only into the buffer's free space; a streamed body empties the buffer after
    // every read, so without room reserved a large upload arrives in 512-byte pieces.
    if (buffer_.capacity() < kBodyReadSize) buffer_.reserve(kBodyReadSize);
    stream_.expires_after(core_.options.bodyIdleTimeout);
    auto onRead = [self = shared_from_this()](beast::error_code ec, std::size_t) {
      self->onBodyRead(ec);
    };
    if (fileParser_) {
      bhttp::async_read_some(stream_, buffer_, *fileParser_, std::move(onRead));
    } else if (stringParser_) {
      bhttp::async_read_some(stream_, buffer_, *stringParser_, std::move(onRead));
    } else {
      bhttp::async_read_some(stream_, buffer_, *discardParser_, std::move(onRead));
    }
  }

  bool bodyDone() const {
    if (fileParser_) return fileParser_->is_done();
    if (stringParser_) return stringParser_->is_done();
    return discardParser_->is_done();
  }

  void onBodyRead(beast::error_code ec) {
    if (ec && fileParser_ && fileParser_->get().body().file().writeFailed()) {
      stream_.expires_never();
      loseBody();
      asio::post(core_.workers,
                 [self = shared_from_this()] { self->guarded([&] { self->handle(); }); });
      return;
    }
    if (ec) {
      discardBodyFile();  // nothing of a partial body is kept
      const auto status = bodyFailureStatus(ec);
      if (!status) return closeNow();  // the client went away or stalled
      return answerAndClose(*status, failureText(*status));
    }
    if (!bodyDone()) return readSomeBody();
    stream_.expires_never();
    if (fileParser_) {
      fileParser_->get().body().close();
      req_.bodyFile = bodyFile_;
    } else if (stringParser_) {
      req_.body = stringParser_->release().body();
    }
    asio::post(core_.workers,
               [self = shared_from_this()] { self->guarded([&] { self->handle(); }); });
  }

  void write(Response r, bool close) {
    bool keepAlive = keepAlive_ && !close && !r.close;
    if (r.openedFile || !r.file.empty()) {
      if (takeFile(r)) return writeFileHead(r, keepAlive);
      r = errorResponse(404, "not found");
    }
    auto out = std::make_shared<std::pair<std::string, std::string>>(
        formatHead(r, version_, r.body.size(), keepAlive), std::move(r.body));
    if (req_.headOnly) out->second.clear();
    std::array<asio::const_buffer, 2> buffers{asio::buffer(out->first), asio::buffer(out->second)};
    asio::async_write(
        stream_, buffers,
        [self = shared_from_this(), out, keepAlive](beast::error_code ec, std::size_t) {
          if (ec || !keepAlive) return self->closeGracefully();
          self->readHead();
        });
  }

  // --- file responses: the head, then the bytes with sendfile(2) --------------------------------

  // The answer's file, opened by the handler or here; false unless it is a regular file.
  bool takeFile(const Response& r) {
    file_ = r.openedFile;
    if (!file_) file_ = std::make_shared<const OpenFile>(::open(r.file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat st {};
    if (file_->fd() < 0 || ::fstat(file_->fd(), &st) != 0 || !S_ISREG(st.st_mode)) {
      closeFile();
      return false;
    }
    fileOffset_ = 0;
    fileSize_ = static_cast<std::uint64_t>(st.st_size);
    return true;
  }

  void closeFile() { file_.reset(); }

  void writeFileHead(const Response& r, bool keepAlive) {
    auto head = std::make_shared<std::string>(formatHead(r, version_, fileSize_, keepAlive));
    if (req_.headOnly) closeFile();
    asio::async_write(
        stream_, asio::buffer(*head),
        [self = shared_from_this(), head, keepAlive](beast::error_code ec, std::size_t) {
          if (ec) return self->closeFileAndConnection();
          if (!self->file_) {
            if (!keepAlive) return self->closeGracefully();
            return self->readHead();
          }
          self->sendFileBody(keepAlive);
        });
  }

  // Sends the rest of the open file straight from the page cache; waits for the socket to drain
  // when it is full, giving up on a client that reads nothing for a while.
  void sendFileBody(bool keepAlive) {
    auto& socket = stream_.socket();
    beast::error_code ec;
    socket.native_non_blocking(true, ec);
    while (!ec && static_cast<std::uint64_t>(fileOffset_) < fileSize_) {
      const std::uint64_t left = fileSize_ - static_cast<std::uint64_t>(fileOffset_);
      const auto chunk = static_cast<std::size_t>(std::min<std::uint64_t>(left, 1 << 30));
      ssize_t sent = ::sendfile(socket.native_handle(), file_->fd(), &fileOffset_, chunk);
      if (sent > 0) continue;
      if (sent < 0 && errno == EINTR) continue;
      if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        idleTimer_.expires_after(core_.options.bodyIdleTimeout);
        idleTimer_.async_wait([self = shared_from_this()](beast::error_code timerError) {
          if (!timerError) self->closeFileAndConnection();
        });
        socket.async_wait(tcp::socket::wait_write,
                          [self = shared_from_this(), keepAlive](beast::error_code waitError) {
                            self->idleTimer_.cancel();
                            if (waitError) return self->closeFileAndConnection();
                            self->sendFileBody(keepAlive);
                          });
        return;
      }
      return closeFileAndConnection();  // an error, or the file shrank under us
    }
    closeFile();
    if (ec || !keepAlive) return closeGracefully();
    readHead();
  }

  void closeFileAndConnection() {
    closeFile();
    closeNow();
  }

  // Answers a request that cannot be read further, then closes.
  void answerAndClose(unsigned status, std::string_view text) {
    if (version_ == 0) version_ = 11;
    keepAlive_ = false;
    write(errorResponse(status, text), true);
  }

  // Half-closes, then reads and drops what the client still sends (briefly, and bounded), so that
  // a client still sending a refused body sees our answer instead of a reset.
  void closeGracefully() {
    beast::error_code ec;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ec);
    if (ec) return closeNow();
    stream_.expires_after(kDrainTime);
    drain();
  }

  void drain() {
    drainBuffer_.resize(64 * 1024);
    stream_.async_read_some(asio::buffer(drainBuffer_),
                            [self = shared_from_this()](beast::error_code ec, std::size_t n) {
                              self->drained_ += n;
                              if (ec || self->drained_ >= kDrainLimit) return self->closeNow();
                              self->drain();
                            });
  }

  void closeNow() {
    beast::error_code ec;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ec);
    stream_.socket().close(ec);
  }

  // --- worker pool ------------------------------------------------------------------------

  // Runs a worker-pool stage; anything it throws (an allocation that failed, say) answers this one
  // request with 500 and closes its connection, and the server goes on.
  template <typename Stage>
  void guarded(Stage stage) {
    try {
      stage();
    } catch (...) {
      discardBodyFile();
      respond(errorResponse(500, "internal server error"), true);
    }
  }

  void judge() {
    const Route* route = nullptr;
    if (auto early = core_.router.judgeHead(req_, route)) {
      return respond(std::move(*early), req_.hasBody);
    }
    route_ = route;
    if (!req_.hasBody) return handle();
    if (route_->bodyFile) {
      if (!openBodyFile()) {
        loseBody();
        return handle();
      }
    } else if (route_->bodyLimit > 0) {
      // Refused before the parser reserves room for the announced length.
      if (req_.contentLength.value_or(0) > route_->bodyLimit) {
        return respond(errorResponse(413, failureText(413)), true);
      }
      stringParser_.emplace(std::move(*head_));
      stringParser_->body_limit(route_->bodyLimit);
    } else {
      discardParser_.emplace(std::move(*head_));
      discardParser_->body_limit(core_.options.bodyLimit);
    }
    asio::post(stream_.get_executor(), [self = shared_from_this()] { self->readBody(); });
  }

  bool openBodyFile() {
    try {
      bodyFile_ = route_->bodyFile(req_);
    } catch (...) {
      return false;
    }
    std::error_code fsError;
    std::filesystem::create_directories(bodyFile_.parent_path(), fsError);
    fileParser_.emplace(std::move(*head_));
    fileParser_->body_limit(core_.options.bodyLimit);
    beast::error_code ec;
    fileParser_->get().body().open(bodyFile_.c_str(), beast::file_mode::write, ec);
    if (ec) bodyFile_.clear();
    return !ec;
  }

  void handle() {
    if (!route_->waitsOn.empty() && !onRemotePool_) {
      onRemotePool_ = true;
      asio::post(*core_.remotePools.at(route_->waitsOn),
                 [self = shared_from_this()] { self->guarded([&] { self->handle(); }); });
      return;
    }
    onRemotePool_ = false;
    Response response = core_.router.invoke(*route_, req_);
    discardBodyFile();
    respond(std::move(response), false);
  }

  void respond(Response response, bool close) {
    asio::post(stream_.get_executor(), [self = shared_from_this(), r = std::move(response),
                                        close]() mutable { self->write(std::move(r), close); });
  }

  // The body could not be stored where the route streams it (the disk is full, say): the route's
  // handler answers as it would a failed write of its own, and the connection closes after that,
  // the rest of the body unread.
  void loseBody() {
    discardBodyFile();
    req_.bodyLost = true;
    keepAlive_ = false;
  }

  // Removes a streamed body the handler did not move into place (or that never completed).
  void discardBodyFile() {
    if (bodyFile_.empty()) return;
    if (fileParser_) fileParser_->get().body().close();
    std::error_code ec;
    std::filesystem::remove(bodyFile_, ec);
    bodyFile_.clear();
  }

  beast::tcp_stream stream_;
  ServerCore& core_;
  beast::flat_buffer buffer_;
  std::string peer_;
  unsigned version_ = 0;
  bool keepAlive_ = false;
  std::optional<HeadParser> head_;
  std::optional<bhttp::request_parser<bhttp::string_body>> stringParser_;
  std::optional<bhttp::request_parser<bhttp::basic_file_body<BodyFile>>> fileParser_;
  std::optional<bhttp::request_parser<DiscardBody>> discardParser_;
  std::filesystem::path bodyFile_;
  Request req_;
  const Route* route_ = nullptr;
  std::vector<char> drainBuffer_;
  std::size_t drained_ = 0;
  asio::steady_timer idleTimer_;
  bool onRemotePool_ = false;
  std::shared_ptr<const OpenFile> file_;  // the file being sent
  off_t fileOffset_ = 0;
  std::uint64_t fileSize_ = 0;
};

bool outOfDescriptors(const beast::error_code& ec) {
  return ec == asio::error::no_descriptors || ec == asio::error::no_buffer_space ||
         ec == asio::error::no_memory || ec.value() == ENFILE;
}

// Starts a session unless the peer's address already holds its share of connections.
void admit(ServerCore& core, tcp::socket socket) {
  beast::error_code ec;
  auto endpoint = socket.remote_endpoint(ec);
  if (ec) return;  // already gone
  std::string peer = endpoint.address().to_string();
  if (!core.limits->admit(peer)) return;  // closed as the socket goes out of scope
  std::make_shared<Session>(std::move(socket), core, std::move(peer))->start();
}

}  // namespace

void acceptLoop(ServerCore& core) {
  // At the bound, waiting connections stay in the backlog; the next session to end resumes us.
  if (core.stopping || core.limits->pauseIfFull()) return;
  core.acceptor.async_accept(
      asio::make_strand(core.ioc), [&core](beast::error_code ec, tcp::socket socket) {
        if (ec == asio::error::operation_aborted) return;
        if (!ec) {
          admit(core, std::move(socket));
          return acceptLoop(core);
        }
        if (!outOfDescriptors(ec)) return acceptLoop(core);
        // Retrying at once would spin: the pending connection stays pending until a descriptor
        // is freed.
        core.acceptRetry.expires_after(kAcceptBackoff);
        core.acceptRetry.async_wait([&core](beast::error_code timerError) {
          if (!timerError) acceptLoop(core);
        });
      });
}

namespace {

void scheduleTimer(ServerCore& core, asio::steady_timer& timer, std::chrono::milliseconds period,
                   std::function<void()> task) {
  timer.expires_after(period);
  timer.async_wait([&core, &timer, period, task = std::move(task)](beast::error_code ec) mutable {
    if (ec) return;
    asio::post(core.timerThread, task);
    scheduleTimer(core, timer, period, std::move(task));
  });
}

}  // namespace

Server::Server(Router router, ServerOptions options)
    : core_(std::make_unique<ServerCore>(std::move(router), std::move(options))) {}

Server::~Server() {
  core_->stopping = true;
  stop();
  core_->joinPools();
}

namespace {

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

bool Server::listen(std::string& error) {
  // A client that closes mid-answer must cost its connection, never the process: sendfile(2)
  // raises SIGPIPE on a closed socket (socket writes use MSG_NOSIGNAL).
  std::signal(SIGPIPE, SIG_IGN);
  core_->limits = std::make_unique<ConnectionLimits>(connectionBound(core_->options),
                                                     core_->options.connectionsPerClient,
                                                     !core_->options.limitLoopback);
  beast::error_code ec;
  auto address = asio::ip::make_address(core_->options.address, ec);
  if (ec) {
    error = "invalid bind address '" + core_->options.address + "'";
    return false;
  }
  tcp::endpoint endpoint(address, core_->options.port);
  auto& acceptor = core_->acceptor;
  acceptor.open(endpoint.protocol(), ec);
  if (!ec) acceptor.set_option(asio::socket_base::reuse_address(true), ec);
  if (!ec) acceptor.bind(endpoint, ec);
  if (!ec) acceptor.listen(asio::socket_base::max_listen_connections, ec);
  if (ec) {
    error = "cannot listen on " + core_->options.address + ":" +
            std::to_string(core_->options.port) + ": " + ec.message();
    return false;
  }
  acceptLoop(*core_);
  return true;
}

std::uint16_t Server::port() const {
  beast::error_code ec;
  auto endpoint = core_->acceptor.local_endpoint(ec);
  return ec ? 0 : endpoint.port();
}

void Server::every(std::chrono::milliseconds period, std::function<void()> task) {
  core_->timers.push_back(std::make_unique<asio::steady_timer>(core_->ioc));
  scheduleTimer(*core_, *core_->timers.back(), period, std::move(task));
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

}  // namespace quill::http
