#include "http/server.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <cerrno>
#include <optional>
#include <system_error>
#include <thread>
#include <vector>

#include "http/json.h"
#include "http/url.h"

namespace quill::http {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace bhttp = beast::http;
using tcp = asio::ip::tcp;

// Everything a connection needs. Destroyed after the I/O threads have stopped; its members go in
// reverse order, so the worker pool (whose pending tasks hold connections) is joined before the
// I/O context that those connections' sockets belong to.
struct ServerCore {
  ServerCore(Router r, ServerOptions o)
      : router(std::move(r)),
        options(std::move(o)),
        workers(options.workerThreads),
        acceptor(ioc) {}

  Router router;
  ServerOptions options;
  asio::io_context ioc;
  asio::thread_pool workers;          // checks and quick handlers
  asio::thread_pool blockingWorkers;  // handlers that wait on remote services, timer tasks
  tcp::acceptor acceptor;
  std::vector<std::unique_ptr<asio::steady_timer>> timers;
};

namespace {

constexpr std::size_t kDrainLimit = 1 << 20;
constexpr std::size_t kBodyReadSize = 64 * 1024;
constexpr std::chrono::seconds kDrainTime{2};

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
  Session(tcp::socket socket, ServerCore& core)
      : stream_(std::move(socket)), core_(core), idleTimer_(stream_.get_executor()) {}

  ~Session() {
    discardBodyFile();
    closeFile();
  }

