// Service-account tokens minted over the API: the checks in order, a secret shown once and
// stored only as its hash.

#include "store/tokens.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

using ServiceTokensApi = ApiTest;

TEST_F(ServiceTokensApi, ChecksInOrderThenTheTokenIsShownOnce) {
  walk(R"(
    user ci publisher beta service
    user bob member
    POST /api/users/con/tokens?name=t => 400 invalid user name
    POST /api/users/ghost/tokens => 404 user not found
    # People never get tokens here, administrators included; said before the name is read.
    POST /api/users/bob/tokens => 400 tokens can only be minted for service accounts - people redeem an invite
    POST /api/users/admin/tokens?name=t => 400 tokens can only be minted for service accounts - people redeem an invite
    POST /api/users/ci/tokens => 400 missing or invalid ?name= (token name)
    POST /api/users/ci/tokens?name= => 400 missing or invalid ?name= (token name)
    POST /api/users/ci/tokens?name=con => 400 missing or invalid ?name= (token name)
    POST /api/users/ci/tokens?name=a\sb => 400 missing or invalid ?name= (token name)
    POST /api/users/ci/tokens?name=.. => 400 missing or invalid ?name= (token name)
    # Token names are unique server-wide, whoever owns the existing one.
    POST /api/users/ci/tokens?name=bob-token => 409 token name already exists
    POST /api/users/ci/tokens?name=ci-token => 409 token name already exists
    file tokens/t.json absent
    POST /api/users/ci/tokens?name=deploy => 200 keys=name,schema_version,token,user ; .schema_version=1 ; .user="ci" ; .name="deploy" ; .token~[A-Za-z0-9]{48} ; $deploy=.token
    POST /api/users/ci/tokens?name=deploy-2 => 200 $second=.token
    file tokens/deploy.json .user="ci"
    $deploy GET /api/me => 200 .name="ci"
    $second GET /api/me => 200 .name="ci"
    POST /api/users/ci/tokens?name=deploy => 409 token name already exists
  )");
  EXPECT_NE(vars_["deploy"], vars_["second"]);
  EXPECT_EQ(readBytes(tokenPath("deploy")).find(vars_["deploy"]), std::string::npos);
  EXPECT_EQ(readDoc(tokenPath("deploy"))["token_hash"], store::hashToken(vars_["deploy"]));
}

TEST_F(ServiceTokensApi, AnUnstorableTokenIsNotHandedOut) {
  walk("user ci publisher beta service\n user admin admin");  // before the directory is blocked
  if (!blockWrites(tokenPath("deploy"))) GTEST_SKIP() << "no immutable files here";
  walk("POST /api/users/ci/tokens?name=deploy => 500 could not store token\n file tokens/deploy.json absent");
}

}  // namespace
}  // namespace quill::test
