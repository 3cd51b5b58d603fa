// The channel routes in-process through the route table and the gate: creation and its engine
// rules, reading and listing, promotion, the public flag, launch targets and deletion.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http/json.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kBadName = "invalid channel name";
constexpr const char* kNotFound = "channel not found";
constexpr const char* kBadEngine = "engine must be 'barge' or 'rill'";
constexpr const char* kRillOnly =
    "this server is Rill-only: create the channel with engine=rill and publish with "
    "quillmoor-rill";
constexpr const char* kExists = "channel already exists";
constexpr const char* kBadBuild = "missing or invalid ?build= parameter";
constexpr const char* kBuildMissing = "build not found or not finalized";
constexpr const char* kBadPublic = "?value= must be true or false";
constexpr const char* kBadLaunchBody = R"(body must be JSON {"launch_targets": [ ... ]})";
constexpr const char* kTooManyTargets = "at most 32 launch targets per channel";
constexpr const char* kNotObject = "each launch target must be an object";
constexpr const char* kBadLabel = "launch target 'label' must be 1..128 characters";
constexpr const char* kBadExe =
    "launch target 'exe' must be a safe install-relative path (no '..', no drive, forward "
    "slashes)";
constexpr const char* kLongArgs = "launch target 'args' too long";
constexpr const char* kTwoPrimaries = "at most one launch target can be marked primary";

// A launch-target element as JSON text.
std::string target(const std::string& label, const std::string& exe = "bin/game.exe",
                   const std::string& more = "") {
  Json::Value t(Json::objectValue);
  t["label"] = label;
  t["exe"] = exe;
  std::string text = http::toCompactJson(t);
  if (!more.empty()) text.insert(text.size() - 1, "," + more);
  return text;
}

std::string launchBody(const std::vector<std::string>& targets) {
  std::string text = R"({"launch_targets":[)";
  for (std::size_t i = 0; i < targets.size(); ++i) text += (i ? "," : "") + targets[i];
  return text + "]}";
}

class ChannelApiTest : public ApiTest {
 protected:
  void SetUp() override { start(false); }
  http::Response readChannel(const std::string& name) {
    return asAdmin(Req("GET", "/api/channels/" + name));
  }
  http::Response deleteChannel(const std::string& name) {
    return asAdmin(Req("DELETE", "/api/channels/" + name));
  }
  http::Response listChannels() { return asAdmin(Req("GET", "/api/channels")); }
  http::Response setLaunch(const std::string& channel, const std::string& body) {
    return asAdmin(Req("POST", "/api/channels/" + channel + "/launch").body(body));
  }
};

TEST_F(ChannelApiTest, EveryChannelRouteRefusesAnInvalidNameFirst) {
  for (const std::string& name : {std::string("bad name"), std::string(129, 'c')}) {
    for (const Req& req : {Req("POST", "/api/channels/" + name).q("engine", "Rill"),
                           Req("GET", "/api/channels/" + name),
                           Req("DELETE", "/api/channels/" + name),
                           Req("POST", "/api/channels/" + name + "/promote"),
                           Req("POST", "/api/channels/" + name + "/public").q("value", "maybe"),
                           Req("POST", "/api/channels/" + name + "/launch").body("nonsense")}) {
      EXPECT_TRUE(isError(asAdmin(req), 400, kBadName)) << req.build().method << " " << name;
    }
  }
}

