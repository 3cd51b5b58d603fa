// The access log's line: query values that may be secrets left out, client text escaped.

#include "app/access_log.h"

#include <gtest/gtest.h>

namespace quill {

TEST(AccessLogTest, KeepsOnlyHarmlessQueryValuesAndEscapesClientText) {
  for (const auto& [target, logged] :
       {std::pair{"/api/version", "/api/version"},
        {"/x?", "/x?"},
        {"/api/builds/b1/files?path=a%20b.pak", "/api/builds/b1/files?path=a%20b.pak"},
        {"/api/invites/redeem?code=abc&machine=pc", "/api/invites/redeem?code=-&machine=pc"},
        {"/api/sso/callback?state=s&code=c", "/api/sso/callback?state=-&code=-"},
        {"/api/claim?pin=1234&machine=x", "/api/claim?pin=-&machine=x"},
        {"/x?token=t&flag&=v&", "/x?token=-&flag&=-&"}}) {
    EXPECT_EQ(loggableTarget(target), logged) << target;
  }
  AccessEntry e;
  e.client = "203.0.113.7";
  e.user = "alice";
  e.method = "GET";
  e.target = "/a?code=secret";
  e.status = 206;
  e.bytes = 1048576;
  e.userAgent = "evil\"\n127.0.0.1 - admin";
  e.took = std::chrono::microseconds(4321);
  e.when = 1795995924;  // 2026-11-29T23:45:24Z
  EXPECT_EQ(formatAccessLine(e),
            "203.0.113.7 - alice [29/Nov/2026:23:45:24 +0000] \"GET /a?code=- HTTP/1.1\" 206 "
            "1048576 \"-\" \"evil\\x22\\x0A127.0.0.1 - admin\" 0.004");
  e = AccessEntry{};  // a request whose head could not be read
  e.status = 400;
  EXPECT_EQ(formatAccessLine(e).substr(0, 4), "- - ");
  EXPECT_NE(formatAccessLine(e).find("] \"-\" 400 0 \"-\" \"-\" 0.000"), std::string::npos);
}

}  // namespace quill
