#pragma once
// File answers: the file a response names (or the one its handler opened), the slice of it to
// send, and the sending itself with sendfile(2), straight from the page cache. Internal to the
// HTTP layer.

#include <sys/types.h>

#include <boost/asio.hpp>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "http/response.h"

namespace quill::http {

struct FileSlice {
  std::shared_ptr<const OpenFile> file;
  off_t offset = 0;        // the next byte to send
  std::uint64_t end = 0;   // one past the last byte to send
  std::uint64_t sent = 0;  // bytes sent so far
  std::uint64_t length() const { return end - static_cast<std::uint64_t>(offset) + sent; }
};

// The slice of `r`'s file to send: the file opened by the handler or opened here from `r.file`,
// limited to `r.fileOffset` and `r.fileLength` (and to the file's size). Nullopt unless it is a
// regular file.
std::optional<FileSlice> openFileSlice(const Response& r);

// Sends the rest of `slice` on `socket`, waiting for the socket to drain when it is full and
// giving up on a client that reads nothing for `idleLimit` (`idleTimer` keeps that time).
// `done(true)` once every byte is out; `done(false)` on an error, a stalled client or a file
// that shrank. Runs on the socket's executor.
void sendFileSlice(boost::asio::ip::tcp::socket& socket, boost::asio::steady_timer& idleTimer,
                   std::chrono::seconds idleLimit, std::shared_ptr<FileSlice> slice,
                   std::function<void(bool)> done);

}  // namespace quill::http
