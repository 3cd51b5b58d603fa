// Reading a request from bytes, as the server reads it: the verdicts the fuzz target relies on.

#include "http/request_reading.h"

#include <gtest/gtest.h>

namespace quill::http {
namespace {

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
