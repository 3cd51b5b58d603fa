// Invites: minting with its checks in order, listing without codes, revoking, and single-use
// redemption with machine-named tokens.

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
  // A code for `user` straight from the store, named `$var`.
  void invite(const std::string& var, const std::string& user, std::vector<std::string> groups = {},
              const std::string& email = "", const std::string& displayName = "") {
    store::InviteRequest request;
    request.user = user;
    request.groups = std::move(groups);
    request.email = email;
    request.displayName = displayName;
    auto created = store::createInvite(data(), request);
    ASSERT_TRUE(created.has_value());
    vars_[var] = (*created)["code"].asString();
  }
  // Moves an invite's expiry `seconds` into the past.
  void age(const std::string& code, std::int64_t seconds) {
    setMember(invitePath(code), "expires_epoch", Json::Int64(std::time(nullptr) - seconds));
  }
};

TEST_F(InvitesApi, MintChecksInOrderAndFilesTheRecordUnderTheCodesHash) {
  walk(R"(
    user ci publisher service
    group testers
    group qa
    POST /api/invites => 400 missing or invalid ?user= parameter
    POST /api/invites?user={129*x} => 400 missing or invalid ?user= parameter
    POST /api/invites?user=&days=0 => 400 missing or invalid ?user= parameter
    POST /api/invites?user=bad\sname&days=0 => 400 missing or invalid ?user= parameter
    POST /api/invites?user=..&days=0 => 400 missing or invalid ?user= parameter
    POST /api/invites?user=con&days=0 => 400 missing or invalid ?user= parameter
    POST /api/invites?user=a/b&days=0 => 400 missing or invalid ?user= parameter
    # A service account is refused before any group is examined.
    POST /api/invites?user=ci => 400 service accounts cannot be invited - they use tokens
    POST /api/invites?user=ci&groups=ghost&days=0 => 400 service accounts cannot be invited - they use tokens
    POST /api/invites?user=bob&groups=testers,ghost => 404 group 'ghost' does not exist
    POST /api/invites?user=bob&groups=ghost&days=0 => 404 group 'ghost' does not exist
    POST /api/invites?user=bob&groups=bad\sname => 400 invalid group name in ?groups=
    POST /api/invites?user=bob&groups=testers,,testers => 400 invalid group name in ?groups=
    POST /api/invites?user=bob&groups=,testers => 400 invalid group name in ?groups=
    POST /api/invites?user=bob&groups=testers,.. => 400 invalid group name in ?groups=
    POST /api/invites?user=bob&groups=nul => 400 invalid group name in ?groups=
    POST /api/invites?user=bob&days=0 => 400 days must be 1..3650
    POST /api/invites?user=bob&days=3651 => 400 days must be 1..3650
    POST /api/invites?user=bob&days=-1 => 400 days must be 1..3650
    POST /api/invites?user=bob&days=abc => 400 days must be 1..3650
    POST /api/invites?user=bob&days= => 400 days must be 1..3650
    POST /api/invites?user=bob&days=7x => 400 days must be 1..3650
    POST /api/invites?user=bob&days=\s7 => 400 days must be 1..3650
    POST /api/invites?user=bob&days=1.5 => 400 days must be 1..3650
    POST /api/invites?user=bob&days=99999999999999999999 => 400 days must be 1..3650
    files invites 0
    POST /api/invites?user=newbie&groups=testers,qa&email=n@example.com&display_name=New\sBie => 200 keys=code,expires_at,groups,id,schema_version,user ; .code~[A-Za-z0-9]{24} ; .id~[A-Za-z0-9]{8} ; .groups=["testers","qa"] ; .user="newbie" ; $code=.code ; $id=.id ; $at=.expires_at
    # Minting creates no user.
    file users/newbie.json absent
    # Empty profile values are not stored; the lifetime's bounds are accepted.
    POST /api/invites?user=other&email=&display_name=&days=3650 => 200 $long=.code
    POST /api/invites?user=other&days=1 => 200
  )");
  const std::int64_t now = std::time(nullptr);
  const Json::Value record = readDoc(invitePath(vars_["code"]));
  EXPECT_EQ(record["id"], vars_["id"]);
  EXPECT_EQ(record["groups"], strings({"testers", "qa"}));
  EXPECT_EQ(record["email"], "n@example.com");
  EXPECT_EQ(record["display_name"], "New Bie");
  EXPECT_FALSE(record.isMember("code"));
  EXPECT_NEAR(record["expires_epoch"].asInt64(), now + 7 * 86400, 5);
  EXPECT_EQ(vars_["at"], store::formatUtc(record["expires_epoch"].asInt64()));
  const Json::Value other = readDoc(invitePath(vars_["long"]));
  EXPECT_FALSE(other.isMember("email"));
  EXPECT_FALSE(other.isMember("display_name"));
  EXPECT_NEAR(other["expires_epoch"].asInt64(), now + 3650LL * 86400, 5);
}

