// Groups and /api/me: listing with computed members, creation, deletion from every user,
// channel assignment, write failures, and what the caller is told about itself.

#include "api/groups.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

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
