#pragma once
// What a handler answers: a status, a content type and either an in-memory body or a file that
// the server streams from disk without reading it whole.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/unique_fd.h"

namespace quill::http {

inline constexpr const char* kJsonType = "application/json; charset=utf-8";
inline constexpr const char* kHtmlType = "text/html; charset=utf-8";
inline constexpr const char* kTextType = "text/plain; charset=utf-8";

// An open file descriptor, closed with its last owner.
class OpenFile {
 public:
  explicit OpenFile(int fd) : fd_(fd) {}
  int fd() const { return fd_.get(); }

 private:
  base::UniqueFd fd_;
};

struct Response {
  unsigned status = 200;
  std::string contentType;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  // extra header fields
  std::filesystem::path file;  // when set, the body is this file, streamed from disk
  std::shared_ptr<const OpenFile> openedFile;  // or this file, opened by the handler
  // The part of the file to send: from `fileOffset`, `fileLength` bytes (to its end when unset).
  std::uint64_t fileOffset = 0;
  std::optional<std::uint64_t> fileLength;
  bool close = false;          // close the connection after answering

  static Response json(std::string serialized, unsigned status = 200);
  static Response html(std::string page);
  static Response text(std::string content);
  static Response redirect(std::string location, unsigned status = 302);
  // Streams `path`; the server answers 404 if it cannot be opened when the answer is sent.
  static Response fromFile(std::filesystem::path path,
                           std::string contentType = "application/octet-stream");
  // Streams the file open at `fd` (taking ownership), for a handler that opened it with care of
  // its own (not through links, say); the server answers 404 unless it is a regular file.
  static Response fromOpenFile(int fd, std::string contentType = "application/octet-stream");

  Response& withHeader(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
  }
};

}  // namespace quill::http
