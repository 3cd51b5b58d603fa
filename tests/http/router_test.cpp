// Reading a request from bytes (the verdicts the fuzz target relies on), dispatching it by the
// route table, and the URL and JSON helpers.

#include "http/request_reading.h"
#include "http/router.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <map>
#include <tuple>
#include <vector>

#include "base/percent_encoding.h"
#include "http/json.h"
#include "http/url.h"

namespace quill::http {
namespace {

Route echo(const char* method, const char* pattern) {
  Route r;
  r.method = method;
  r.pattern = pattern;
  r.handler = [method](const Request& req) {
    std::string text = std::string(method) + " " + req.path;
    for (const auto& s : req.segments) text += " [" + s + "]";
    return Response::text(text);
  };
  return r;
}

Response call(const Router& router, std::string method, std::string path) {
  Request req;
  req.method = std::move(method);
  req.path = std::move(path);
  return router.dispatch(req);
}

class RouterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    router.add(echo("GET", "/"));
    router.add(echo("GET", "/api/channels"));
    router.add(echo("POST", "/api/channels/{channel}"));
    router.add(echo("GET", "/api/channels/{channel}"));
    router.add(echo("POST", "/api/channels/{channel}/promote"));
    router.add(echo("DELETE", "/api/invites/{id}"));
    router.add(echo("POST", "/api/invites/redeem"));
  }
  Router router;
};

TEST_F(RouterTest, DispatchesByPathThenMethod) {
  const std::string notFound = R"({"error":"not found"})";
  const std::string notAllowed = R"({"error":"method not allowed"})";
  const std::tuple<const char*, const char*, unsigned, std::string> cases[] = {
      {"GET", "/", 200, "GET /"},
      {"GET", "/api/channels", 200, "GET /api/channels"},
      {"GET", "/api/channels/beta", 200, "GET /api/channels/beta [beta]"},
      {"POST", "/api/channels/beta/promote", 200, "POST /api/channels/beta/promote [beta]"},
      // A literal segment beats a capture, for the methods it has.
      {"POST", "/api/invites/redeem", 200, "POST /api/invites/redeem"},
      {"DELETE", "/api/invites/redeem", 200, "DELETE /api/invites/redeem [redeem]"},
      {"GET", "/api/invites/redeem", 405, notAllowed},
      {"GET", "/nope", 404, notFound},
      {"GET", "/api/channels/a/b", 404, notFound},
      {"GET", "/api/channels/", 404, notFound},
      {"GET", "//", 404, notFound},
      {"GET", "", 404, notFound},
      {"GET", "/api/channels/beta/promote/x", 404, notFound},
      {"GET", "/api", 404, notFound},
      {"OPTIONS", "/unknown", 404, notFound},
  };
  for (const auto& [method, path, status, body] : cases) {
    Response r = call(router, method, path);
    EXPECT_EQ(r.status, status) << method << " " << path;
    EXPECT_EQ(r.body, body) << method << " " << path;
  }
}

TEST_F(RouterTest, OtherMethodsAndOptionsAnswerAllow) {
  using Headers = std::vector<std::pair<std::string, std::string>>;
  Response r = call(router, "PUT", "/api/channels/beta");
  EXPECT_EQ(r.status, 405u);
  EXPECT_EQ(r.contentType, kJsonType);
  EXPECT_EQ(r.headers, (Headers{{"Allow", "POST, GET, HEAD, OPTIONS"}}));
  r = call(router, "OPTIONS", "/api/channels");
  EXPECT_EQ(r.status, 200u);
  EXPECT_EQ(r.headers, (Headers{{"Allow", "GET, HEAD, OPTIONS"}}));
  Request head;  // served by GET
  head.method = "HEAD";
  head.path = "/api/channels";
  EXPECT_EQ(router.dispatch(head).body, "GET /api/channels");
  EXPECT_TRUE(head.headOnly);
}

TEST_F(RouterTest, PreHandlingHookSeesRoutedRequestsOnly) {
  int calls = 0;
  router.setPreHandling([&](const Request& req) -> std::optional<Response> {
    ++calls;
    if (req.method == "POST") return errorResponse(401, "missing or invalid token");
    return std::nullopt;
  });
  EXPECT_EQ(call(router, "POST", "/api/channels/x").status, 401u);
  EXPECT_EQ(call(router, "GET", "/api/channels/x").status, 200u);
  EXPECT_EQ(call(router, "GET", "/unknown").status, 404u);
  EXPECT_EQ(call(router, "PATCH", "/api/channels/x").status, 405u);
  EXPECT_EQ(calls, 2);
}

