// The request gate through the route table: who may call what, anonymous public reads, and the
// rate-limit budgets.

#include "app/gate.h"

#include "support/api_fixture.h"

namespace quill::test {
namespace {

TEST(ClientKey, LoopbackPeersUseTheFirstForwardedHopOthersTheirAddress) {
  // peer, X-Forwarded-For, key. No usable forwarded address from a local proxy: not limited at
  // all; anyone else cannot choose their key.
  const char* cases[][3] = {{"127.0.0.1", "203.0.113.9, 10.0.0.1", "203.0.113.9"},
                            {"::1", "198.51.100.7", "198.51.100.7"},
                            {"127.8.9.10", " \t203.0.113.9\t ,x", "203.0.113.9"},
                            {"127.0.0.1", nullptr, ""},
                            {"::ffff:127.0.0.1", "198.51.100.7", "198.51.100.7"},
                            {"127.0.0.1", " , 10.0.0.1", ""},
                            {"128.0.0.1", "203.0.113.9", "128.0.0.1"},
                            {"::ffff:10.0.0.1", "203.0.113.9", "::ffff:10.0.0.1"}};
  for (const auto& [peer, forwarded, key] : cases) {
    Req req("GET", "/api/builds");
    if (forwarded) req.header("X-Forwarded-For", forwarded);
    EXPECT_EQ(clientKey(req.from(peer).build()), key)
        << peer << " " << (forwarded ? forwarded : "");
  }
}

using GateTest = ApiTest;

// One route of each access class; which class each route has is pinned by the route dump.
TEST_F(GateTest, OpenPathsTokensAndRoles) {
  walk(R"(
    user mia member
    user pete publisher beta,stable
    user paula publisher
    user max member beta
    user alice member
    user dora admin
    set users/dora.json .disabled=true
    channel stable b7 public
    - GET /api/version => pass
    - POST /api/claim => pass
    admin,mia,pete,paula,max GET /api/users => pass
    - GET /api/backups => 401 missing or invalid token
    admin GET /api/backups => 200
    mia,pete,paula,max GET /api/backups => 403 this operation requires the admin role
    admin DELETE /api/users/x => pass
    mia,max DELETE /api/users/x => 403 this operation requires the admin role
    pete DELETE /api/users/x => 403 outside this publisher's scope
    # A publisher uploads and finalizes any build, and creates or promotes its own channels only;
    # a member with an allow-list gets no carve-out.
    admin PUT /api/builds/b1/files => pass
    admin POST /api/channels/beta/promote => pass
    mia,max PUT /api/builds/b1/files => 403 this operation requires the admin role
    mia,max POST /api/channels/beta => 403 this operation requires the admin role
    pete,paula PUT /api/builds/anything/files => pass
    pete POST /api/channels/beta/promote => pass
    pete POST /api/channels/stable => pass
    paula POST /api/channels/beta => 403 outside this publisher's scope
    pete POST /api/channels/gamma => 403 outside this publisher's scope
    pete POST /api/builds/b1/files => 405 method not allowed
    mia HEAD /api/sso/mapping => 403 this operation requires the admin role
    # Open for POST only; and only the public routes themselves are public. DELETE of
    # "redeem" lands on the revoke route, open like every method of that path.
    - GET /api/sso/handoff => 405
    - GET /api/builds/b7/manifest => 404
    - GET /api/channels/stable/x => 404
    -,mia DELETE /api/invites/redeem => 404 no such invite
    - DELETE /api/invites/abcdefgh => 401 missing or invalid token
    mia DELETE /api/invites/abcdefgh => 403 this operation requires the admin role
    # Only a well-formed bearer token of an enabled user identifies the caller.
    - Authorization:Bearer\s$alice GET /api/users => pass
    - GET /api/users => 401 missing or invalid token
    not-a-token GET /api/users => 401 missing or invalid token
    - authorization:Bearer\s GET /api/users => 401 missing or invalid token
    - authorization:bearer\s$alice GET /api/users => 401 missing or invalid token
    - authorization:Bearer\s\s$alice GET /api/users => 401 missing or invalid token
    - authorization:$alice GET /api/users => 401 missing or invalid token
    - authorization:Basic\sYWxpY2U6cHc= GET /api/users => 401 missing or invalid token
    dora GET /api/users => 401 missing or invalid token
  )");
}

TEST_F(GateTest, AnonymousReadersSeePublicChannelsAndTheBuildsTheyPointAtNow) {
  start(false);
  walk(R"(
    build b0 old.bin=old
    build b1
    build b2 secret.bin=secret
    POST /api/channels/stable => 200
    POST /api/channels/stable/promote?build=b0 => 200
    POST /api/channels/stable/promote?build=b1 => 200
    POST /api/channels/stable/public?value=true => 200
    channel beta b2
    channel empty - public
    # Stray non-object channel files break nothing.
    write channels/junk.json [1, 2]
    write channels/text.json "public"
  )");
  // A bad or foreign credential does not spoil a public read.
  for (const char* auth : {"-", "wrong", "- authorization:Basic\\seDp5"}) {
    vars_["who"] = auth;
    walk(R"(
      $who GET /api/channels/stable => 200 =@channels/stable.json
      $who GET /api/builds/b1 => 200 .channels=["stable"]
      $who GET /api/builds/b1/files?path=app.bin => 200 bytes=bytes
      $who GET /api/channels/empty => 200
      # Past the gate, the handler's own answers apply.
      $who GET /api/builds/b1/files?path=no.bin => 404 file not found
      $who GET /api/channels => 401 missing or invalid token
      $who GET /api/builds => 401 missing or invalid token
      $who GET /api/channels/beta => 401 missing or invalid token
      $who GET /api/channels/nosuch => 401 missing or invalid token
      $who GET /api/channels/junk => 401 missing or invalid token
      $who GET /api/builds/b2 => 401 missing or invalid token
      $who GET /api/builds/b2/files?path=secret.bin => 401 missing or invalid token
      # Once public, no longer current.
      $who GET /api/builds/b0 => 401 missing or invalid token
      $who PUT /api/builds/b1/files?path=app.bin new => 401 missing or invalid token
      $who POST /api/channels/stable/promote?build=b2 => 401 missing or invalid token
      $who DELETE /api/builds/b1 => 401 missing or invalid token
    )");
  }
  // Read fresh each time: a channel made private closes it and its build at once.
  walk(R"(
    file builds/b1/files/app.bin is=bytes
    POST /api/channels/stable/public?value=false => 200
    - GET /api/channels/stable => 401 missing or invalid token
    - GET /api/builds/b1?path=app.bin => 401 missing or invalid token
  )");
}

TEST_F(GateTest, CredentialAnonymousAndSignInBudgets) {
  walk(R"(
    # The credential paths share one budget per client: the sixth attempt within a minute is
    # refused for twelve seconds.
    - @10.0.1.1 POST /api/claim => 404
    - @10.0.1.1 POST /api/invites/redeem => 400
    - @10.0.1.1 POST /api/access-requests => 400
    - @10.0.1.1 POST /api/sso/handoff => 404
    - @10.0.1.1 POST /api/claim => 404
    - @10.0.1.1 POST /api/claim => 429 too many requests - slow down and retry later ; hdr:Retry-After=12
    - @10.0.1.1 POST /api/sso/handoff => 429
    # GET of an open credential path is not charged, and each client has its own budget.
    - @10.0.1.1 GET /api/claim => 200
    - @10.0.0.2 POST /api/claim => 404
    # The anonymous budget is separate: the 31st anonymous request is refused, valid tokens
    # and public reads never are.
    - @10.0.0.1 GET /api/builds => 401 missing or invalid token
    user alice member
    channel stable b7 public
    40* alice @10.0.0.3 GET /api/builds => 200
    40* - @10.0.0.3 GET /api/version => 200
    40* - @10.0.0.3 GET /api/builds/b7/files => 400
    15* - @10.0.0.3 GET /api/builds => 401 missing or invalid token
    15* wrong @10.0.0.3 GET /api/builds => 401 missing or invalid token
    - @10.0.0.3 GET /api/builds => 429 too many requests - slow down and retry later ; hdr:Retry-After=2
    alice @10.0.0.3 GET /api/me => 200
    # Sign-in starts have a budget of their own per client.
    30* - @10.0.0.4 GET /api/sso/start => 404
    - @10.0.0.4 GET /api/sso/start => 429 too many requests - slow down and retry later ; hdr:Retry-After=2
    - @10.0.0.4 GET /api/builds => 401
    - @10.0.0.4 POST /api/sso/handoff => 404
    - @10.0.0.5 GET /api/sso/start => 404
    # A local proxy's clients are told apart by the forwarded hop; loopback without one is not
    # limited, like every other budget.
    - @127.0.0.1 x-forwarded-for:10.0.0.4 GET /api/sso/start => 429
    40* - @127.0.0.1 POST /api/claim => 404
    5* - @127.0.0.1 x-forwarded-for:203.0.113.9,\s10.0.0.1 POST /api/claim => 404
    - @127.0.0.1 x-forwarded-for:203.0.113.9,\s10.0.0.1 POST /api/claim => 429
    # The key is 203.0.113.9: the same client arriving directly is already spent, while the
    # proxy's other hops are not.
    - @203.0.113.9 POST /api/claim => 429
    - @127.0.0.1 x-forwarded-for:10.0.0.1 POST /api/claim => 404
  )");
  // With rate limiting off nothing is throttled.
  start(false);
  walk(R"(
    50* - @10.0.0.1 POST /api/claim => 404
    50* - @10.0.0.1 GET /api/builds => 401 missing or invalid token
  )");
}

}  // namespace
}  // namespace quill::test
