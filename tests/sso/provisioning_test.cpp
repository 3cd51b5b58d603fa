// Provisioning from verified claims: the derived name, the role and group mapping, the user found
// again by subject, and the single sign-on token.

#include "sso/provisioning.h"

#include <gtest/gtest.h>

#include <regex>

#include "store/tokens.h"
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

TEST_F(Provisioning, TheSameSubjectFindsTheSameUserAndItsRecordFollowsTheClaims) {
  seedGroup("qa");
  Mapping mapping;
  mapping.roles = {{"dev", "publisher"}};
  mapping.groups = {{"qa", "qa"}};
  auto first = sso::provisionUser(
      data(), mapping,
      claimsOf(
          {{"sub", "s-1"}, {"preferred_username", "ann"}, {"roles", "dev"}, {"groups", "qa"}}));
  ASSERT_TRUE(first) << first.error();
  Json::Value stored = readDoc(userPath("ann"));
  EXPECT_EQ(stored["role"], "publisher");
  EXPECT_EQ(stored["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(stored["groups"], strings({"qa"}));
  EXPECT_EQ(stored["sso_subject"], "s-1");
  EXPECT_EQ(stored["sso"], true);
  EXPECT_TRUE(isUtcStamp(stored["sso_last_login"]));

  // Renamed at the provider and without the group now: same user, group dropped, default role.
  auto again = sso::provisionUser(data(), mapping,
                                  claimsOf({{"sub", "s-1"}, {"preferred_username", "other"}}));
  ASSERT_TRUE(again) << again.error();
  EXPECT_EQ(again.value()["name"], "ann");
  EXPECT_EQ(readDoc(userPath("ann"))["groups"], Json::Value(Json::arrayValue));
  EXPECT_EQ(readDoc(userPath("ann"))["role"], "member");
  EXPECT_FALSE(fs::exists(userPath("other")));
}

TEST_F(Provisioning, RefusalsChangeNothing) {
  EXPECT_EQ(sso::provisionUser(data(), Mapping{}, claimsOf({{"sub", ""}})).error(),
            "token has no subject");
  EXPECT_EQ(sso::provisionUser(data(), Mapping{}, claimsOf({{"sub", 5}})).error(),
            "token has no subject");
  seedUser("dora", "admin");
  setMember(userPath("dora"), "sso_subject", "s-d");
  setMember(userPath("dora"), "disabled", true);
  const std::string before = readBytes(userPath("dora"));
  EXPECT_EQ(sso::provisionUser(data(), Mapping{}, claimsOf({{"sub", "s-d"}})).error(),
            "this account is disabled - ask the admin");
  EXPECT_EQ(readBytes(userPath("dora")), before);

  seedUser("eve", "member");
  setMember(userPath("eve"), "sso_subject", "s-e");
  blockWrites(userPath("eve"));
  EXPECT_EQ(sso::provisionUser(data(), Mapping{}, claimsOf({{"sub", "s-e"}})).error(),
            "could not save the user");
}

TEST_F(Provisioning, SsoTokensResolveForADayAndAreNamedAfterTheUser) {
  seedUser("ann", "member");
  auto token = sso::mintSsoToken(data(), "ann");
  ASSERT_TRUE(token) << token.error();
  EXPECT_TRUE(std::regex_match(token.value().name, std::regex("ann-sso-[A-Za-z0-9]{8}")));
  Json::Value record = readDoc(tokenPath(token.value().name));
  EXPECT_EQ(record["sso"], true);
  EXPECT_TRUE(isUtcStamp(record["sso_validated_at"]));
  EXPECT_EQ(record["token_hash"], store::hashToken(token.value().text));
  EXPECT_TRUE(store::resolveToken(data(), token.value().text));
  setMember(tokenPath(token.value().name), "sso_validated_at", "2020-01-01T00:00:00Z");
  EXPECT_FALSE(store::resolveToken(data(), token.value().text));
}

}  // namespace
}  // namespace quill::test
