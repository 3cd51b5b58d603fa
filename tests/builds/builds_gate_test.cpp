// Who may call the build and channel routes, through the real gate in front of the route table:
// publishers within their allow-list, members reading only, anonymous callers reading public
// channels and the builds they currently point at.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builds/builds_fixture.h"

namespace quill {
namespace {

using test::bodyOf;
using test::Call;
using test::isError;
using test::isOk;
using test::readBytes;

namespace fs = std::filesystem;

constexpr const char* kMissingToken = "missing or invalid token";
constexpr const char* kOutsideScope = "outside this publisher's scope";
constexpr const char* kAdminOnly = "this operation requires the admin role";

// The read routes of both areas, for a build b1 holding app.bin and a channel beta.
std::vector<Call> reads() {
  return {Call("GET", "/api/builds"), Call("GET", "/api/builds/b1"),
          Call("GET", "/api/builds/b1/files").q("path", "app.bin"), Call("GET", "/api/channels"),
          Call("GET", "/api/channels/beta")};
}

class BuildsGateTest : public test::BuildsTest {
 protected:
  void SetUp() override {
    BuildsTest::SetUp();
    makeBuild("b1");
    ASSERT_TRUE(isOk(createChannel("beta")));
    ASSERT_TRUE(isOk(createChannel("nightly")));
  }
};

TEST_F(BuildsGateTest, PublisherUploadsAnyBuildAndPromotesOnlyItsOwnChannels) {
  const std::string pete = seedUser("pete", "publisher", {"beta", "fresh"});
  for (const auto& read : reads()) {
    Call call = read;
    EXPECT_TRUE(isOk(send(call.as(pete)))) << call.build().path;
  }

  EXPECT_TRUE(
      isOk(send(Call("PUT", "/api/builds/any-build/files").q("path", "x.bin").body("x").as(pete))));
  EXPECT_TRUE(isOk(send(Call("POST", "/api/builds/any-build/finalize").as(pete))));
  EXPECT_TRUE(
      isOk(send(Call("POST", "/api/channels/beta/promote").q("build", "any-build").as(pete))));
  EXPECT_TRUE(isOk(send(Call("POST", "/api/channels/fresh").as(pete))));

  const std::string nightly = readBytes(channelFile("nightly"));
  const std::vector<Call> refused = {
      Call("POST", "/api/channels/nightly/promote").q("build", "any-build"),
      Call("POST", "/api/channels/other"),
      Call("POST", "/api/builds/any-build/disabled").q("value", "true"),
      Call("DELETE", "/api/builds/b1"),
      Call("DELETE", "/api/channels/beta"),
      Call("POST", "/api/channels/beta/public").q("value", "true"),
      Call("POST", "/api/channels/beta/launch").body(R"({"launch_targets":[]})"),
  };
  for (const auto& r : refused) {
    Call call = r;
    EXPECT_TRUE(isError(send(call.as(pete)), 403, kOutsideScope))
        << call.build().method << " " << call.build().path;
  }
  EXPECT_EQ(readBytes(channelFile("nightly")), nightly);
  EXPECT_FALSE(fs::exists(channelFile("other")));
  EXPECT_FALSE(fs::exists(buildDir("any-build") / "state.json"));
  EXPECT_TRUE(fs::exists(buildDir("b1")));
  EXPECT_FALSE(readDoc(channelFile("beta")).isMember("public"));
}

TEST_F(BuildsGateTest, MemberReadsButNeverWrites) {
  const std::string mia = seedUser("mia", "member");
  for (const auto& read : reads()) {
    Call call = read;
    EXPECT_TRUE(isOk(send(call.as(mia)))) << call.build().path;
  }
  const std::vector<Call> writes = {
      Call("PUT", "/api/builds/b2/files").q("path", "x.bin").body("x"),
      Call("POST", "/api/builds/b1/finalize"),
      Call("POST", "/api/builds/b1/disabled"),
      Call("DELETE", "/api/builds/b1"),
      Call("POST", "/api/channels/other"),
      Call("POST", "/api/channels/beta/promote").q("build", "b1"),
      Call("POST", "/api/channels/beta/public").q("value", "true"),
      Call("POST", "/api/channels/beta/launch").body(R"({"launch_targets":[]})"),
      Call("DELETE", "/api/channels/beta"),
  };
  for (const auto& w : writes) {
    Call call = w;
    EXPECT_TRUE(isError(send(call.as(mia)), 403, kAdminOnly))
        << call.build().method << " " << call.build().path;
  }
  EXPECT_FALSE(fs::exists(buildDir("b2")));
  EXPECT_FALSE(fs::exists(channelFile("other")));
  EXPECT_EQ(readDoc(channelFile("beta"))["build"], "");
}

TEST_F(BuildsGateTest, AnonymousCallersReadPublicChannelsAndTheirCurrentBuildOnly) {
  makeBuild("b0", {{"old.bin", "old"}});
  makeBuild("b2", {{"secret.bin", "secret"}});
  ASSERT_TRUE(isOk(createChannel("stable")));
  ASSERT_TRUE(isOk(promote("stable", "b0")));
  ASSERT_TRUE(isOk(promote("stable", "b1")));
  ASSERT_TRUE(isOk(setPublic("stable", "true")));
  ASSERT_TRUE(isOk(promote("beta", "b2")));

  for (const std::string token : {"", "not-a-known-token"}) {
    auto channel = send(Call("GET", "/api/channels/stable").as(token));
    ASSERT_TRUE(isOk(channel)) << token;
    EXPECT_EQ(bodyOf(channel), readDoc(channelFile("stable")));
    auto manifest = send(Call("GET", "/api/builds/b1").as(token));
    ASSERT_TRUE(isOk(manifest));
    EXPECT_EQ(bodyOf(manifest)["channels"], test::strings({"stable"}));
    auto file = send(Call("GET", "/api/builds/b1/files").q("path", "app.bin").as(token));
    ASSERT_TRUE(isOk(file));
    EXPECT_EQ(readBytes(file.file), "bytes");
    // Past the gate, the handler's own answers apply.
    EXPECT_TRUE(isError(send(Call("GET", "/api/builds/b1/files").q("path", "no.bin").as(token)),
                        404, "file not found"));

    const std::vector<Call> refused = {
        Call("GET", "/api/channels"),
        Call("GET", "/api/builds"),
        Call("GET", "/api/channels/beta"),
        Call("GET", "/api/channels/nosuch"),
        Call("GET", "/api/builds/b2"),
        Call("GET", "/api/builds/b2/files").q("path", "secret.bin"),
        Call("GET", "/api/builds/b0"),  // was on the public channel, no longer current
        Call("GET", "/api/builds/b0/files").q("path", "old.bin"),
        Call("PUT", "/api/builds/b1/files").q("path", "app.bin").body("changed"),
        Call("POST", "/api/builds/b1/finalize"),
        Call("POST", "/api/channels/stable/promote").q("build", "b2"),
        Call("POST", "/api/channels/stable/public").q("value", "false"),
        Call("DELETE", "/api/builds/b1"),
    };
    for (const auto& r : refused) {
      Call call = r;
      EXPECT_TRUE(isError(send(call.as(token)), 401, kMissingToken))
          << call.build().method << " " << call.build().path;
    }
  }

  // Making the channel private closes it and its build at the next request.
  ASSERT_TRUE(isOk(setPublic("stable", "false")));
  EXPECT_TRUE(isError(send(Call("GET", "/api/channels/stable")), 401, kMissingToken));
  EXPECT_TRUE(isError(send(Call("GET", "/api/builds/b1")), 401, kMissingToken));
  EXPECT_TRUE(
      isError(send(Call("GET", "/api/builds/b1/files").q("path", "app.bin")), 401, kMissingToken));
}

TEST_F(BuildsGateTest, OnARillOnlyServerTheGateStillAnswersFirst) {
  start(true);
  EXPECT_TRUE(isError(send(Call("PUT", "/api/builds/bad id/files")), 401, kMissingToken));
  const std::string mia = seedUser("mia", "member");
  EXPECT_TRUE(
      isError(send(Call("PUT", "/api/builds/b3/files").q("path", "a").as(mia)), 403, kAdminOnly));
  const std::string pete = seedUser("pete", "publisher", {"beta"});
  EXPECT_TRUE(isError(send(Call("PUT", "/api/builds/bad id/files").as(pete)), 403,
                      "this server is Rill-only: Barge uploads are not accepted"));
}

}  // namespace
}  // namespace quill
