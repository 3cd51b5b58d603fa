// Who may call what, through the whole router: one row per request (method, path, caller,
// status, message). The rows are the reads kept to admins, whose refusals must be the gate's
// answers byte for byte, and the path that is open whatever the method.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kMissing = "missing or invalid token";
constexpr const char* kAdminOnly = "this operation requires the admin role";

struct Row {
  const char* method;
  const char* path;
  const char* caller;  // "-" (no token), "member", "publisher" or "admin"
  unsigned status;
  const char* message;  // nullptr: any answer of that status
};

const std::vector<Row> kRows = {
    {"GET", "/api/access-requests", "-", 401, kMissing},
    {"GET", "/api/access-requests", "member", 403, kAdminOnly},
    {"GET", "/api/access-requests", "publisher", 403, kAdminOnly},
    {"GET", "/api/access-requests", "admin", 200, nullptr},
    {"GET", "/api/backups", "-", 401, kMissing},
    {"GET", "/api/backups", "member", 403, kAdminOnly},
    {"GET", "/api/backups", "publisher", 403, kAdminOnly},
    {"GET", "/api/backups", "admin", 200, nullptr},
    {"GET", "/api/storage", "member", 403, kAdminOnly},
    {"GET", "/api/storage", "publisher", 403, kAdminOnly},
    {"GET", "/api/storage", "admin", 200, nullptr},
    {"GET", "/api/sso/config", "-", 401, kMissing},
    {"GET", "/api/sso/config", "publisher", 403, kAdminOnly},
    {"GET", "/api/sso/config", "admin", 200, nullptr},
    {"GET", "/api/sso/mapping", "member", 403, kAdminOnly},
    {"GET", "/api/sso/mapping", "admin", 200, nullptr},
    {"HEAD", "/api/sso/mapping", "member", 403, kAdminOnly},
    // Writes of the admin's: a publisher is outside its scope, a member needs the role.
    {"DELETE", "/api/sso/config", "publisher", 403, "outside this publisher's scope"},
    {"DELETE", "/api/sso/config", "member", 403, kAdminOnly},
    {"PUT", "/api/sso/mapping", "publisher", 403, "outside this publisher's scope"},
    // "/api/invites/redeem" is open for every method; DELETE lands on the revoke route.
    {"DELETE", "/api/invites/redeem", "-", 404, "no such invite"},
    {"DELETE", "/api/invites/redeem", "member", 404, "no such invite"},
    {"DELETE", "/api/invites/abcdefgh", "-", 401, kMissing},
    {"DELETE", "/api/invites/abcdefgh", "member", 403, kAdminOnly},
};

using AccessRowsTest = ApiTest;

TEST_F(AccessRowsTest, EachRouteAnswersEachCallerAsItsAccessSays) {
  start(false);
  const std::string tokens[] = {seedUser("mia", "member"), seedUser("pete", "publisher", {}),
                                admin()};
  for (const Row& row : kRows) {
    Req req(row.method, row.path);
    const std::string caller = row.caller;
    if (caller == "member") req.bearer(tokens[0]);
    if (caller == "publisher") req.bearer(tokens[1]);
    if (caller == "admin") req.bearer(tokens[2]);
    const http::Response res = send(req);
    const std::string what = std::string(row.method) + " " + row.path + " as " + row.caller;
    if (row.message) {
      EXPECT_TRUE(isError(res, row.status, row.message)) << what << ": " << res.body;
    } else {
      EXPECT_EQ(res.status, row.status) << what << ": " << res.body;
    }
  }
}

}  // namespace
}  // namespace quill::test
