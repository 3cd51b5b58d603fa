#pragma once
// One HTTP request as handlers see it. The server fills the head (method, target, path, query,
// headers, peer) before the body is read; the body arrives either in `body` or, for routes that
// stream their body to disk, as the file `bodyFile`.

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quill::http {

// Header fields in arrival order; names compare case-insensitively.
class Headers {
 public:
  void add(std::string name, std::string value);
  // The first field called `name`, or nullopt.
  std::optional<std::string_view> find(std::string_view name) const;
  // The first field called `name`, or "" when absent.
  std::string_view get(std::string_view name) const { return find(name).value_or(""); }
  const std::vector<std::pair<std::string, std::string>>& all() const { return fields_; }

 private:
  std::vector<std::pair<std::string, std::string>> fields_;
};

// Whether a peer address is loopback ("::1", "127.*", "::ffff:127.*"): on this machine, such as a
// reverse proxy whose forwarded headers are believed.
bool isLoopbackAddress(std::string_view address);

struct Request {
  std::string method;  // as sent, e.g. "GET"
  std::string target;  // the request target as sent, e.g. "/api/builds/b1/files?path=a%20b"
  std::string path;    // percent-decoded path, without the query
  std::map<std::string, std::string, std::less<>> query;  // percent-decoded; first occurrence wins
  Headers headers;
  std::string peer;                            // the peer's IP address as text
  unsigned version = 11;                       // HTTP/1.1 as 11, HTTP/1.0 as 10
  std::optional<std::uint64_t> contentLength;  // nullopt when absent (or chunked)
  bool hasBody = false;                        // a body was announced (length > 0 or chunked)
  std::vector<std::string> segments;  // the `{segment}` captures of the matched route, in order
  bool headOnly = false;              // a HEAD request, served by its GET route without body

  std::string body;                // the body, when read into memory
  std::filesystem::path bodyFile;  // the body, when the route streams it to a file
  // The route streams its body to a file, and it could not be stored (the disk is full, say):
  // `bodyFile` is empty, and the connection closes after the answer.
  bool bodyLost = false;
  // The caller's name once the application has found who is calling, for the access log; "" for
  // an anonymous request. Set while the request is judged, read after it is answered.
  mutable std::string caller;

  std::string_view header(std::string_view name) const { return headers.get(name); }
  // The decoded query parameter `name`, or nullopt when absent.
  std::optional<std::string_view> param(std::string_view name) const;
  // The first captured segment (most routes have exactly one).
  const std::string& segment() const;
};

}  // namespace quill::http
