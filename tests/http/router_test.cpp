// Reading a request from bytes (the verdicts the fuzz target relies on), dispatching it by the
// route table, and the URL and JSON helpers.

#include "http/router.h"

#include <gtest/gtest.h>

#include <map>
#include <stdexcept>
#include <tuple>

#include "base/percent_encoding.h"
#include "http/json.h"
#include "http/request_reading.h"
#include "http/url.h"

namespace quill::http {
namespace {

// "METHOD /pattern": a route that answers with its method, the path and the captures.
Route echo(std::string line) {
  Route r;
  r.method = line.substr(0, line.find(' '));
  r.pattern = line.substr(line.find(' ') + 1);
  r.handler = [method = r.method](const Request& req) {
    std::string text = method + " " + req.path + (req.headOnly ? " head" : "");
    for (const auto& s : req.segments) text += " [" + s + "]";
    return Response::text(text);
  };
  return r;
}

TEST(RouterTest, DispatchesByPathThenMethodAndContainsFailures) {
  Router router;
  for (const char* line :
       {"GET /", "GET /api/channels", "POST /api/channels/{channel}", "GET /api/channels/{channel}",
        "POST /api/channels/{channel}/promote", "DELETE /api/invites/{id}",
        "POST /api/invites/redeem", "GET /boom", "GET /check", "GET /hook"}) {
    Route r = echo(line);
    if (r.pattern == "/boom") r.handler = [](const Request&) -> Response { throw 42; };
    if (r.pattern == "/check")
      r.headCheck = [](const Request&) -> std::optional<Response> {
        throw std::runtime_error("bug");
      };
    router.add(r);
  }
  int calls = 0;  // the hook sees routed requests only
  router.setPreHandling([&](const Request& req) -> std::optional<Response> {
    ++calls;
    if (req.path == "/hook") throw std::logic_error("bug");
    if (req.path.ends_with("/refused")) return errorResponse(401, "missing or invalid token");
    return std::nullopt;
  });
  const std::string notFound = R"({"error":"not found"})";
  const std::string notAllowed = R"({"error":"method not allowed"})";
  const std::string failed = R"({"error":"internal server error"})";
  const struct {
    const char *method, *path;
    unsigned status;
    std::string body;
    const char* allow = nullptr;
  } rows[] = {
      {"GET", "/", 200, "GET /"},
      {"GET", "/api/channels/beta", 200, "GET /api/channels/beta [beta]"},
      {"HEAD", "/api/channels", 200, "GET /api/channels head"},
      {"POST", "/api/channels/beta/promote", 200, "POST /api/channels/beta/promote [beta]"},
      // A literal segment beats a capture, for the methods it has.
      {"POST", "/api/invites/redeem", 200, "POST /api/invites/redeem"},
      {"DELETE", "/api/invites/redeem", 200, "DELETE /api/invites/redeem [redeem]"},
      {"GET", "/api/invites/redeem", 405, notAllowed, "DELETE, POST, OPTIONS"},
      {"PUT", "/api/channels/beta", 405, notAllowed, "POST, GET, HEAD, OPTIONS"},
      {"OPTIONS", "/api/channels", 200, "", "GET, HEAD, OPTIONS"},
      {"GET", "/api/channels/refused", 401, R"({"error":"missing or invalid token"})"},
      {"GET", "/api/channels/a/b", 404, notFound},
      {"GET", "/api/channels/", 404, notFound},
      {"GET", "//", 404, notFound},
      {"GET", "", 404, notFound},
      {"GET", "/api/channels/beta/promote/x", 404, notFound},
      {"GET", "/api", 404, notFound},
      {"OPTIONS", "/unknown", 404, notFound},
      {"GET", "/boom", 500, failed},
      {"GET", "/check", 500, failed},
      {"GET", "/hook", 500, failed},
  };
  int routed = 0;
  for (const auto& row : rows) {
    Request req;
    req.method = row.method;
    req.path = row.path;
    const Response r = router.dispatch(req);
    EXPECT_EQ(r.status, row.status) << row.method << " " << row.path;
    EXPECT_EQ(r.body, row.body) << row.method << " " << row.path;
    using Headers = std::vector<std::pair<std::string, std::string>>;
    EXPECT_EQ(r.headers, (row.allow ? Headers{{"Allow", row.allow}} : Headers{})) << row.path;
    EXPECT_EQ(r.contentType, row.status < 400 ? r.contentType : kJsonType) << row.path;
    routed += row.status != 404 && row.status != 405 && std::string(row.method) != "OPTIONS";
  }
  EXPECT_EQ(calls, routed);
}

TEST(Url, PercentDecodingAndQueries) {
  for (const auto& [text, plus, decoded] : std::vector<std::tuple<std::string, bool, std::string>>{
           {"a%20b%2Fc", false, "a b/c"},
           {"a+b", false, "a+b"},
           {"a+b", true, "a b"},
           {"%C3%A9t%c3%a9", false, "\xC3\xA9t\xC3\xA9"}}) {
    EXPECT_EQ(base::percentDecode(text, plus), decoded) << text;
  }
  for (const char* bad : {"%", "%4", "ab%zz"}) EXPECT_FALSE(base::percentDecode(bad, false)) << bad;
  EXPECT_EQ(
      *parseQuery("path=Game%20Data%2F%C3%A9t%C3%A9.pak&flag&x=1&x=2&&empty="),
      (std::map<std::string, std::string, std::less<>>{
          {"path", "Game Data/\xC3\xA9t\xC3\xA9.pak"}, {"flag", ""}, {"x", "1"}, {"empty", ""}}));
  EXPECT_FALSE(parseQuery("a=%G1"));
  EXPECT_TRUE(parseQuery("")->empty());
  Json::Value v(Json::objectValue);  // compact, members sorted, UTF-8 as it is
  v["zeta"] = 1;
  v["alpha"] = "\xC3\xA9";
  v["mid"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(toCompactJson(v), "{\"alpha\":\"\xC3\xA9\",\"mid\":[],\"zeta\":1}");
}

TEST(RequestReading, RefusesWhatTheServerRefusesAndKeepsBodiesWithinTheirLimit) {
  ServerOptions o;
  o.headerLimit = 200;
  o.bodyLimit = 100;
  const std::string head = "POST /a%20b?x=1 HTTP/1.1\r\nHost: x\r\n", te = "Transfer-Encoding: ";
  const struct {
    std::string bytes;
    std::uint64_t bodyLimit;  // 0: a route that drops bodies
    unsigned refusal;
    bool incomplete;
    std::string body;
  } cases[] = {
      {head + "Content-Length: 3\r\n\r\nabc", 10, 0, false, "abc"},
      {head + te + "chunked\r\n\r\n3;x=y\r\nabc\r\n1\r\nd\r\n0\r\n\r\n", 10, 0, false, "abcd"},
      {head + "Content-Length: 3\r\n\r\nabc", 0, 0, false, ""},
      {head + "Content-Length: 3\r\n\r\nab", 10, 0, true, ""},
      {head + "Host: y", 10, 0, true, ""},
      {head + "Content-Length: 11\r\n\r\n", 10, 413, false, ""},
      {head + "Content-Length: 101\r\n\r\n", 0, 413, false, ""},
      {head + te + "chunked\r\n\r\nb\r\n", 10, 413, false, ""},
      {head + "X: " + std::string(200, 'x') + "\r\n\r\n", 10, 431, false, ""},
      {head + te + "chunked\r\nContent-Length: 3\r\n\r\n", 10, 400, false, ""},
      {head + te + "@, chunked\r\nContent-Length: 3\r\n\r\nabc", 10, 400, false, ""},
      {head + te + "chunked\r\n\r\nzz\r\n", 10, 400, false, ""},
      {head + te + "chunked\r\n\r\nfffffffffffffffffff\r\n", 0, 400, false, ""},
      {head + te + "identity\r\n\r\n", 10, 400, false, ""},
      {head + te + "chunked, gzip\r\n\r\n", 10, 400, false, ""},
      {head + te + "chunked\r\n" + te + "gzip\r\n\r\n", 10, 400, false, ""},
      {head + "Content-Length: 1x\r\n\r\n", 10, 400, false, ""},
      {"NOT HTTP\r\n\r\n", 0, 400, false, ""},
      {"GET /%zz HTTP/1.1\r\n\r\n", 0, 400, false, ""},
      {"GET nothing HTTP/1.1\r\n\r\n", 0, 400, false, ""},
  };
  for (const auto& c : cases) {
    const ReadRequest read = readRequest(c.bytes, o, c.bodyLimit);
    EXPECT_EQ(std::tie(read.refusal, read.incomplete, read.body),
              std::tie(c.refusal, c.incomplete, c.body))
        << c.bytes;
    EXPECT_EQ(read.path, read.refusal == 0 && !read.incomplete ? "/a b" : read.path);
  }
}

}  // namespace
}  // namespace quill::http
