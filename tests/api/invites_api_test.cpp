// The ways in: invites (minting with its checks in order, listing without codes, revoking,
// single-use redemption with machine-named tokens), access requests, and the first-admin claim.

#include <ctime>

#include "store/invites.h"
#include "store/names.h"
#include "store/tokens.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

class InvitesApi : public ApiTest {
 protected:
  // A code for `user` straight from the store as `$var`, its record's path as `$var_file`.
  void invite(const std::string& var, const std::string& user, std::vector<std::string> groups = {},
              const std::string& email = "", const std::string& displayName = "") {
    auto created = store::createInvite(
        data(), {user, std::move(groups), store::kDefaultInviteLifetime, displayName, email});
    ASSERT_TRUE(created.has_value());
    named(var, (*created)["code"].asString());
  }
  void named(const std::string& var, const std::string& code) {
    vars_[var] = code;
    vars_[var + "_file"] = fs::relative(invitePath(code), data().root()).string();
  }
  std::int64_t expiry(const std::string& var) {
    return readDoc(invitePath(vars_[var]))["expires_epoch"].asInt64();
  }
  void age(const std::string& var, std::int64_t seconds) {  // moves the expiry into the past
    setMember(invitePath(vars_[var]), "expires_epoch", Json::Int64(std::time(nullptr) - seconds));
  }
  void open(const std::string& pin) {
    ctx().settings.claimable = true;
    ctx().settings.claimPin = pin;
  }
};

TEST_F(InvitesApi, MintChecksInOrderAndFilesTheRecordUnderTheCodesHash) {
  walk(R"(
    user ci publisher service | group testers | group qa
    POST /api/invites => 400 missing or invalid ?user= parameter
    POST /api/invites?user={129*x} => 400 missing or invalid ?user= parameter
    POST /api/invites?user=&days=0 => 400 missing or invalid ?user= parameter
    # A service account is refused before any group is examined.
    POST /api/invites?user=ci&groups=ghost&days=0 => 400 service accounts cannot be invited - they use tokens
    POST /api/invites?user=bob&groups=testers,ghost => 404 group 'ghost' does not exist
    POST /api/invites?user=bob&groups=ghost&days=0 => 404 group 'ghost' does not exist
    POST /api/invites?user=bob&groups=bad\sname => 400 invalid group name in ?groups=
    POST /api/invites?user=bob&groups=testers,,testers => 400 invalid group name in ?groups=
    POST /api/invites?user=bob&days=0 => 400 days must be 1..3650
    POST /api/invites?user=bob&days=3651 => 400 days must be 1..3650
    POST /api/invites?user=bob&days=abc => 400 days must be 1..3650
    POST /api/invites?user=bob&days=7x => 400 days must be 1..3650
    POST /api/invites?user=bob&days=99999999999999999999 => 400 days must be 1..3650
    files invites 0
    POST /api/invites?user=newbie&groups=testers,qa&email=n@example.com&display_name=New\sBie => 200 keys=code,expires_at,groups,id,schema_version,user ; .code~[A-Za-z0-9]{24} ; .id~[A-Za-z0-9]{8} ; .groups=["testers","qa"] ; .user="newbie" ; $code=.code ; $id=.id ; $at=.expires_at
    # Minting creates no user; empty profile values are not stored; the lifetime's bounds pass.
    file users/newbie.json absent
    POST /api/invites?user=other&email=&display_name=&days=3650 => 200 $long=.code
    POST /api/invites?user=other&days=1 => 200
  )");
  named("code", vars_["code"]), named("long", vars_["long"]);
  walk(R"(
    file $code_file .id="$id" ; .groups=["testers","qa"] ; .email="n@example.com" ; .display_name="New Bie" ; .code!
    file $long_file .email! ; .display_name!
  )");
  EXPECT_NEAR(expiry("code"), std::time(nullptr) + 7 * 86400, 5);
  EXPECT_EQ(vars_["at"], store::formatUtc(expiry("code")));
  EXPECT_NEAR(expiry("long"), std::time(nullptr) + 3650LL * 86400, 5);
}