TEST_F(ChannelApiTest, CreateChecksTheEngineThenExistence) {
  EXPECT_TRUE(isError(createChannel("beta", "Rill"), 400, kBadEngine));
  EXPECT_FALSE(fs::exists(channelPath("beta")));

  const std::string before = store::nowUtcText();
  auto res = createChannel("beta");
  EXPECT_EQ(memberOrder(res),
            (std::vector<std::string>{"build", "created_at", "engine", "schema_version"}));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["schema_version"], 1);
  EXPECT_EQ(doc["engine"], "barge");
  EXPECT_EQ(doc["build"], "");
  ASSERT_TRUE(isUtcStamp(doc["created_at"]));
  EXPECT_LE(before, doc["created_at"].asString());
  EXPECT_EQ(readDoc(channelPath("beta")), doc);
  EXPECT_EQ(bodyOf(asAdmin(Req("POST", "/api/channels/nightly").q("engine", "")))["engine"], "barge");
  EXPECT_EQ(bodyOf(createChannel("chunks", "rill"))["engine"], "rill");

  const std::string stored = readBytes(channelPath("beta"));
  EXPECT_TRUE(isError(createChannel("beta", "Rill"), 400, kBadEngine));  // before existence
  EXPECT_TRUE(isError(createChannel("beta", "rill"), 409, kExists));
  EXPECT_EQ(readBytes(channelPath("beta")), stored);
}

TEST_F(ChannelApiTest, RillOnlyServerCreatesOnlyRillChannels) {
  start(false, true);
  ASSERT_TRUE(isOk(createChannel("chunks", "rill")));
  EXPECT_TRUE(isError(createChannel("beta"), 403, kRillOnly));
  EXPECT_TRUE(isError(createChannel("beta", "Rill"), 400, kBadEngine));
  EXPECT_FALSE(fs::exists(channelPath("beta")));
  // The engine rule comes before existence.
  EXPECT_TRUE(isError(createChannel("chunks"), 403, kRillOnly));
  EXPECT_TRUE(isError(createChannel("chunks", "rill"), 409, kExists));
}

TEST_F(ChannelApiTest, ReadAnswersTheDocumentExactlyAsStored) {
  EXPECT_TRUE(isError(readChannel("nobody"), 404, kNotFound));
  writeText(channelPath("broken"), R"({"build":")");
  EXPECT_TRUE(isError(readChannel("broken"), 404, kNotFound));
  // No defaults are filled in, and members unknown to the server are kept.
  const Json::Value legacy = parseJson(
      R"({"schema_version":1,"build":"b9","created_at":"2024-01-01T00:00:00Z","note":"hand-made"})");
  writeDoc(channelPath("legacy"), legacy);
  EXPECT_EQ(bodyOf(readChannel("legacy")), legacy);
}

TEST_F(ChannelApiTest, ListSummarisesChannelsInFileNameOrder) {
  EXPECT_EQ(listChannels().body, R"({"channels":[],"schema_version":1})");

  makeBuild("b1", {{"a.bin", "12"}, {"b.bin", "345"}});
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  writeText(buildDir("not an id") / "manifest.json",
            R"({"build":"not an id","created_at":"2020-01-01T00:00:00Z","file_count":9,"total_size":9,"files":[]})");
  for (const char* name : {"a", "a.b", "B"}) ASSERT_TRUE(isOk(createChannel(name)));
  ASSERT_TRUE(isOk(createChannel("rill1", "rill")));
  ASSERT_TRUE(isOk(createChannel("zz")));
  ASSERT_TRUE(isOk(setLaunch("zz", launchBody({target("Play")}))));
  ASSERT_TRUE(isOk(promote("zz", "b1")));
  ASSERT_TRUE(isOk(setPublic("zz", "true")));
  writeDoc(channelPath("legacy"), parseJson(R"({"build":"open","promoted_at":5,"public":"yes"})"));
  writeDoc(channelPath("weird"), parseJson(R"({"build":"not an id","engine":"rill"})"));
  writeText(channelPath("broken"), "{");
  writeText(data().channels() / "notes.txt", R"({"build":"b1"})");
  fs::create_directories(data().channels() / "folder.json");

  auto res = listChannels();
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"channels", "schema_version"}));
  const Json::Value list = bodyOf(res)["channels"];
  std::vector<std::string> text;
  for (const auto& summary : list) text.push_back(http::toCompactJson(summary));
  Json::Value pointer = readDoc(channelPath("zz"));
  const std::string fresh = R"(","engine":"barge","promoted_at":"","public":false})";
  // Absent engine reads as barge, a non-string promoted_at as "", a non-boolean public as false;
  // an open build, or a build that is not a valid id, has no figures.
  EXPECT_EQ(text, (std::vector<std::string>{
                      R"({"build":"","channel":"B)" + fresh,
                      R"({"build":"","channel":"a.b)" + fresh,
                      R"({"build":"","channel":"a)" + fresh,
                      R"({"build":"open","channel":"legacy)" + fresh,
                      R"({"build":"","channel":"rill1","engine":"rill","promoted_at":"","public":false})",
                      R"({"build":"not an id","channel":"weird","engine":"rill","promoted_at":"","public":false})",
                      R"({"build":"b1","build_created_at":")" +
                          readDoc(buildDir("b1") / "manifest.json")["created_at"].asString() +
                          R"(","channel":"zz","engine":"barge","file_count":2,"launch_targets":)" +
                          http::toCompactJson(pointer["launch_targets"]) + R"(,"promoted_at":")" +
                          pointer["promoted_at"].asString() + R"(","public":true,"total_size":5})"}));
}

