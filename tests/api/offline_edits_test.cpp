// User and group records changed behind the server's back (by hand, by a restore, by another
// process) are what the very next request sees, whatever the server keeps in memory.

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "support/api_fixture.h"

namespace quill::test {
namespace {

using OfflineEditTest = ApiTest;

TEST_F(OfflineEditTest, MeSeesUserAndGroupFilesAsTheyAreNow) {
  seedGroup("qa", {"beta"});
  seedGroup("ops", {"ops-1"});
  const std::string token = seedUser("mia", "member");
  setMember(userPath("mia"), "groups", strings({"qa", "ops"}));
  auto me = [&] { return send(Req("GET", "/api/me").bearer(token)); };
  ASSERT_EQ(bodyOf(me())["channels"], strings({"beta", "ops-1"}));

  struct Step {
    const char* what;
    std::function<void()> edit;
    unsigned status;
    Json::Value channels;
    const char* role;
  };
  const std::vector<Step> steps = {
      {"group rewritten",
       [&] {
         setMember(groupPath("qa"), "channels", strings({"b2", "b3"}));
       },
       200, strings({"b2", "b3", "ops-1"}), "member"},
      {"group edited in place",
       [&] { writeText(groupPath("qa"), R"({"name":"qa","channels":["hand"]})"); }, 200,
       strings({"hand", "ops-1"}), "member"},
      {"group deleted", [&] { fs::remove(groupPath("ops")); }, 200, strings({"hand"}), "member"},
      {"group broken", [&] { writeText(groupPath("qa"), "{"); }, 200, strings({}), "member"},
      {"group back", [&] { seedGroup("ops", {"ops-2"}); }, 200, strings({"ops-2"}), "member"},
      {"user edited in place",
       [&] { writeText(userPath("mia"), R"({"name":"mia","role":"publisher","groups":["ops"]})"); },
       200, strings({"ops-2"}), "publisher"},
      {"user disabled", [&] { setMember(userPath("mia"), "disabled", true); }, 401, {}, nullptr},
      {"user enabled", [&] { setMember(userPath("mia"), "disabled", false); }, 200,
       strings({"ops-2"}), "publisher"},
      {"user deleted", [&] { fs::remove(userPath("mia")); }, 401, {}, nullptr},
  };
  for (const Step& step : steps) {
    step.edit();
    http::Response res = me();
    if (step.status != 200) {
      EXPECT_TRUE(isError(res, step.status, "missing or invalid token")) << step.what;
      continue;
    }
    ASSERT_TRUE(isOk(res)) << step.what;
    EXPECT_EQ(bodyOf(res)["channels"], step.channels) << step.what;
    EXPECT_EQ(bodyOf(res)["role"].asString(), step.role) << step.what;
  }
}

}  // namespace
}  // namespace quill::test