  void start() {
    beast::error_code ec;
    stream_.socket().set_option(tcp::no_delay(true), ec);
    auto endpoint = stream_.socket().remote_endpoint(ec);
    if (!ec) peer_ = endpoint.address().to_string();
    asio::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->readHead(); });
  }

 private:
  // --- I/O strand -------------------------------------------------------------------------

  void readHead() {
    req_ = Request{};
    head_.emplace();
    head_->header_limit(static_cast<std::uint32_t>(core_.options.headerLimit));
    head_->body_limit(core_.options.bodyLimit);
    stringParser_.reset();
    fileParser_.reset();
    route_ = nullptr;
    stream_.expires_after(core_.options.headerTimeout);
    bhttp::async_read_header(
        stream_, buffer_, *head_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onHead(ec); });
  }

  void onHead(beast::error_code ec) {
    if (ec == bhttp::error::body_limit) return answerAndClose(413, "request body too large");
    if (ec == bhttp::error::header_limit) return answerAndClose(431, "request header too large");
    if (ec == bhttp::error::end_of_stream || ec == beast::error::timeout ||
        ec == asio::error::operation_aborted || ec == asio::error::connection_reset ||
        ec == asio::error::eof) {
      return closeNow();
    }
    if (ec) return answerAndClose(400, "malformed request");
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

    std::string_view target = req_.target;
    std::size_t q = target.find('?');
    auto path = percentDecode(target.substr(0, q), false);
    auto query = parseQuery(q == std::string_view::npos ? "" : target.substr(q + 1));
    if (target.empty() || target.front() != '/' || !path || !query) {
      return answerAndClose(400, "malformed request target");
    }
    req_.path = std::move(*path);
    req_.query = std::move(*query);
    asio::post(core_.workers, [self = shared_from_this()] { self->judge(); });
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
    } else {
      bhttp::async_read_some(stream_, buffer_, *stringParser_, std::move(onRead));
    }
  }

  void onBodyRead(beast::error_code ec) {
    if (ec == bhttp::error::body_limit) {
      discardBodyFile();
      return answerAndClose(413, "request body too large");
    }
    if (ec) {
      // The client went away or stalled: nothing of a partial body is kept.
      discardBodyFile();
      return closeNow();
    }
    bool done = fileParser_ ? fileParser_->is_done() : stringParser_->is_done();
    if (!done) return readSomeBody();
    stream_.expires_never();
    if (fileParser_) {
      fileParser_->get().body().close();
      req_.bodyFile = bodyFile_;
    } else {
      req_.body = stringParser_->release().body();
    }
    asio::post(core_.workers, [self = shared_from_this()] { self->handle(); });
  }

  void write(Response r, bool close) {
    bool keepAlive = keepAlive_ && !close && !r.close;
    if (!r.file.empty()) {
      if (openFile(r.file)) return writeFileHead(r, keepAlive);
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

  bool openFile(const std::filesystem::path& path) {
    closeFile();
    fileFd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st {};
    if (fileFd_ < 0 || ::fstat(fileFd_, &st) != 0 || !S_ISREG(st.st_mode)) {
      closeFile();
      return false;
    }
    fileOffset_ = 0;
    fileSize_ = static_cast<std::uint64_t>(st.st_size);
    return true;
  }

  void closeFile() {
    if (fileFd_ >= 0) ::close(fileFd_);
    fileFd_ = -1;
  }

  void writeFileHead(const Response& r, bool keepAlive) {
    auto head = std::make_shared<std::string>(formatHead(r, version_, fileSize_, keepAlive));
    if (req_.headOnly) closeFile();
    asio::async_write(
        stream_, asio::buffer(*head),
        [self = shared_from_this(), head, keepAlive](beast::error_code ec, std::size_t) {
          if (ec) return self->closeFileAndConnection();
          if (self->fileFd_ < 0) {
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
      ssize_t sent = ::sendfile(socket.native_handle(), fileFd_, &fileOffset_, chunk);
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

  void judge() {
    const Route* route = nullptr;
    if (auto early = core_.router.judgeHead(req_, route)) {
      return respond(std::move(*early), req_.hasBody);
    }
    route_ = route;
    if (!req_.hasBody) return handle();
    if (route_->bodyFile) {
      if (!openBodyFile()) return respond(errorResponse(500, "could not store request body"), true);
    } else {
      stringParser_.emplace(std::move(*head_));
      stringParser_->body_limit(core_.options.bodyLimit);
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
    if (route_->blocking && !onBlockingPool_) {
      onBlockingPool_ = true;
      asio::post(core_.blockingWorkers, [self = shared_from_this()] { self->handle(); });
      return;
    }
    onBlockingPool_ = false;
    Response response = core_.router.invoke(*route_, req_);
    discardBodyFile();
    respond(std::move(response), false);
  }

  void respond(Response response, bool close) {
    asio::post(stream_.get_executor(), [self = shared_from_this(), r = std::move(response),
                                        close]() mutable { self->write(std::move(r), close); });
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
  std::optional<bhttp::request_parser<bhttp::empty_body>> head_;
  std::optional<bhttp::request_parser<bhttp::string_body>> stringParser_;
  std::optional<bhttp::request_parser<bhttp::file_body>> fileParser_;
  std::filesystem::path bodyFile_;
  Request req_;
  const Route* route_ = nullptr;
  std::vector<char> drainBuffer_;
  std::size_t drained_ = 0;
  asio::steady_timer idleTimer_;
  bool onBlockingPool_ = false;
  int fileFd_ = -1;
  off_t fileOffset_ = 0;
  std::uint64_t fileSize_ = 0;
};

void acceptLoop(ServerCore& core) {
  core.acceptor.async_accept(asio::make_strand(core.ioc),
                             [&core](beast::error_code ec, tcp::socket socket) {
                               if (ec == asio::error::operation_aborted) return;
                               if (!ec) std::make_shared<Session>(std::move(socket), core)->start();
                               acceptLoop(core);
                             });
}

void scheduleTimer(ServerCore& core, asio::steady_timer& timer, std::chrono::milliseconds period,
                   std::function<void()> task) {
  timer.expires_after(period);
  timer.async_wait([&core, &timer, period, task = std::move(task)](beast::error_code ec) mutable {
    if (ec) return;
    asio::post(core.blockingWorkers, task);
    scheduleTimer(core, timer, period, std::move(task));
  });
}

}  // namespace

Server::Server(Router router, ServerOptions options)
    : core_(std::make_unique<ServerCore>(std::move(router), std::move(options))) {}

Server::~Server() {
  stop();
  core_->workers.join();
  core_->blockingWorkers.join();
}

bool Server::listen(std::string& error) {
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
  for (unsigned i = 1; i < core_->options.ioThreads; ++i) {
    extra.emplace_back([this] { core_->ioc.run(); });
  }
  core_->ioc.run();
  for (auto& t : extra) t.join();
}

void Server::stop() { core_->ioc.stop(); }

}  // namespace quill::http
