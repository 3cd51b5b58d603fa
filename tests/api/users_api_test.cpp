// The user, group, service-token and /api/me routes through the route table and the gate: each
// refusal in its order, the stored records, the recovery and last-admin rules, failed writes.

#include "api/groups.h"
#include "store/tokens.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

using UsersApi = ApiTest;

TEST_F(UsersApi, ListCreateAndTheirChecksInOrder) {
  walk(R"(
    user admin admin | user mia member | channel a | channel b | user taken member
    write users/sven.json {"name":"sven","role":"member","groups":[],"sso":true,"service":"yes","channels":"beta","follows":["stable"],"display_name":"Sven","disabled":true}
    write users/junk.json [1]
    # Any role may list; defaults are filled in, odd members read as their default.
    mia GET /api/users => 200 keys=schema_version,users ; .users.#=4 ; .users.name:admin={"channels":[],"disabled":false,"display_name":"","email":"","follows":[],"groups":[],"name":"admin","recovery":true,"role":"admin","service":false,"sso":false} ; .users.name:sven={"channels":[],"disabled":true,"display_name":"Sven","email":"","follows":["stable"],"groups":[],"name":"sven","recovery":false,"role":"member","service":false,"sso":true}
    POST /api/users/con?role=owner => 400 invalid user name
    POST /api/users/{129*n} => 400 invalid user name
    POST /api/users/x?role=owner&channels=a,,b => 400 role must be admin, member or publisher
    POST /api/users/x?channels=missing => 400 ?channels= only applies to role publisher
    POST /api/users/x?role=member&channels=a&service=1 => 400 ?channels= only applies to role publisher
    POST /api/users/x?role=publisher&channels=a,,b => 400 invalid channel name in ?channels=
    POST /api/users/x?role=publisher&channels=a,missing => 404 channel 'missing' does not exist
    POST /api/users/taken?role=publisher&channels=gone => 404 channel 'gone' does not exist
    POST /api/users/taken?service=1 => 409 user already exists
    POST /api/users/x?service=true&role=admin => 400 service accounts always have role publisher
    file users/x.json absent
    POST /api/users/bob?role=&service=yes => 200 keys=created_at,groups,name,role,schema_version ; =@users/bob.json ; .role="member"
    POST /api/users/ci?service=1&role=publisher => 200 keys=channels,created_at,groups,name,role,schema_version,service ; =@users/ci.json ; .channels=[]
    # A trailing comma ends the list; profile text is cleaned and cut.
    POST /api/users/pub?role=publisher&channels=b,a,&display_name=Pub\tLisher\n&email={300*e} => 200 =@users/pub.json ; .channels=["b","a"] ; .display_name="Pub Lisher " ; .email="{256*e}"
    POST /api/users/bea?display_name=&email= => 200 =@users/bea.json ; .display_name! ; .email!
    # An unreadable record is not found but still takes the name.
    write users/broken.json {"name":
    DELETE /api/users/broken => 404 user not found
    POST /api/users/broken/role?value=member => 404 user not found
    POST /api/users/broken => 409 user already exists
    file users/broken.json is={"name":
    # Deletion takes the user and exactly its tokens, and leaves its groups.
    user bob2 member | user eve member | write tokens/junk.json ["bob2"] | group team
    set users/bob2.json .groups=["team"]
  )");
  vars_["again"] = mintFor("bob2", "bob-2");
  walk(R"(
    DELETE /api/users/bob2 => 200 {"deleted":"bob2","tokens_removed":2}
    bob2,again GET /api/me => 401
    eve GET /api/me => 200
    file users/bob2.json absent | file groups/team.json exists
    DELETE /api/users/bob2 => 404 user not found
  )");
}

TEST_F(UsersApi, TheRecoveryAccountAndTheLastAdmin) {
  // The recovery rule is checked before the last-admin rule, and holds beside other admins.
  for (const char* more : {"", "user root0 admin"}) {
    walk(std::string(more) + R"(
      DELETE /api/users/admin => 409 'admin' is the recovery account and cannot be deleted - it is how you get back in if every other sign-in is lost
      POST /api/users/admin/role?value=publisher => 409 'admin' is the recovery account and cannot be demoted - it is how you get back in if every other sign-in is lost
      POST /api/users/admin/disabled?value=true => 409 'admin' is the recovery account and cannot be disabled - it is how you get back in if every other sign-in is lost
    )");
  }
  walk(R"(
    POST /api/users/admin/disabled?value=false => 200 =@users/admin.json ; .disabled=false
    POST /api/users/admin/role?value=admin => 200 =@users/admin.json ; .role="admin"
  )");
}

TEST_F(UsersApi, TheLastAdminStaysUntilAnotherExistsEvenADisabledOne) {
  walk(R"(
    user root admin
    root DELETE /api/users/root => 409 cannot delete the last admin
    # Checked before the allow-list is looked at.
    root POST /api/users/root/role?value=member => 409 cannot demote the last admin
    root POST /api/users/root/role?value=publisher&channels=nope => 409 cannot demote the last admin
    user spare admin | set users/spare.json .disabled=true
    root POST /api/users/root/role?value=member => 200 =@users/root.json
    set users/root.json .role="admin"
    root DELETE /api/users/root => 200 {"deleted":"root","tokens_removed":1}
  )");
}

TEST_F(UsersApi, RoleChecksInOrderAndChangesKeepAllButTheAllowList) {
  walk(R"(
    channel beta | channel stable | user bob member | user ci publisher service
    POST /api/users/con/role?value=nobody => 400 invalid user name
    POST /api/users/ghost/role => 400 ?value= must be admin, member or publisher
    POST /api/users/ghost/role?value=member&channels=beta => 400 ?channels= only applies to role publisher
    POST /api/users/ghost/role?value=member => 404 user not found
    POST /api/users/ci/role?value=admin => 400 service accounts always have role publisher
    POST /api/users/bob/role?value=publisher&channels=beta,,x => 400 invalid channel name in ?channels=
    POST /api/users/bob/role?value=publisher&channels=beta,nope => 404 channel 'nope' does not exist
    file users/bob.json .role="member"
    user pat publisher beta | set users/pat.json .follows=["stable"]
    POST /api/users/pat/role?value=publisher => 200 =@users/pat.json ; .channels=["beta"]
    POST /api/users/pat/role?value=publisher&channels=stable, => 200 =@users/pat.json ; .channels=["stable"]
    POST /api/users/pat/role?value=member => 200 =@users/pat.json ; .channels!
    POST /api/users/pat/role?value=publisher => 200 =@users/pat.json ; .channels=[] ; .follows=["stable"]
    # A list stored on another role (given at creation) is kept on becoming publisher.
    user mo member beta
    POST /api/users/mo/role?value=publisher => 200 =@users/mo.json ; .channels=["beta"]
    POST /api/users/ci/role?value=publisher&channels=beta => 200 =@users/ci.json ; .service=true
  )");
}

TEST_F(UsersApi, GroupsFollowsDisablingAndProfile) {
  walk(R"(
    user bob member | group team | channel beta
    POST /api/users/con/groups => 400 invalid user name
    POST /api/users/ghost/groups => 400 missing or invalid ?group= parameter
    POST /api/users/ghost/groups?group=nope => 404 user not found
    POST /api/users/bob/groups?group=nope => 404 group does not exist - create it first
    POST /api/users/ghost/channels?channel= => 400 missing or invalid ?channel= parameter
    POST /api/users/ghost/channels?channel=nope => 404 user not found
    POST /api/users/bob/channels?channel=nope => 404 channel does not exist - create it first
    file users/bob.json .groups=[]
    DELETE /api/users/bob/channels?channel=x => 200 =@users/bob.json ; .follows=[]
    2* POST /api/users/bob/groups?group=team => 200 =@users/bob.json ; .groups=["team"]
    2* POST /api/users/bob/channels?channel=beta => 200 =@users/bob.json ; .follows=["beta"]
    # Removal takes every occurrence and asks nothing about existence.
    set users/bob.json .groups=["team","x","team"]
    DELETE /api/users/bob/groups?group=team => 200 =@users/bob.json ; .groups=["x"]
    DELETE /api/users/bob/groups?group=nope => 200 =@users/bob.json ; .groups=["x"]
    DELETE /api/users/bob/channels?channel=beta => 200 =@users/bob.json ; .follows=[]
    # Disabling suspends the tokens without touching them; only the exact word false re-enables.
    mark tokens/bob-token.json
    POST /api/users/bob/disabled => 200 =@users/bob.json ; .disabled=true
    bob GET /api/me => 401
    POST /api/users/bob/disabled?value=false => 200 =@users/bob.json ; .disabled=false
    bob GET /api/me => 200
    POST /api/users/bob/disabled?value=False => 200 .disabled=true
    bob GET /api/me => 401
    POST /api/users/bob/disabled?value=false => 200 .disabled=false
    unchanged tokens/bob-token.json
    # Profile applies only the parameters present; an empty value is stored as "".
    POST /api/users/ghost/profile => 404 user not found
    POST /api/users/bob/profile?display_name=Bob\x01&email=a@x => 200 =@users/bob.json ; .display_name="Bob "
    POST /api/users/bob/profile?email=new@x => 200 =@users/bob.json ; .display_name="Bob " ; .email="new@x"
    POST /api/users/bob/profile?display_name= => 200 =@users/bob.json ; .display_name=""
  )");
}

TEST_F(UsersApi, WriteFailuresAreReportedExceptOnCreation) {
  walk("user admin admin | channel beta | group team | user bob member | mark users/bob.json\n"
       "user ci publisher service");
  if (!blockWrites(userPath("bob")) || !blockWrites(tokenPath("deploy"))) GTEST_SKIP();
  walk(R"(
    POST /api/users/bob/groups?group=team => 500 could not update user
    POST /api/users/bob/channels?channel=beta => 500 could not update user
    POST /api/users/bob/disabled => 500 could not update user
    POST /api/users/bob/role?value=publisher => 500 could not update user
    POST /api/users/bob/profile?email=b@x => 500 could not update user
    unchanged users/bob.json
    # An unstorable token is not handed out.
    POST /api/users/ci/tokens?name=deploy => 500 could not store token
    file tokens/deploy.json absent
  )");
  // Creation answers the record even though it could not be stored.
  if (!blockWrites(userPath("zed"))) GTEST_SKIP();
  walk("POST /api/users/zed?role=publisher => 200 .name=\"zed\"\n file users/zed.json absent");
}

TEST_F(UsersApi, ServiceTokensChecksInOrderThenTheTokenIsShownOnce) {
  walk(R"(
    user ci publisher beta service | user bob member
    POST /api/users/con/tokens?name=t => 400 invalid user name
    POST /api/users/ghost/tokens => 404 user not found
    # People never get tokens here, administrators included; said before the name is read.
    POST /api/users/bob/tokens => 400 tokens can only be minted for service accounts - people redeem an invite
    POST /api/users/admin/tokens?name=t => 400 tokens can only be minted for service accounts - people redeem an invite
    POST /api/users/ci/tokens => 400 missing or invalid ?name= (token name)
    POST /api/users/ci/tokens?name=con => 400 missing or invalid ?name= (token name)
    # Token names are unique server-wide, whoever owns the existing one.
    POST /api/users/ci/tokens?name=bob-token => 409 token name already exists
    POST /api/users/ci/tokens?name=ci-token => 409 token name already exists
    file tokens/t.json absent
    POST /api/users/ci/tokens?name=deploy => 200 keys=name,schema_version,token,user ; .schema_version=1 ; .user="ci" ; .name="deploy" ; .token~[A-Za-z0-9]{48} ; $deploy=.token
    POST /api/users/ci/tokens?name=deploy-2 => 200 $second=.token
    file tokens/deploy.json .user="ci"
    deploy,second GET /api/me => 200 .name="ci"
    POST /api/users/ci/tokens?name=deploy => 409 token name already exists
  )");
  EXPECT_NE(vars_["deploy"], vars_["second"]);
  EXPECT_EQ(readBytes(tokenPath("deploy")).find(vars_["deploy"]), std::string::npos);
  EXPECT_EQ(readDoc(tokenPath("deploy"))["token_hash"], store::hashToken(vars_["deploy"]));
}

// Records changed behind the server's back are what the very next request sees.
TEST_F(UsersApi, MeSeesUserAndGroupFilesAsTheyAreNow) {
  walk(R"(
    group qa beta | group ops ops-1 | user mia member | set users/mia.json .groups=["qa","ops"]
    mia GET /api/me => 200 .channels=["beta","ops-1"] ; .role="member"
    set groups/qa.json .channels=["b2","b3"]
    mia GET /api/me => 200 .channels=["b2","b3","ops-1"]
    remove groups/ops.json
    mia GET /api/me => 200 .channels=["b2","b3"]
    write groups/qa.json {
    mia GET /api/me => 200 .channels=[]
    group ops ops-2 | write users/mia.json {"name":"mia","role":"publisher","groups":["ops"]}
    mia GET /api/me => 200 .channels=["ops-2"] ; .role="publisher"
    set users/mia.json .disabled=true
    mia GET /api/me => 401 missing or invalid token
    remove users/mia.json
    mia GET /api/me => 401 missing or invalid token
  )");
}


using GroupsApi = ApiTest;

TEST_F(GroupsApi, ListCreateAndDelete) {
  walk(R"(
    user mia member | user pete publisher | group team beta,stable | group empty | group managed
    set groups/managed.json .sso_managed=true | write groups/junk.json "not a record"
    set users/mia.json .groups=["team","managed"] | set users/pete.json .groups=["team"]
    mia GET /api/groups => 200 keys=groups,schema_version ; .groups.#=3 ; .groups.name:empty={"channels":[],"members":[],"name":"empty","sso_managed":false} ; .groups.name:managed={"channels":[],"members":["mia"],"name":"managed","sso_managed":true} ; .groups.name:team.channels=["beta","stable"] ; .groups.name:team.sso_managed=false ; .groups.name:team.members.#=2
    POST /api/groups/con => 400 invalid group name
    POST /api/groups/a%2Fb => 400 invalid group name
    POST /api/groups/crew => 200 keys=channels,created_at,name,schema_version ; =@groups/crew.json ; .channels=[]
    POST /api/groups/crew => 409 group already exists
    # Any file under the name counts as existing.
    write groups/broken.json {
    POST /api/groups/broken => 409 group already exists
    user u1 member | user u2 member | user u3 member | user u4 member | group other
    set users/u1.json .groups=["team"] | set users/u2.json .groups=["other","team","team"]
    set users/u3.json .groups=["team","other"] | set users/u4.json .groups=["other"]
    DELETE /api/groups/con => 400
    DELETE /api/groups/team => 200 {"deleted":"team","removed_from_users":5}
    file groups/team.json absent | file users/u1.json .groups=[] | file users/u2.json .groups=["other"]
    file users/u3.json .groups=["other"]
    DELETE /api/groups/team => 404 group not found
  )");
}

TEST_F(GroupsApi, ChannelAssignmentChecksAndIsIdempotent) {
  walk(R"(
    group team | channel beta
    POST /api/groups/con/channels?channel=beta => 400
    POST /api/groups/nope/channels => 400 missing or invalid ?channel= parameter
    DELETE /api/groups/nope/channels?channel=a\sb => 400 missing or invalid ?channel= parameter
    POST /api/groups/nope/channels?channel=missing => 404 group not found
    POST /api/groups/team/channels?channel=missing => 404 channel does not exist - create it first
    2* POST /api/groups/team/channels?channel=beta => 200 =@groups/team.json ; .channels=["beta"]
    # Unassigning needs no existing channel and succeeds with nothing to remove.
    mark groups/team.json
    DELETE /api/groups/team/channels?channel=x => 200 =@groups/team.json
    unchanged groups/team.json | group dups beta,x,beta
    DELETE /api/groups/dups/channels?channel=beta => 200 .channels=["x"]
  )");
}

TEST_F(GroupsApi, WriteFailures) {
  walk("user admin admin | channel beta | group team");
  if (!blockWrites(groupPath("team"))) GTEST_SKIP();
  walk(R"(
    POST /api/groups/team/channels?channel=beta => 500 could not update group
    DELETE /api/groups/team/channels?channel=beta => 500 could not update group
  )");
  if (!blockWrites(groupPath("fresh"))) GTEST_SKIP();
  walk(R"(
    POST /api/groups/fresh => 500 could not create group
    file groups/fresh.json absent | user u1 member | user u2 member
    set users/u1.json .groups=["team"] | set users/u2.json .groups=["team"]
  )");
  // A member whose record cannot be rewritten still counts as removed.
  if (!blockWrites(userPath("u2"))) GTEST_SKIP();
  walk(R"(
    DELETE /api/groups/team => 200 {"deleted":"team","removed_from_users":2}
    file users/u1.json .groups=[] | file users/u2.json .groups=["team"]
  )");
}

TEST_F(GroupsApi, MeTellsTheCallerWhoItIsAndWhatToFollow) {
  walk(R"(
    user mia publisher zeta | group g1 a,c | group g2 c,d | set users/mia.json .follows=["b","a"]
    set users/mia.json .groups=["g1","deleted-by-hand","g2"]
    mia GET /api/me => 200 {"channels":["b","a","c","d"],"groups":["g1","deleted-by-hand","g2"],"name":"mia","role":"publisher","schema_version":1}
    user bob member
    bob GET /api/me => 200 {"channels":[],"groups":[],"name":"bob","role":"member","schema_version":1}
  )");
  // The handler resolves the caller itself, gate or not.
  const std::string token = vars_["mia"];
  for (const Req& req : {Req("GET", "/api/me"), Req("GET", "/api/me").bearer(token + "x"),
                         Req("GET", "/api/me").header("authorization", "bearer " + token)}) {
    EXPECT_TRUE(isError(api::me(req.build(), ctx()), 401, "missing or invalid token"));
  }
  EXPECT_EQ(api::me(Req("GET", "/api/me").header("AUTHORIZATION", "Bearer " + token).build(), ctx())
                .status,
            200u);
}

}  // namespace
}  // namespace quill::test
