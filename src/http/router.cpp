#include "http/router.h"

#include "http/json.h"

namespace quill::http {

namespace {

bool isCapture(const std::string& segment) {
  return segment.size() >= 2 && segment.front() == '{' && segment.back() == '}';
}

// "/a/b" -> {"a", "b"}; "/" -> {}; "/a/" -> {"a", ""} (so a trailing slash matches nothing).
std::vector<std::string_view> splitPath(std::string_view path) {
  std::vector<std::string_view> parts;
  if (path.empty() || path.front() != '/') return {std::string_view()};
  if (path.size() == 1) return parts;
  std::size_t start = 1;
  while (true) {
    std::size_t slash = path.find('/', start);
    parts.push_back(path.substr(start, slash - start));
    if (slash == std::string_view::npos) break;
    start = slash + 1;
  }
  return parts;
}

std::string allowHeader(const std::vector<std::string>& methods) {
  std::string allow;
  for (const auto& m : methods) {
    allow += m;
    allow += ", ";
    if (m == "GET") allow += "HEAD, ";
  }
  return allow + "OPTIONS";
}

// Runs one stage of request handling; an escaping exception becomes a 500 answer, so a bug in one
// request never takes the server down.
template <typename Fn>
auto guarded(Fn&& fn) -> decltype(fn()) {
  try {
    return fn();
  } catch (...) {
    return errorResponse(500, "internal server error");
  }
}

}  // namespace

void Router::add(Route route) {
  Compiled c;
  for (auto part : splitPath(route.pattern)) {
    c.segments.emplace_back(part);
    if (isCapture(c.segments.back())) ++c.captures;
  }
  routes_.push_back(std::move(route));
  compiled_.push_back(std::move(c));
}

bool Router::matches(const Compiled& c, const std::vector<std::string_view>& parts,
                     std::vector<std::string>* captured) const {
  if (c.segments.size() != parts.size()) return false;
  for (std::size_t i = 0; i < parts.size(); ++i) {
    if (isCapture(c.segments[i])) {
      if (parts[i].empty()) return false;
      if (captured) captured->emplace_back(parts[i]);
    } else if (c.segments[i] != parts[i]) {
      return false;
    }
  }
  return true;
}

std::optional<Response> Router::judgeHead(Request& req, const Route*& route) const {
  route = nullptr;
  if (req.method == "HEAD") {
    req.method = "GET";
    req.headOnly = true;
  }
  auto parts = splitPath(req.path);
  bool pathKnown = false;
  std::size_t best = routes_.size();
  for (std::size_t i = 0; i < routes_.size(); ++i) {
    if (!matches(compiled_[i], parts, nullptr)) continue;
    pathKnown = true;
    if (routes_[i].method != req.method) continue;
    // A literal segment beats a capture: POST /api/invites/redeem is not an invite id.
    if (best == routes_.size() || compiled_[i].captures < compiled_[best].captures) best = i;
  }
  if (!pathKnown) return errorResponse(404, "not found");
  if (req.method == "OPTIONS" || best == routes_.size()) {
    std::vector<std::string> methods;
    for (std::size_t i = 0; i < routes_.size(); ++i) {
      if (matches(compiled_[i], parts, nullptr)) methods.push_back(routes_[i].method);
    }
    if (req.method == "OPTIONS") return Response().withHeader("Allow", allowHeader(methods));
    return errorResponse(405, "method not allowed").withHeader("Allow", allowHeader(methods));
  }
  req.segments.clear();
  matches(compiled_[best], parts, &req.segments);
  if (preHandling_) {
    if (auto refusal = guarded([&] { return preHandling_(req); })) return refusal;
  }
  const Route& found = routes_[best];
  if (found.headCheck) {
    if (auto refusal = guarded([&] { return found.headCheck(req); })) return refusal;
  }
  route = &found;
  return std::nullopt;
}

Response Router::invoke(const Route& route, const Request& req) const {
  return guarded([&] { return route.handler(req); });
}

Response Router::dispatch(Request& req) const {
  const Route* route = nullptr;
  if (auto early = judgeHead(req, route)) return std::move(*early);
  return invoke(*route, req);
}

}  // namespace quill::http
