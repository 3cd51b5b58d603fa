// One client connection: reading heads and bodies, handing requests to the worker pools, and
// writing the answers.

#include <unistd.h>

#include <array>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <optional>
#include <system_error>
#include <vector>

#include "http/file_sender.h"
#include "http/json.h"
#include "http/request_framing.h"
#include "http/server_core.h"
#include "http/url.h"

namespace quill::http {

namespace beast = boost::beast;

namespace {

constexpr std::size_t kDrainLimit = 1 << 20;
constexpr std::size_t kBodyReadSize = 64 * 1024;
constexpr std::chrono::seconds kDrainTime{2};

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
// or LF are dropped rather than sent, so no handler can split a response. A 304 carries no
// Content-Length: it would describe the representation, not this empty answer.
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
  if (r.status != 304) head += "Content-Length: " + std::to_string(contentLength) + "\r\n";
  if (version == 10 && keepAlive) head += "Connection: keep-alive\r\n";
  if (version != 10 && !keepAlive) head += "Connection: close\r\n";
  head += "\r\n";
  return head;
}

}  // namespace

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
    {
      std::lock_guard lock(core_.sessionsMutex);
      core_.sessions.erase(this);
    }
    connectionEnded(core_, peer_);
  }

  void start() {
    {
      std::lock_guard lock(core_.sessionsMutex);
      core_.sessions.emplace(this, weak_from_this());
    }
    beast::error_code ec;
    stream_.socket().set_option(tcp::no_delay(true), ec);
    asio::dispatch(stream_.get_executor(), [self = shared_from_this()] { self->readHead(); });
  }

  // Closes the connection if it waits for its next request (on its strand).
  void closeIfIdle() {
    asio::dispatch(stream_.get_executor(), [self = shared_from_this()] {
      if (self->awaitingHead_) self->closeNow();
    });
  }

 private:
  // --- I/O strand -------------------------------------------------------------------------

  void readHead() {
    if (core_.draining) return closeGracefully();
    req_ = Request{};
    head_.emplace();
    limitHead(*head_, core_.options);
    stringParser_.reset();
    fileParser_.reset();
    discardParser_.reset();
    route_ = nullptr;
    awaitingHead_ = true;
    stream_.expires_after(core_.options.headerTimeout);
    bhttp::async_read_header(
        stream_, buffer_, *head_,
        [self = shared_from_this()](beast::error_code ec, std::size_t) { self->onHead(ec); });
  }

  void onHead(beast::error_code ec) {
    awaitingHead_ = false;
    started_ = std::chrono::steady_clock::now();
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
    req_.version = version_;
    for (const auto& field : msg) {
      req_.headers.add(std::string(field.name_string()), std::string(field.value()));
    }
    if (auto length = head_->content_length()) req_.contentLength = *length;
    req_.hasBody = !head_->is_done();

    if (!splitTarget(req_.target, req_.path, req_.query)) {
      return answerAndClose(400, "malformed request target");
    }
    asio::post(core_.workers,
               [self = shared_from_this()] { self->guarded([&] { self->judge(); }); });
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
    const bool keepAlive = keepAlive_ && !close && !r.close && !core_.draining;
    if (r.openedFile || !r.file.empty()) {
      if (auto slice = openFileSlice(r)) return writeFileHead(r, std::move(*slice), keepAlive);
      r = errorResponse(404, "not found");
    }
    auto out = std::make_shared<std::pair<std::string, std::string>>(
        formatHead(r, version_, r.body.size(), keepAlive), std::move(r.body));
    if (req_.headOnly || r.status == 304) out->second.clear();
    std::array<asio::const_buffer, 2> buffers{asio::buffer(out->first), asio::buffer(out->second)};
    asio::async_write(stream_, buffers,
                      [self = shared_from_this(), out, keepAlive, status = r.status](
                          beast::error_code ec, std::size_t n) {
                        const std::size_t head = out->first.size();
                        self->answered(status, n > head ? n - head : 0);
                        if (ec || !keepAlive) return self->closeGracefully();
                        self->readHead();
                      });
  }

  // --- file responses: the head, then the bytes with sendfile(2) --------------------------------

  void writeFileHead(const Response& r, FileSlice slice, bool keepAlive) {
    auto head = std::make_shared<std::string>(formatHead(r, version_, slice.length(), keepAlive));
    auto file = req_.headOnly ? nullptr : std::make_shared<FileSlice>(std::move(slice));
    asio::async_write(stream_, asio::buffer(*head),
                      [self = shared_from_this(), head, file, keepAlive, status = r.status](
                          beast::error_code ec, std::size_t) mutable {
                        if (ec) {
                          self->answered(status, 0);
                          return self->closeNow();
                        }
                        if (!file) {
                          self->answered(status, 0);
                          if (!keepAlive) return self->closeGracefully();
                          return self->readHead();
                        }
                        self->sendFileBody(std::move(file), status, keepAlive);
                      });
  }

  void sendFileBody(std::shared_ptr<FileSlice> file, unsigned status, bool keepAlive) {
    auto done = [self = shared_from_this(), file, status, keepAlive](bool ok) {
      self->answered(status, file->sent);
      if (!ok) return self->closeNow();
      if (!keepAlive) return self->closeGracefully();
      self->readHead();
    };
    sendFileSlice(stream_.socket(), idleTimer_, core_.options.bodyIdleTimeout, file,
                  std::move(done));
  }

  // Tells the server's `answered` hook about the request just answered.
  void answered(unsigned status, std::uint64_t bodyBytes) {
    if (!core_.options.answered) return;
    core_.options.answered(
        Exchange{req_, status, bodyBytes, std::chrono::steady_clock::now() - started_});
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
  bool awaitingHead_ = false;  // waiting for the next request: a drain may close it
  std::chrono::steady_clock::time_point started_;
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
};

void startSession(ServerCore& core, tcp::socket socket, std::string peer) {
  std::make_shared<Session>(std::move(socket), core, std::move(peer))->start();
}

void closeIdleSessions(ServerCore& core) {
  std::vector<std::shared_ptr<Session>> open;
  {
    std::lock_guard lock(core.sessionsMutex);
    for (auto& [key, weak] : core.sessions) {
      if (auto session = weak.lock()) open.push_back(std::move(session));
    }
  }
  for (auto& session : open) session->closeIfIdle();
}

}  // namespace quill::http
