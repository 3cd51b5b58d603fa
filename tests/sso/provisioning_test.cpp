// Provisioning from verified claims: the derived name and the role and group mapping. The whole
// sign-in, with the user found again by subject, is in sso_api_test.cpp.

#include "sso/provisioning.h"

#include <gtest/gtest.h>

#include "store/users.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

using sso::Mapping;

Json::Value claimsOf(std::initializer_list<std::pair<const char*, Json::Value>> members) {
  Json::Value claims(Json::objectValue);
  for (const auto& [name, value] : members) claims[name] = value;
  return claims;
}

class Provisioning : public ApiTest {};

TEST_F(Provisioning, NamesAreDerivedFromTheClaimsAndMadeFree) {
  const std::pair<Json::Value, const char*> cases[] = {
      {claimsOf({{"preferred_username", "Ann.Lee@example.com"}, {"email", "x@y"}}), "ann.lee"},
      {claimsOf({{"preferred_username", ""}, {"email", "Bob_K@example.com"}}), "bob_k"},
      {claimsOf({{"preferred_username", "J\xc3\xb6rg M\xc3\xbcller!"}}), "jrgmller"},
      {claimsOf({{"preferred_username", "@example.com"}}), "sso-user"},
      {claimsOf({{"preferred_username", "con"}}), "sso-user"},  // a reserved device name
      {claimsOf({{"preferred_username", ".."}}), "sso-user"},
      {claimsOf({{"preferred_username", 42}}), "sso-user"},
      {claimsOf({}), "sso-user"},
  };
  for (const auto& [claims, name] : cases) {
    EXPECT_EQ(sso::derivedUserName(data(), claims), name) << claims;
  }
  seedUser("ann.lee", "member");
  seedUser("ann.lee-2", "member");
  EXPECT_EQ(sso::derivedUserName(data(), claimsOf({{"preferred_username", "Ann.Lee@x"}})),
            "ann.lee-3");

  // Long names are cut only as far as a suffix needs, within the 128-byte name rule.
  const std::string longest(128, 'q');
  const std::string someLong(125, 'r');
  for (const std::string& name : {longest, someLong}) {
    EXPECT_EQ(sso::derivedUserName(data(), claimsOf({{"preferred_username", name}})), name);
  }
  seedUser(longest, "member");
  seedUser(someLong, "member");
  EXPECT_EQ(sso::derivedUserName(data(), claimsOf({{"preferred_username", longest}})),
            longest.substr(0, 126) + "-2");
  EXPECT_EQ(sso::derivedUserName(data(), claimsOf({{"preferred_username", someLong}})),
            someLong + "-2");
  // The token minted for such a user is named within the rule too.
  auto token = sso::mintSsoToken(data(), longest);
  ASSERT_TRUE(token);
  EXPECT_EQ(token.value().name.size(), 128u);
  EXPECT_EQ(readDoc(tokenPath(token.value().name))["user"], longest);
}

TEST_F(Provisioning, TheHighestMappedRoleWinsElseTheDefault) {
  Mapping mapping;
  mapping.rolesClaim = "realm_roles";
  mapping.defaultRole = "publisher";
  mapping.roles = {{"ops", "admin"}, {"dev", "publisher"}, {"staff", "member"}};
  const std::pair<Json::Value, const char*> cases[] = {
      {strings({"staff", "ops", "dev"}), "admin"},
      {strings({"staff", "dev"}), "publisher"},
      {strings({"staff"}), "member"},
      {Json::Value("ops"), "admin"},
      {strings({"unknown"}), "publisher"},
      {Json::Value(7), "publisher"},
  };
  for (const auto& [value, role] : cases) {
    EXPECT_EQ(sso::mappedRole(mapping, claimsOf({{"realm_roles", value}})), role) << value;
  }
  EXPECT_EQ(sso::mappedRole(mapping, claimsOf({{"roles", "ops"}})), "publisher");
}

TEST_F(Provisioning, MappedGroupsFollowTheClaimsAndManualMembershipsSurvive) {
  seedGroup("beta");
  seedGroup("alpha");
  seedGroup("manual");
  Mapping mapping;
  mapping.groups = {{"b", "beta"}, {"a", "alpha"}, {"gone", "deleted"}, {"a2", "alpha"}};
  const Json::Value current = strings({"beta", "manual", "deleted", "other"});
  EXPECT_EQ(sso::mappedGroups(data(), mapping, current,
                              claimsOf({{"groups", strings({"b", "a", "a2", "gone"})}})),
            strings({"manual", "other", "alpha", "beta"}));
  EXPECT_EQ(sso::mappedGroups(data(), mapping, current, claimsOf({})),
            strings({"manual", "other"}));
}

TEST_F(Provisioning, AFailedSaveIsReported) {
  seedUser("eve", "member");
  setMember(userPath("eve"), "sso_subject", "s-e");
  if (!blockWrites(userPath("eve"))) GTEST_SKIP() << "no immutable files here";
  EXPECT_EQ(sso::provisionUser(data(), Mapping{}, claimsOf({{"sub", "s-e"}})).error(),
            "could not save the user");
}

}  // namespace
}  // namespace quill::test