TEST_F(RouterTest, ExceptionsAnswer500) {
  Router r;
  Route failing = echo("GET", "/boom");
  failing.handler = [](const Request&) -> Response { throw std::runtime_error("bug"); };
  r.add(failing);
  Route failingCheck = echo("GET", "/check");
  failingCheck.headCheck = [](const Request&) -> std::optional<Response> { throw 42; };
  r.add(failingCheck);
  r.setPreHandling([](const Request& req) -> std::optional<Response> {
    if (req.path == "/hook") throw std::logic_error("bug");
    return std::nullopt;
  });
  r.add(echo("GET", "/hook"));
  for (const char* path : {"/boom", "/check", "/hook"}) {
    Response res = call(r, "GET", path);
    EXPECT_EQ(res.status, 500u) << path;
    EXPECT_EQ(res.body, R"({"error":"internal server error"})");
  }
}

TEST(Url, PercentDecodingAndQueries) {
  for (const auto& [text, plus, decoded] : std::vector<std::tuple<std::string, bool, std::string>>{
           {"a%20b%2Fc", false, "a b/c"}, {"a+b", false, "a+b"}, {"a+b", true, "a b"},
           {"%C3%A9t%c3%a9", false, "\xC3\xA9t\xC3\xA9"}}) {
    EXPECT_EQ(base::percentDecode(text, plus), decoded) << text;
  }
  for (const char* bad : {"%", "%4", "ab%zz"}) EXPECT_FALSE(base::percentDecode(bad, false)) << bad;
  auto q = parseQuery("path=Game%20Data%2F%C3%A9t%C3%A9.pak&flag&x=1&x=2&&empty=");
  ASSERT_TRUE(q);
  EXPECT_EQ(*q, (std::map<std::string, std::string, std::less<>>{
                    {"path", "Game Data/\xC3\xA9t\xC3\xA9.pak"}, {"flag", ""}, {"x", "1"},
                    {"empty", ""}}));
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
  const std::string head = "POST /a%20b?x=1 HTTP/1.1\r\nHost: x\r\n";
  const struct {
    std::string bytes;
    std::uint64_t bodyLimit;
    unsigned refusal;
    bool incomplete;
    std::string body;
  } cases[] = {
      {head + "Content-Length: 3\r\n\r\nabc", 10, 0, false, "abc"},
      {head + "Transfer-Encoding: chunked\r\n\r\n3;x=y\r\nabc\r\n1\r\nd\r\n0\r\n\r\n", 10, 0, false,
       "abcd"},
      {head + "Content-Length: 3\r\n\r\nabc", 0, 0, false, ""},  // a route that drops bodies
      {head + "Content-Length: 3\r\n\r\nab", 10, 0, true, ""},
      {head + "Host: y", 10, 0, true, ""},
      {head + "Content-Length: 11\r\n\r\n", 10, 413, false, ""},
      {head + "Content-Length: 101\r\n\r\n", 0, 413, false, ""},
      {head + "Transfer-Encoding: chunked\r\n\r\nb\r\n", 10, 413, false, ""},
      {head + "X: " + std::string(200, 'x') + "\r\n\r\n", 10, 431, false, ""},
      {head + "Transfer-Encoding: chunked\r\nContent-Length: 3\r\n\r\n", 10, 400, false, ""},
      {head + "Transfer-Encoding: chunked\r\n\r\nzz\r\n", 10, 400, false, ""},
      {"GET /%zz HTTP/1.1\r\n\r\n", 0, 400, false, ""},
      {"GET nothing HTTP/1.1\r\n\r\n", 0, 400, false, ""},
  };
  for (const auto& c : cases) {
    const ReadRequest read = readRequest(c.bytes, o, c.bodyLimit);
    EXPECT_EQ(read.refusal, c.refusal) << c.bytes;
    EXPECT_EQ(read.incomplete, c.incomplete) << c.bytes;
    EXPECT_EQ(read.body, c.body) << c.bytes;
    if (read.refusal == 0 && !read.incomplete) {
      EXPECT_EQ(read.path, "/a b");
    }
  }
}

}  // namespace
}  // namespace quill::http