TEST_F(ChannelApiTest, DeleteUnassignsFromGroupsAndFollowsButKeepsBuilds) {
  EXPECT_TRUE(isError(deleteChannel("nobody"), 404, kNotFound));
  makeBuild("b1");
  writeChannel("beta", "b1");
  writeChannel("x");
  seedGroup("twice", {"beta", "x", "beta"});
  seedGroup("once", {"beta"});
  seedGroup("other", {"x"});
  writeText(data().groups() / "junk.json", "{");
  const std::vector<std::pair<const char*, Json::Value>> follows = {
      {"u1", strings({"beta"})}, {"u2", strings({"beta", "beta", "y"})},
      {"u3", strings({"a", "beta"})}, {"u4", strings({"y"})}, {"u5", Json::Value()}};
  for (const auto& [name, list] : follows) {
    seedUser(name, "member");
    if (!list.isNull()) setMember(userPath(name), "follows", list);
  }

  auto res = deleteChannel("beta");
  EXPECT_EQ(res.body, R"({"deleted":"beta","unassigned_from_groups":2,"unfollowed_by_users":3})");
  EXPECT_FALSE(fs::exists(channelPath("beta")));
  EXPECT_EQ(readDoc(groupPath("twice"))["channels"], strings({"x"}));
  EXPECT_EQ(readDoc(groupPath("once"))["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(readDoc(userPath("u2"))["follows"], strings({"y"}));
  EXPECT_EQ(readDoc(userPath("u3"))["follows"], strings({"a"}));
  EXPECT_TRUE(fs::exists(channelPath("x")));
  EXPECT_TRUE(isError(deleteChannel("beta"), 404, kNotFound));
  // Nothing points at the build any more, so it can go.
  EXPECT_TRUE(isOk(asAdmin(Req("DELETE", "/api/builds/b1"))));
}

TEST_F(ChannelApiTest, PromoteChecksInOrder) {
  EXPECT_TRUE(isError(asAdmin(Req("POST", "/api/channels/ghost/promote")), 400, kBadBuild));
  EXPECT_TRUE(isError(promote("ghost", "b/1"), 400, kBadBuild));
  EXPECT_TRUE(isError(promote("ghost", "nobuild"), 404,
                      "channel 'ghost' does not exist - create it first (quillmoor channel "
                      "create ghost)"));

  ASSERT_TRUE(isOk(createChannel("beta")));
  const std::string untouched = readBytes(channelPath("beta"));
  EXPECT_TRUE(isError(promote("beta", "nobuild"), 404, kBuildMissing));
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  EXPECT_TRUE(isError(promote("beta", "open"), 404, kBuildMissing));
  makeBuild("b1");
  ASSERT_TRUE(isOk(asAdmin(Req("POST", "/api/builds/b1/disabled"))));
  EXPECT_TRUE(isError(promote("beta", "b1"), 409, "build is disabled and cannot be promoted"));
  EXPECT_EQ(readBytes(channelPath("beta")), untouched);

  ASSERT_TRUE(isOk(asAdmin(Req("POST", "/api/builds/b1/disabled").q("value", "false"))));
  EXPECT_EQ(bodyOf(promote("beta", "b1"))["build"], "b1");
  EXPECT_TRUE(isOk(promote("beta", "b1")));  // again: allowed
}

TEST_F(ChannelApiTest, PromotionKeepsPublicAndLaunchTargetsAndDropsTheEngine) {
  makeBuild("b1");
  makeBuild("b2");
  ASSERT_TRUE(isOk(createChannel("beta", "rill")));
  ASSERT_TRUE(isOk(setPublic("beta", "true")));
  ASSERT_TRUE(isOk(setLaunch("beta", launchBody({target("Play", "bin/game.exe", R"("primary":true)")}))));
  setMember(channelPath("beta"), "note", "not carried over");
  Json::Value old = readDoc(channelPath("beta"));

  const std::string before = store::nowUtcText();
  auto res = promote("beta", "b1");
  EXPECT_EQ(memberOrder(res), (std::vector<std::string>{"build", "created_at", "launch_targets",
                                                        "promoted_at", "public", "schema_version"}));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(doc["build"], "b1");
  EXPECT_EQ(doc["created_at"], old["created_at"]);
  EXPECT_EQ(doc["public"], true);
  EXPECT_EQ(doc["launch_targets"], old["launch_targets"]);
  ASSERT_TRUE(isUtcStamp(doc["promoted_at"]));
  EXPECT_LE(before, doc["promoted_at"].asString());
  EXPECT_EQ(readDoc(channelPath("beta")), doc);
  EXPECT_EQ(bodyOf(listChannels())["channels"][0]["engine"], "barge");

  // Members absent before stay absent; a stored false is carried as false.
  writeDoc(channelPath("bare"), parseJson(R"({"schema_version":1,"build":"","public":false})"));
  auto bare = promote("bare", "b2");
  EXPECT_EQ(memberOrder(bare), (std::vector<std::string>{"build", "promoted_at", "public", "schema_version"}));
  EXPECT_EQ(bodyOf(bare)["public"], false);
}

TEST_F(ChannelApiTest, PublicFlagTakesOnlyTrueOrFalseAndKeepsTheRest) {
  EXPECT_TRUE(isError(setPublic("ghost", "TRUE"), 400, kBadPublic));
  EXPECT_TRUE(isError(setPublic("ghost", "true"), 404, kNotFound));
  writeText(channelPath("broken"), "[");
  EXPECT_TRUE(isError(setPublic("broken", "true"), 404, kNotFound));

  ASSERT_TRUE(isOk(createChannel("beta", "rill")));
  ASSERT_TRUE(isOk(setLaunch("beta", launchBody({target("Play")}))));
  setMember(channelPath("beta"), "note", "kept");
  Json::Value expected = readDoc(channelPath("beta"));
  for (const char* value : {"true", "false"}) {
    expected["public"] = std::string(value) == "true";
    EXPECT_EQ(bodyOf(setPublic("beta", value)), expected);
    EXPECT_EQ(readDoc(channelPath("beta")), expected);
  }
}

TEST_F(ChannelApiTest, LaunchTargetsAreCheckedInOrderUntilTheFirstFailure) {
  EXPECT_TRUE(isError(setLaunch("ghost", "nonsense"), 404, kNotFound));  // channel before body
  ASSERT_TRUE(isOk(createChannel("beta")));
  const std::string untouched = readBytes(channelPath("beta"));
  const std::string args1025(1025, 'a');
  std::string wideLabel;  // 65 characters, 130 bytes: lengths count bytes
  for (int i = 0; i < 65; ++i) wideLabel += "\xC3\xA9";
  struct Case {
    std::string body;
    const char* error;
  };
  std::vector<Case> cases;
  for (const char* body : {"nonsense", "[]", R"({"launch_targets":{}})", R"({"targets":[]})"}) {
    cases.push_back({body, kBadLaunchBody});
  }
  // The count is checked before any element.
  cases.push_back({launchBody(std::vector<std::string>(33, "5")), kTooManyTargets});
  for (const Case& c : std::vector<Case>{
           {launchBody({target("Play"), "5"}), kNotObject},
           {launchBody({R"({"exe":"bin/game.exe"})"}), kBadLabel},
           {launchBody({target(wideLabel)}), kBadLabel},
           {launchBody({R"({"label":"Play"})"}), kBadExe},
           {launchBody({target("Play", "C:/game.exe")}), kBadExe},
           {launchBody({target("Play", "bin/game.exe", R"("args":")" + args1025 + "\"")}), kLongArgs},
           {launchBody({target("A", "a.exe", R"("primary":true)"), target("B"),
                        target("C", "c.exe", R"("primary":true)")}),
            kTwoPrimaries},
           // Within an element: label, then exe, then args.
           {launchBody({target("", "../x")}), kBadLabel},
           {launchBody({target("Play", "../x", R"("args":")" + args1025 + "\"")}), kBadExe},
           // The first failing element decides.
           {launchBody({target(""), "5"}), kBadLabel},
           {launchBody({"5", target("")}), kNotObject},
           {launchBody({target("A", "a.exe", R"("primary":true)"),
                        target("B", "b.exe", R"("primary":true)"), target("")}),
            kTwoPrimaries}}) {
    cases.push_back(c);
  }
  for (const auto& c : cases) {
    EXPECT_TRUE(isError(setLaunch("beta", c.body), 400, c.error)) << c.body.substr(0, 80);
  }
  EXPECT_EQ(readBytes(channelPath("beta")), untouched);
}

