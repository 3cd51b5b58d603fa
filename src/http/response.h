#pragma once
// What a handler answers: a status, a content type and either an in-memory body or a file that
// the server streams from disk without reading it whole.

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace quill::http {

inline constexpr const char* kJsonType = "application/json; charset=utf-8";
inline constexpr const char* kHtmlType = "text/html; charset=utf-8";
inline constexpr const char* kTextType = "text/plain; charset=utf-8";

struct Response {
  unsigned status = 200;
  std::string contentType;
  std::string body;
  std::vector<std::pair<std::string, std::string>> headers;  // extra header fields
  std::filesystem::path file;  // when set, the body is this file, streamed from disk
  bool close = false;          // close the connection after answering

  static Response json(std::string serialized, unsigned status = 200);
  static Response html(std::string page);
  static Response text(std::string content);
  static Response redirect(std::string location, unsigned status = 302);
  // Streams `path`; the server answers 404 if it cannot be opened when the answer is sent.
  static Response fromFile(std::filesystem::path path,
                           std::string contentType = "application/octet-stream");

  Response& withHeader(std::string name, std::string value) {
    headers.emplace_back(std::move(name), std::move(value));
    return *this;
  }
};

}  // namespace quill::http
