// Provisioning from verified claims: the derived name and the role and group mapping. The whole
// sign-in, with the user found again by subject, is in sso_api_test.cpp.

#include "sso/provisioning.h"

#include "support/api_fixture.h"

namespace quill::test {
namespace {

class Provisioning : public ApiTest {
 protected:
  std::string nameFor(const Json::Value& username) {
    Json::Value claims(Json::objectValue);
    if (!username.isNull()) claims["preferred_username"] = username;
    return sso::derivedUserName(data(), claims);
  }
};

TEST_F(Provisioning, NamesAreDerivedFromTheClaimsAndMadeFree) {
  EXPECT_EQ(sso::derivedUserName(
                data(), parseJson(R"({"preferred_username":"Ann.Lee@example.com","email":"x@y"})")),
            "ann.lee");
  EXPECT_EQ(sso::derivedUserName(
                data(), parseJson(R"({"preferred_username":"","email":"Bob_K@example.com"})")),
            "bob_k");
  // Unusable names: "con" is a reserved device name.
  for (const Json::Value& bad : {Json::Value("@example.com"), Json::Value("con"), Json::Value(".."),
                                 Json::Value(42), Json::Value()})
    EXPECT_EQ(nameFor(bad), "sso-user") << bad;
  EXPECT_EQ(nameFor("J\xc3\xb6rg M\xc3\xbcller!"), "jrgmller");
  // Long names are cut only as far as a suffix needs, within the 128-byte name rule.
  const std::string longest(128, 'q'), someLong(125, 'r');
  EXPECT_EQ(nameFor(longest) + nameFor(someLong), longest + someLong);
  for (const char* name : {"ann.lee", "ann.lee-2"}) seedUser(name, "member");
  seedUser(longest, "member");
  seedUser(someLong, "member");
  EXPECT_EQ(nameFor("Ann.Lee@x"), "ann.lee-3");
  EXPECT_EQ(nameFor(longest), longest.substr(0, 126) + "-2");
  EXPECT_EQ(nameFor(someLong), someLong + "-2");
  // The token minted for such a user is named within the rule too.
  auto token = sso::mintSsoToken(data(), longest).value();
  EXPECT_EQ(token.name.size(), 128u);
  EXPECT_EQ(readDoc(tokenPath(token.name))["user"], longest);
}

TEST_F(Provisioning, TheHighestMappedRoleWinsElseTheDefaultAndGroupsFollowTheClaims) {
  sso::Mapping mapping;
  mapping.rolesClaim = "realm_roles";
  mapping.defaultRole = "publisher";
  mapping.roles = {{"ops", "admin"}, {"dev", "publisher"}, {"staff", "member"}};
  for (const auto& [claims, role] : std::vector<std::pair<std::string, std::string>>{
           {R"({"realm_roles":["staff","ops","dev"]})", "admin"},
           {R"({"realm_roles":["staff","dev"]})", "publisher"},
           {R"({"realm_roles":["staff"]})", "member"},
           {R"({"realm_roles":"ops"})", "admin"},
           {R"({"realm_roles":["unknown"]})", "publisher"},
           {R"({"realm_roles":7})", "publisher"},
           {R"({"roles":"ops"})", "publisher"}}) {
    EXPECT_EQ(sso::mappedRole(mapping, parseJson(claims)), role) << claims;
  }
  for (const char* group : {"beta", "alpha", "manual"}) seedGroup(group);
  mapping.groups = {{"b", "beta"}, {"a", "alpha"}, {"gone", "deleted"}, {"a2", "alpha"}};
  const Json::Value current = strings({"beta", "manual", "deleted", "other"});
  EXPECT_EQ(
      sso::mappedGroups(data(), mapping, current, parseJson(R"({"groups":["b","a","a2","gone"]})")),
      strings({"manual", "other", "alpha", "beta"}));
  EXPECT_EQ(sso::mappedGroups(data(), mapping, current, parseJson("{}")),
            strings({"manual", "other"}));
}

TEST_F(Provisioning, AFailedSaveIsReported) {
  seedUser("eve", "member");
  setMember(userPath("eve"), "sso_subject", "s-e");
  if (!blockWrites(userPath("eve"))) GTEST_SKIP() << "no immutable files here";
  EXPECT_EQ(sso::provisionUser(data(), {}, parseJson(R"({"sub":"s-e"})")).error(),
            "could not save the user");
}

}  // namespace
}  // namespace quill::test