TEST_F(InvitesApi, ListShowsEveryReadableInviteWithExpiryAndNeverTheCode) {
  walk(R"(
    group testers
    user mo member
    POST /api/invites?user=bob => 200 $plain=.code
    POST /api/invites?user=carol&groups=testers&email=c@example.com&display_name=Carol => 200 $rich=.code
    POST /api/invites?user=dave => 200 $old=.code
    write invites/broken.json {
  )");
  age(vars_["old"], 60);
  // Each entry is the stored record less its hash and epoch, with the expiry as text and a flag.
  walk(R"(
    mo GET /api/invites => 200 keys=invites,schema_version ; !has:$plain ; !has:$rich ; !has:$old ; .invites.#=3 ; .invites.user:bob.expired=false ; .invites.user:carol.expired=false ; .invites.user:dave.expired=true ; .invites.user:carol.groups=["testers"] ; .invites.user:carol.email="c@example.com" ; .invites.user:carol.display_name="Carol" ; .invites.user:bob.email! ; .invites.user:bob.#=6 ; .invites.user:carol.#=8 ; .invites.user:bob.expires_epoch! ; .invites.user:bob.code_hash! ; .invites.user:bob.schema_version! ; $at=.invites.user:dave.expires_at ; $id=.invites.user:dave.id
  )");
  const Json::Value dave = readDoc(invitePath(vars_["old"]));
  EXPECT_EQ(vars_["at"], store::formatUtc(dave["expires_epoch"].asInt64()));
  EXPECT_EQ(vars_["id"], dave["id"].asString());
}

TEST_F(InvitesApi, RevokeRemovesTheInviteByItsPublicId) {
  walk(R"(
    POST /api/invites?user=bob => 200 $code=.code ; $id=.id
    POST /api/invites?user=bob => 200 $kept=.code
    DELETE /api/invites/$id => 200 {"revoked":"$id"}
    - POST /api/invites/redeem?code=$code => 404 invalid or already used invite
    DELETE /api/invites/$id => 404 no such invite
    DELETE /api/invites/.. => 400 invalid invite id
    DELETE /api/invites/con => 400 invalid invite id
    DELETE /api/invites/a\sb => 400 invalid invite id
    DELETE /api/invites/caf\xc3\xa9 => 400 invalid invite id
  )");
  EXPECT_FALSE(fs::exists(invitePath(vars_["code"])));
  EXPECT_TRUE(fs::exists(invitePath(vars_["kept"])));
}

TEST_F(InvitesApi, RedeemCreatesTheMissingUserAndATokenNamedAfterTheMachine) {
  invite("code", "alice", {}, "alice@example.com", "Alice A");
  invite("again", "alice");
  walk(R"(
    - POST /api/invites/redeem?code=$code&machine=My\sLaptop! => 200 keys=channels,groups,role,schema_version,token,token_name,user ; .token~[A-Za-z0-9]{48} ; .channels=[] ; .groups=[] ; .role="member" ; .schema_version=1 ; .token_name="alice-MyLaptop" ; .user="alice" ; .#=7 ; $token=.token
    file users/alice.json .role="member" ; .email="alice@example.com" ; .display_name="Alice A"
    $token GET /api/me => 200 .name="alice"
    # Single use.
    - POST /api/invites/redeem?code=$code&machine=My\sLaptop! => 404 invalid or already used invite
    # A second invite from the same machine name gets a suffixed token name.
    - POST /api/invites/redeem?code=$again&machine=My\sLaptop! => 200 .token_name~alice-MyLaptop-[A-Za-z0-9]{4}
  )");
  EXPECT_EQ(readDoc(tokenPath("alice-MyLaptop"))["token_hash"], store::hashToken(vars_["token"]));
  EXPECT_FALSE(fs::exists(invitePath(vars_["code"])));
}

TEST_F(InvitesApi, RedeemTokenNameKeepsOnlyNameCharactersOfTheMachine) {
  // One user per case, so no name is taken yet.
  for (const char* user : {"u0", "u1", "u2", "u3", "u4"}) invite(user, user);
  walk(R"(
    - POST /api/invites/redeem?code=$u0 => 200 .token_name="u0-device"
    - POST /api/invites/redeem?code=$u1&machine= => 200 .token_name="u1-device"
    - POST /api/invites/redeem?code=$u2&machine=!!!\s? => 200 .token_name="u2-device"
    - POST /api/invites/redeem?code=$u3&machine=build_box.01-b => 200 .token_name="u3-build_box.01-b"
    - POST /api/invites/redeem?code=$u4&machine=caf\xc3\xa9\s#9 => 200 .token_name="u4-caf9"
  )");
  // A long machine name still mints a token that passes the name rule; the second one of a
  // name carries the random suffix.
  for (const std::string& user : {std::string("bo"), std::string(128, 'u')}) {
    for (std::size_t length : {200u, 300u}) {
      for (int round = 0; round < 2; ++round) {
        invite("c", user);
        auto res = redeem(vars_["c"], std::string(length, 'm').c_str());
        ASSERT_EQ(res.status, 200u) << res.body;
        const std::string name = bodyOf(res)["token_name"].asString();
        EXPECT_TRUE(store::isValidName(name)) << name;
        EXPECT_EQ(name.rfind(user.substr(0, 100), 0), 0u) << name;
        EXPECT_TRUE(fs::is_regular_file(tokenPath(name))) << name;
      }
    }
  }
}

TEST_F(InvitesApi, RedeemRefusesMalformedUnknownExpiredAndDisabled) {
  invite("late", "late", {}, "late@example.com");
  age(vars_["late"], 1);
  walk(R"(
    - POST /api/invites/redeem => 400 missing or invalid ?code= parameter
    - POST /api/invites/redeem?code= => 400
    - POST /api/invites/redeem?code={129*A} => 400
    - POST /api/invites/redeem?code={128*A} => 404 invalid or already used invite
    # A code that is no file-name material is hashed, never used as a path.
    - POST /api/invites/redeem?code=../users/admin => 404 invalid or already used invite
    # An expired invite is removed by the first attempt.
    - POST /api/invites/redeem?code=$late&machine=box => 404 invite expired
    - POST /api/invites/redeem?code=$late&machine=box => 404 invalid or already used invite
    files users 0
    files tokens 0
    group testers
    user dora member
    set users/dora.json .disabled=true
    mark users/dora.json
  )");
  EXPECT_FALSE(fs::exists(invitePath(vars_["late"])));
  invite("dora", "dora", {"testers"});
  walk(R"(
    - POST /api/invites/redeem?code=$dora&machine=box => 403 this user is disabled - ask the admin to re-enable the account first
    unchanged users/dora.json
    file tokens/dora-box.json absent
  )");
  EXPECT_TRUE(fs::exists(invitePath(vars_["dora"])));
}

TEST_F(InvitesApi, RedeemJoinsGroupsAndAnswersTheEffectiveChannels) {
  walk(R"(
    channel f
    channel c1
    channel c2
    channel c3
    group g1 c1
    group g2 c2,c1
    group g3 c3
    user erin publisher c3
    set users/erin.json .groups=["g1"]
    set users/erin.json .follows=["f"]
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

}  // namespace
}  // namespace quill::test
