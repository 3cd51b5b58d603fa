#pragma once
// The route table and the checks a request passes on its head, before any body is read.
//
// A pattern is a path whose segments are literals or one-segment captures written `{name}`
// ("/api/builds/{id}/files"). A request is answered at once, without reaching a handler, when no
// pattern matches its path (404), when patterns match but none for its method (405 with `Allow`),
// for OPTIONS (200 with `Allow`), when the pre-handling hook refuses it, or when the route's own
// head check refuses it. HEAD is served by the GET route with the body left off.
//
// Thread safety: after set-up (add, setPreHandling) a Router is only read, from any thread.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "http/request.h"
#include "http/response.h"

namespace quill::http {

using Handler = std::function<Response(const Request&)>;
// Judges a request on its head alone; a response refuses it, nullopt lets it through.
using HeadCheck = std::function<std::optional<Response>(const Request&)>;
// Names the file a route's body is streamed into (a temporary file the handler renames into
// place). The server removes the file if the body does not arrive whole or the handler leaves it.
using BodyFileFor = std::function<std::filesystem::path(const Request&)>;

struct Route {
  std::string method;
  std::string pattern;
  Handler handler;
  HeadCheck headCheck;    // optional: the route's checks that need no body
  BodyFileFor bodyFile;   // optional: stream the body to disk instead of memory
  // The largest body read into `Request::body`; a longer one is refused with 413. 0: the route
  // takes no body in memory, and one that arrives anyway is read and dropped unstored.
  std::uint64_t bodyLimit = 0;
  // The remote service the handler waits on ("rill bucket", say), or empty for a handler that only
  // touches local files. Handlers that wait on one service run on a pool of that service's own,
  // so a service that stops answering holds up only the requests that need it.
  std::string waitsOn;
};

class Router {
 public:
  void add(Route route);
  const std::vector<Route>& routes() const { return routes_; }
  // The hook every routed request passes before its route's own checks (the request gate).
  void setPreHandling(HeadCheck hook) { preHandling_ = std::move(hook); }

  // Routes `req` and runs every check that needs no body. On success sets `route` and
  // `req.segments` and returns nullopt; otherwise returns the answer.
  std::optional<Response> judgeHead(Request& req, const Route*& route) const;
  // Runs the route's handler; an escaping exception answers 500 and is otherwise contained.
  Response invoke(const Route& route, const Request& req) const;
  // Both stages with the body already in `req` (in-process use and tests).
  Response dispatch(Request& req) const;

 private:
  struct Compiled {
    std::vector<std::string> segments;  // "{...}" marks a capture
    std::size_t captures = 0;
  };
  bool matches(const Compiled& c, const std::vector<std::string_view>& parts,
               std::vector<std::string>* captured) const;

  std::vector<Route> routes_;
  std::vector<Compiled> compiled_;
  HeadCheck preHandling_;
};

}  // namespace quill::http
