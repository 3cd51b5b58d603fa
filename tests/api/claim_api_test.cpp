// The first-admin claim: its state document, the checks in order (enabled, no admin yet, the
// exact PIN), the admin account and its machine-named token, and the budget bounding PIN guessing.

#include "store/tokens.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

class ClaimApi : public ApiTest {
 protected:
  void open(const std::string& pin) {
    ctx().settings.claimable = true;
    ctx().settings.claimPin = pin;
  }
};

TEST_F(ClaimApi, OnlyTheExactPinOfAnEnabledClaimIsAccepted) {
  walk(R"(
    - GET /api/claim => 200 {"claimable":false,"claimed":false,"schema_version":1}
    - POST /api/claim?pin=1234 => 404 claiming is not enabled
  )");
  ctx().settings.claimPin = "1234";  // a PIN alone opens nothing
  walk("- POST /api/claim?pin=1234 => 404 claiming is not enabled");
  open("");  // claimable without a PIN can never succeed
  walk(R"(
    - GET /api/claim => 200 {"claimable":true,"claimed":false,"schema_version":1}
    - POST /api/claim => 403 invalid claim pin
    - POST /api/claim?pin= => 403 invalid claim pin
    - POST /api/claim?pin=1234 => 403 invalid claim pin
  )");
  open("1234");
  walk(R"(
    - POST /api/claim => 403 invalid claim pin
    - POST /api/claim?pin= => 403 invalid claim pin
    - POST /api/claim?pin=123 => 403 invalid claim pin
    - POST /api/claim?pin=12345 => 403 invalid claim pin
    - POST /api/claim?pin=1234\s => 403 invalid claim pin
    - POST /api/claim?pin=\s1234 => 403 invalid claim pin
  )");
  // A PIN with an embedded zero byte is compared by its length, not as a C string.
  open(std::string("12\0" "34", 5));
  walk("- POST /api/claim?pin=12 => 403 invalid claim pin\n files users 0\n files tokens 0");
}

TEST_F(ClaimApi, TheRightPinMakesTheAdminAndAnAdminDeviceTokenAndThenCloses) {
  open("1234");
  walk(R"(
    - POST /api/claim?pin=1234 => 200 keys=role,schema_version,token,token_name,user ; .token_name="admin-device" ; .user="admin" ; .role="admin" ; .schema_version=1 ; .token~[A-Za-z0-9]{48} ; $token=.token
    file users/admin.json .role="admin" ; .groups=[] ; .channels! ; .email! ; .display_name!
    # The token is an admin's: it may write.
    $token POST /api/groups/crew => 200
    - GET /api/claim => 200 {"claimable":true,"claimed":true,"schema_version":1}
    - POST /api/claim?pin=1234 => 409 already set up - an admin exists
    # An admin existing is checked before the PIN ...
    - POST /api/claim?pin=0000 => 409 already set up - an admin exists
    files tokens 1
  )");
  EXPECT_EQ(readDoc(tokenPath("admin-device"))["token_hash"], store::hashToken(vars_["token"]));
  ctx().settings.claimable = false;  // ... and after whether claiming is enabled at all.
  walk(R"(
    - POST /api/claim?pin=1234 => 404 claiming is not enabled
    - GET /api/claim => 200 {"claimable":false,"claimed":true,"schema_version":1}
  )");
}

TEST_F(ClaimApi, AnyAdminClosesTheClaimButUnreadableRecordsDoNot) {
  open("1234");
  walk(R"(
    write users/ghost.json {"name":"ghost","role":"admin"
    - GET /api/claim => 200 {"claimable":true,"claimed":false,"schema_version":1}
    # Disabled admins count too.
    user boss admin
    set users/boss.json .disabled=true
    - GET /api/claim => 200 {"claimable":true,"claimed":true,"schema_version":1}
    - POST /api/claim?pin=1234 => 409 already set up - an admin exists
    file users/admin.json absent
  )");
}

TEST_F(ClaimApi, TheTokenNameFollowsTheMachineAndTheSixthAttemptIsRefusedFirst) {
  open("1234");
  // A token of the plain name exists already (from some earlier set-up).
  ASSERT_FALSE(store::mintToken(data(), "admin-MyBox", "someone").empty());
  walk(R"(
    5* - @10.0.0.7 POST /api/claim?pin=0000 => 403 invalid claim pin
    - @10.0.0.7 POST /api/claim?pin=1234 => 429 too many requests - slow down and retry later ; hdr:Retry-After~[0-9]+
    files users 0
    files tokens 1
    - @10.0.0.9 POST /api/claim?pin=1234&machine=My\sBox! => 200 .token_name~admin-MyBox-[A-Za-z0-9]{4}
  )");
}

}  // namespace
}  // namespace quill::test
