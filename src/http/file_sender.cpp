#include "http/file_sender.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace quill::http {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;

std::optional<FileSlice> openFileSlice(const Response& r) {
  FileSlice slice;
  slice.file = r.openedFile;
  if (!slice.file) {
    slice.file = std::make_shared<const OpenFile>(::open(r.file.c_str(), O_RDONLY | O_CLOEXEC));
  }
  struct stat st {};
  if (slice.file->fd() < 0 || ::fstat(slice.file->fd(), &st) != 0 || !S_ISREG(st.st_mode)) {
    return std::nullopt;
  }
  const auto size = static_cast<std::uint64_t>(st.st_size);
  const std::uint64_t offset = std::min(r.fileOffset, size);
  slice.offset = static_cast<off_t>(offset);
  slice.end = r.fileLength ? offset + std::min(*r.fileLength, size - offset) : size;
  return slice;
}

void sendFileSlice(tcp::socket& socket, asio::steady_timer& idleTimer,
                   std::chrono::seconds idleLimit, std::shared_ptr<FileSlice> slice,
                   std::function<void(bool)> done) {
  boost::system::error_code ec;
  socket.native_non_blocking(true, ec);
  while (!ec && static_cast<std::uint64_t>(slice->offset) < slice->end) {
    const std::uint64_t left = slice->end - static_cast<std::uint64_t>(slice->offset);
    const auto chunk = static_cast<std::size_t>(std::min<std::uint64_t>(left, 1 << 30));
    ssize_t sent = ::sendfile(socket.native_handle(), slice->file->fd(), &slice->offset, chunk);
    if (sent > 0) {
      slice->sent += static_cast<std::uint64_t>(sent);
      continue;
    }
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
      idleTimer.expires_after(idleLimit);
      idleTimer.async_wait([&socket](boost::system::error_code timerError) {
        boost::system::error_code ignored;
        if (!timerError) socket.cancel(ignored);
      });
      socket.async_wait(tcp::socket::wait_write, [&socket, &idleTimer, idleLimit,
                                                  slice = std::move(slice), done = std::move(done)](
                                                     boost::system::error_code waitError) mutable {
        idleTimer.cancel();
        if (waitError) return done(false);
        sendFileSlice(socket, idleTimer, idleLimit, std::move(slice), std::move(done));
      });
      return;
    }
    return done(false);  // an error, or the file shrank under us
  }
  done(!ec);
}

}  // namespace quill::http