TEST_F(ChannelApiTest, LaunchTargetsAreNormalisedAndReplaceOnlyThatMember) {
  makeBuild("b1");
  ASSERT_TRUE(isOk(createChannel("beta")));
  ASSERT_TRUE(isOk(promote("beta", "b1")));
  Json::Value expected = readDoc(channelPath("beta"));

  const std::string label128(128, 'L'), args1024(1024, 'a');
  std::vector<std::string> many = {
      target(label128, "bin/game.exe", R"("icon":"x.png","extra":{"deep":1})"),
      target("Server", "Game Data/srv \xC3\xA9.exe", R"("args":")" + args1024 + R"(","primary":true)")};
  for (int i = 2; i < 32; ++i) many.push_back(target("Run " + std::to_string(i), "tool.exe", R"("primary":false)"));
  auto res = setLaunch("beta", launchBody(many));
  ASSERT_TRUE(isOk(res));
  const Json::Value targets = bodyOf(res)["launch_targets"];
  ASSERT_EQ(targets.size(), 32u);
  EXPECT_EQ(http::toCompactJson(targets[0]),
            R"({"args":"","exe":"bin/game.exe","label":")" + label128 + R"(","primary":false})");
  EXPECT_EQ(http::toCompactJson(targets[1]), R"({"args":")" + args1024 +
                                                 "\",\"exe\":\"Game Data/srv \xC3\xA9.exe\",\"label\":\"Server\",\"primary\":true}");
  EXPECT_EQ(targets[31]["label"], "Run 31");
  expected["launch_targets"] = targets;
  EXPECT_EQ(readDoc(channelPath("beta")), expected);

  expected["launch_targets"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(bodyOf(setLaunch("beta", launchBody({}))), expected);
  EXPECT_EQ(readDoc(channelPath("beta")), expected);
}

}  // namespace
}  // namespace quill::test