TEST_F(InvitesApi, ListRevokeAndRedeem) {
  invite("old", "dave");
  age("old", 60);
  invite("alice", "alice", {}, "alice@example.com", "Alice A");
  invite("again", "alice");
  // Each entry is the stored record less its hash and epoch, with the expiry as text and a flag.
  walk(R"(
    group testers | user mo member | write invites/broken.json {
    POST /api/invites?user=bob => 200 $plain=.code ; $id=.id
    POST /api/invites?user=carol&groups=testers&email=c@example.com&display_name=Carol => 200 $rich=.code
    mo GET /api/invites => 200 keys=invites,schema_version ; !has:$plain ; !has:$rich ; !has:$old ; .invites.#=5 ; .invites.user:bob.expired=false ; .invites.user:dave.expired=true ; .invites.user:carol.groups=["testers"] ; .invites.user:carol.email="c@example.com" ; .invites.user:carol.display_name="Carol" ; .invites.user:bob.email! ; .invites.user:bob.#=6 ; .invites.user:carol.#=8 ; .invites.user:bob.expires_epoch! ; .invites.user:bob.code_hash! ; .invites.user:bob.schema_version! ; $at=.invites.user:dave.expires_at ; $dave=.invites.user:dave.id
    DELETE /api/invites/$id => 200 {"revoked":"$id"}
    - POST /api/invites/redeem?code=$plain => 404 invalid or already used invite
    DELETE /api/invites/$id => 404 no such invite
    DELETE /api/invites/.. => 400 invalid invite id
    DELETE /api/invites/caf\xc3\xa9 => 400 invalid invite id
    - POST /api/invites/redeem?code=$alice&machine=My\sLaptop! => 200 keys=channels,groups,role,schema_version,token,token_name,user ; .token~[A-Za-z0-9]{48} ; .channels=[] ; .groups=[] ; .role="member" ; .schema_version=1 ; .token_name="alice-MyLaptop" ; .user="alice" ; .#=7 ; $token=.token
    file users/alice.json .role="member" ; .email="alice@example.com" ; .display_name="Alice A"
    file $alice_file absent
    $token GET /api/me => 200 .name="alice"
    - POST /api/invites/redeem?code=$alice&machine=My\sLaptop! => 404 invalid or already used invite
    # A second invite from the same machine name gets a suffixed token name.
    - POST /api/invites/redeem?code=$again&machine=My\sLaptop! => 200 .token_name~alice-MyLaptop-[A-Za-z0-9]{4}
  )");
  EXPECT_EQ(vars_["at"], store::formatUtc(expiry("old")));
  EXPECT_EQ(vars_["dave"], readDoc(invitePath(vars_["old"]))["id"].asString());
  EXPECT_TRUE(fs::exists(invitePath(vars_["rich"])));
  EXPECT_EQ(readDoc(tokenPath("alice-MyLaptop"))["token_hash"], store::hashToken(vars_["token"]));
}

TEST_F(InvitesApi, RedeemTokenNameKeepsOnlyNameCharactersOfTheMachine) {
  for (const char* user : {"u0", "u2", "u3", "u4"}) invite(user, user);
  walk(R"(
    - POST /api/invites/redeem?code=$u0 => 200 .token_name="u0-device"
    - POST /api/invites/redeem?code=$u2&machine=!!!\s? => 200 .token_name="u2-device"
    - POST /api/invites/redeem?code=$u3&machine=build_box.01-b => 200 .token_name="u3-build_box.01-b"
    - POST /api/invites/redeem?code=$u4&machine=caf\xc3\xa9\s#9 => 200 .token_name="u4-caf9"
  )");
  // A long machine name still mints a valid token name; the second of a name gets a suffix.
  for (const std::string& user : {std::string("bo"), std::string(128, 'u')}) {
    for (std::size_t length : {300u, 300u}) {
      invite("c", user);
      const auto res = send(Req("POST", "/api/invites/redeem").q("code", vars_["c"])
                                .q("machine", std::string(length, 'm')).from(freshPeer()));
      const std::string name = bodyOf(res)["token_name"].asString();
      EXPECT_TRUE(store::isValidName(name) && name.starts_with(user.substr(0, 100))) << name;
      EXPECT_TRUE(fs::is_regular_file(tokenPath(name))) << name;
    }
  }
}

TEST_F(InvitesApi, RedeemRefusesMalformedUnknownExpiredAndDisabled) {
  invite("late", "late", {}, "late@example.com");
  age("late", 1);
  walk(R"(
    - POST /api/invites/redeem => 400 missing or invalid ?code= parameter
    - POST /api/invites/redeem?code= => 400
    - POST /api/invites/redeem?code={129*A} => 400
    - POST /api/invites/redeem?code={128*A} => 404 invalid or already used invite
    # A code that is no file-name material is hashed, never used as a path.
    - POST /api/invites/redeem?code=../users/admin => 404 invalid or already used invite
    # An expired invite is removed by the first attempt.
    - POST /api/invites/redeem?code=$late&machine=box => 404 invite expired
    file $late_file absent
    - POST /api/invites/redeem?code=$late&machine=box => 404 invalid or already used invite
    files users 0 | files tokens 0
    group testers | user dora member | set users/dora.json .disabled=true | mark users/dora.json
  )");
  invite("dora", "dora", {"testers"});
  walk(R"(
    - POST /api/invites/redeem?code=$dora&machine=box => 403 this user is disabled - ask the admin to re-enable the account first
    unchanged users/dora.json | file tokens/dora-box.json absent | file $dora_file exists
  )");
}

TEST_F(InvitesApi, RedeemJoinsGroupsAndAnswersTheEffectiveChannels) {
  walk(R"(
    channel f | channel c1 | channel c2 | channel c3 | group g1 c1 | group g2 c2,c1 | group g3 c3
    user erin publisher c3 | set users/erin.json .groups=["g1"] | set users/erin.json .follows=["f"]
    set users/erin.json .email="old@example.com"
  )");
  invite("code", "erin", {"g2", "g1", "g3"}, "new@example.com", "New Name");
  // An existing user keeps its profile; only the groups are added.
  walk(R"(
    - POST /api/invites/redeem?code=$code&machine=ws => 200 .role="publisher" ; .groups=["g1","g2","g3"] ; .channels=["f","c1","c2","c3"] ; $token=.token
    file users/erin.json .groups=["g1","g2","g3"] ; .email="old@example.com" ; .display_name!
    $token GET /api/me => 200 .channels=["f","c1","c2","c3"]
  )");
}

TEST_F(InvitesApi, AccessRequestsAreCheckedStoredCappedApprovedAndDeclined) {
  walk(R"(
    - POST /api/access-requests => 400 JSON body required
    - POST /api/access-requests not\sjson => 400 JSON body required
    - POST /api/access-requests [1,2] => 400 JSON body required
    - POST /api/access-requests {"name":{1001*[}{1001*]}} => 400 JSON body required
    - POST /api/access-requests {"email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":42,"email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"{129*n}","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"con","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"a..b","email":"a@example.com"} => 400 missing or invalid name
    # The name is checked before the address.
    - POST /api/access-requests {"name":"","email":"bad"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"ann"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"@example.com"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"ann@example"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"ann.x@example"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"ann @example.com"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"annexample.com"} => 400 a valid email address is required
    files access-requests 0
    - POST /api/access-requests {"name":"fresh","email":"f@b.c","message":"let me\\tin\\nplease"} => 200 {"accepted":true}
    # No message is an empty message; a long one is cut to 256 bytes; 128 characters are a name.
    - POST /api/access-requests {"name":"quiet","email":"q@example.com"} => 200
    - POST /api/access-requests {"name":"chatty","email":"c@example.com","message":"{300*m}"} => 200
    - POST /api/access-requests {"name":"{128*n}","email":"n@example.com"} => 200
    user quiet publisher stable | group testers beta | mark users/quiet.json
    write access-requests/broken.json {
    # Each entry is the stored record less its schema version, plus whether the user exists.
    GET /api/access-requests => 200 keys=requests,schema_version ; .requests.#=4 ; .requests.name:quiet.user_exists=true ; .requests.name:quiet.message="" ; .requests.name:chatty.message="{256*m}" ; .requests.name:fresh.user_exists=false ; .requests.name:fresh.email="f@b.c" ; .requests.name:fresh.message="let me in please" ; .requests.name:fresh.created_at~.+Z ; .requests.name:fresh.schema_version! ; .requests.name:fresh.#=6 ; $fresh=.requests.name:fresh.id ; $known=.requests.name:quiet.id ; $third=.requests.name:chatty.id
    file access-requests/$fresh.json .id="$fresh" ; .id~[A-Za-z0-9]{8} ; .name="fresh" ; .email="f@b.c" ; .created_at~\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ ; .schema_version=1 ; .#=6 ; .message="let me in please"
    # Approval turns the request into an invite carrying the address.
    POST /api/access-requests/$fresh/approve => 200 keys=code,email,expires_at,groups,id,schema_version,user ; .email="f@b.c" ; .user="fresh" ; .groups=[] ; $code=.code ; $invite=.id
    file access-requests/$fresh.json absent
    - POST /api/invites/redeem?code=$code&machine=desk => 200
    file users/fresh.json .email="f@b.c" ; .role="member" ; .display_name!
    # A refused approval keeps the request and writes no invite (the messages are the mint's own).
    POST /api/access-requests/$known/approve?groups=testers,ghost => 404
    POST /api/access-requests/$known/approve?days=3651 => 400
    files invites 0
    POST /api/access-requests/$known/approve?groups=testers&days=30 => 200 .groups=["testers"] ; $code=.code
    unchanged users/quiet.json
    # Declining removes only that request, and either ends it.
    DELETE /api/access-requests/$third => 200 {"declined":"$third"}
    file access-requests/$third.json absent | files access-requests 2
    DELETE /api/access-requests/$third => 404 no such request
    POST /api/access-requests/$known/approve => 404 no such request
    DELETE /api/access-requests/con => 404 no such request
  )");
  named("code", vars_["code"]);
  EXPECT_LE(expiry("code"), std::time(nullptr) + 30 * 86400);
  EXPECT_GT(expiry("code"), std::time(nullptr) + 29 * 86400);
}

TEST_F(InvitesApi, FiftyPendingRequestsCloseTheDoorAndEveryAttemptIsStillCharged) {
  for (int i = 10000; i < 10050; ++i) {
    writeText(data().accessRequests() / ("req" + std::to_string(i) + ".json"),
              R"({"schema_version":1,"id":"req)" + std::to_string(i) + R"(","name":"p",)"
              R"("email":"p@example.com","message":"","created_at":"2026-01-01T00:00:00Z"})");
  }
  walk(R"(
    5* - @10.0.0.8 POST /api/access-requests {"name":"late","email":"late@example.com"} => 429 too many pending requests - try again later
    - @10.0.0.8 POST /api/access-requests {"name":"late","email":"late@example.com"} => 429 too many requests - slow down and retry later ; hdr:Retry-After~[0-9]+
    files access-requests 50
    DELETE /api/access-requests/req10000 => 200
    - POST /api/access-requests {"name":"late","email":"late@example.com"} => 200
    - POST /api/access-requests {"name":"later","email":"later@example.com"} => 429 too many pending requests - try again later
  )");
}

TEST_F(InvitesApi, TheClaimTakesOnlyTheExactPinOfAnEnabledClaim) {
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
    - POST /api/claim?pin=1234 => 403 invalid claim pin
  )");
  open("1234");
  walk(R"(
    - POST /api/claim?pin=123 => 403 invalid claim pin
    - POST /api/claim?pin=12345 => 403 invalid claim pin
    - POST /api/claim?pin=1234\s => 403 invalid claim pin
  )");
  open(std::string("12\0" "34", 5));  // compared by its length, not as a C string
  walk("- POST /api/claim?pin=12 => 403 invalid claim pin\n files users 0 | files tokens 0");
}

TEST_F(InvitesApi, TheRightPinMakesTheAdminAndThenTheClaimCloses) {
  open("1234");
  walk(R"(
    - POST /api/claim?pin=1234 => 200 keys=role,schema_version,token,token_name,user ; .token_name="admin-device" ; .user="admin" ; .role="admin" ; .schema_version=1 ; .token~[A-Za-z0-9]{48} ; $token=.token
    file users/admin.json .role="admin" ; .groups=[] ; .channels! ; .email! ; .display_name!
    $token POST /api/groups/crew => 200
    - GET /api/claim => 200 {"claimable":true,"claimed":true,"schema_version":1}
    # An admin existing is checked before the PIN, and after whether claiming is enabled.
    - POST /api/claim?pin=1234 => 409 already set up - an admin exists
    - POST /api/claim?pin=0000 => 409 already set up - an admin exists
    files tokens 1
  )");
  EXPECT_EQ(readDoc(tokenPath("admin-device"))["token_hash"], store::hashToken(vars_["token"]));
  ctx().settings.claimable = false;
  walk(R"(
    - POST /api/claim?pin=1234 => 404 claiming is not enabled
    - GET /api/claim => 200 {"claimable":false,"claimed":true,"schema_version":1}
  )");
}

TEST_F(InvitesApi, AnyAdminClosesTheClaimButUnreadableRecordsDoNot) {
  open("1234");
  // A token of the plain name exists already (from some earlier set-up).
  ASSERT_FALSE(store::mintToken(data(), "admin-MyBox", "someone").empty());
  walk(R"(
    5* - @10.0.0.7 POST /api/claim?pin=0000 => 403 invalid claim pin
    - @10.0.0.7 POST /api/claim?pin=1234 => 429 too many requests - slow down and retry later ; hdr:Retry-After~[0-9]+
    files users 0 | files tokens 1 | write users/ghost.json {"name":"ghost","role":"admin"
    - GET /api/claim => 200 {"claimable":true,"claimed":false,"schema_version":1}
    - @10.0.0.9 POST /api/claim?pin=1234&machine=My\sBox! => 200 .token_name~admin-MyBox-[A-Za-z0-9]{4}
    remove users/admin.json | user boss admin | set users/boss.json .disabled=true
    - GET /api/claim => 200 {"claimable":true,"claimed":true,"schema_version":1}
    - POST /api/claim?pin=1234 => 409 already set up - an admin exists
    file users/admin.json absent
  )");
}

}  // namespace
}  // namespace quill::test
