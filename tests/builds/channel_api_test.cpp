// The channel routes in-process through the route table and the gate: creation and its engine
// rules, reading and listing, promotion, the public flag, launch targets and deletion.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "builds/builds_fixture.h"
#include "store/groups.h"
#include "store/utc_time.h"

namespace quill {
namespace {

using test::bodyOf;
using test::Call;
using test::isError;
using test::isOk;
using test::isUtcStamp;
using test::membersOf;
using test::parseJsonText;
using test::readBytes;
using test::strings;

namespace fs = std::filesystem;

constexpr const char* kBadName = "invalid channel name";
constexpr const char* kNotFound = "channel not found";
constexpr const char* kBadEngine = "engine must be 'barge' or 'rill'";
constexpr const char* kRillOnly =
    "this server is Rill-only: create the channel with engine=rill and publish with "
    "quillmoor-rill";
constexpr const char* kExists = "channel already exists";
constexpr const char* kBadBuild = "missing or invalid ?build= parameter";
constexpr const char* kBuildMissing = "build not found or not finalized";
constexpr const char* kBuildDisabled = "build is disabled and cannot be promoted";
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

std::string missingChannel(const std::string& name) {
  return "channel '" + name + "' does not exist - create it first (quillmoor channel create " +
         name + ")";
}

std::vector<std::string> invalidNames() {
  return {"bad name", ".", "..", "nul", "Com1.json", std::string(129, 'c'), "b\xC3\xA9ta", "a:b"};
}

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

class ChannelApiTest : public test::BuildsTest {
 protected:
  http::Response readChannel(const std::string& name) {
    return send(Call("GET", "/api/channels/" + name).as(admin()));
  }
  http::Response deleteChannel(const std::string& name) {
    return send(Call("DELETE", "/api/channels/" + name).as(admin()));
  }
  http::Response listChannels() { return send(Call("GET", "/api/channels").as(admin())); }
};

TEST_F(ChannelApiTest, CreateChecksNameThenEngineThenExistence) {
  for (const auto& name : invalidNames()) {
    EXPECT_TRUE(isError(createChannel(name, "Rill"), 400, kBadName)) << name;
  }
  for (const char* engine : {"Rill", "BARGE", "s3", " rill", "rill "}) {
    EXPECT_TRUE(isError(createChannel("beta", engine), 400, kBadEngine)) << engine;
  }
  EXPECT_FALSE(fs::exists(channelFile("beta")));

  const std::string before = store::nowUtcText();
  auto res = createChannel("beta");
  const std::string after = store::nowUtcText();
  ASSERT_TRUE(isOk(res));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(membersOf(doc),
            (std::vector<std::string>{"build", "created_at", "engine", "schema_version"}));
  EXPECT_EQ(doc["schema_version"], 1);
  EXPECT_EQ(doc["engine"], "barge");
  EXPECT_EQ(doc["build"], "");
  ASSERT_TRUE(isUtcStamp(doc["created_at"]));
  EXPECT_LE(before, doc["created_at"].asString());
  EXPECT_GE(after, doc["created_at"].asString());
  EXPECT_EQ(readDoc(channelFile("beta")), doc);

  auto empty = send(Call("POST", "/api/channels/nightly").q("engine", "").as(admin()));
  ASSERT_TRUE(isOk(empty));
  EXPECT_EQ(bodyOf(empty)["engine"], "barge");
  auto rill = createChannel("chunks", "rill");
  ASSERT_TRUE(isOk(rill));
  EXPECT_EQ(bodyOf(rill)["engine"], "rill");

  const std::string stored = readBytes(channelFile("beta"));
  EXPECT_TRUE(isError(createChannel("beta"), 409, kExists));
  EXPECT_TRUE(isError(createChannel("beta", "rill"), 409, kExists));
  EXPECT_TRUE(isError(createChannel("beta", "Rill"), 400, kBadEngine));
  EXPECT_EQ(readBytes(channelFile("beta")), stored);
}

TEST_F(ChannelApiTest, RillOnlyServerCreatesOnlyRillChannels) {
  start(true);
  ASSERT_TRUE(isOk(createChannel("chunks", "rill")));
  EXPECT_TRUE(isError(createChannel("beta"), 403, kRillOnly));
  EXPECT_TRUE(isError(send(Call("POST", "/api/channels/beta").q("engine", "").as(admin())), 403,
                      kRillOnly));
  EXPECT_TRUE(isError(createChannel("beta", "barge"), 403, kRillOnly));
  EXPECT_TRUE(isError(createChannel("beta", "Rill"), 400, kBadEngine));
  EXPECT_TRUE(isError(createChannel("bad name"), 400, kBadName));
  EXPECT_FALSE(fs::exists(channelFile("beta")));
  // The engine rule comes before existence: an existing name still gets the 403.
  EXPECT_TRUE(isError(createChannel("chunks"), 403, kRillOnly));
  EXPECT_TRUE(isError(createChannel("chunks", "rill"), 409, kExists));
}

TEST_F(ChannelApiTest, ReadAnswersTheDocumentExactlyAsStored) {
  for (const auto& name : invalidNames()) {
    EXPECT_TRUE(isError(readChannel(name), 400, kBadName)) << name;
  }
  EXPECT_TRUE(isError(readChannel("nobody"), 404, kNotFound));
  writeText(channelFile("broken"), R"({"build":")");
  EXPECT_TRUE(isError(readChannel("broken"), 404, kNotFound));

  // No defaults are filled in: no engine, no public, members unknown to the server kept.
  const Json::Value legacy = parseJsonText(
      R"({"schema_version":1,"build":"b9","created_at":"2024-01-01T00:00:00Z","note":"hand-made"})");
  writeDoc(channelFile("legacy"), legacy);
  auto res = readChannel("legacy");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(bodyOf(res), legacy);
}

TEST_F(ChannelApiTest, ListSummarisesChannelsInFileNameOrder) {
  auto none = listChannels();
  ASSERT_TRUE(isOk(none));
  EXPECT_EQ(none.body, R"({"channels":[],"schema_version":1})");

  makeBuild("b1", {{"a.bin", "12"}, {"b.bin", "345"}});
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  Json::Value handmade = parseJsonText(
      R"({"schema_version":1,"build":"not an id","created_at":"2020-01-01T00:00:00Z",
          "file_count":9,"total_size":9,"files":[]})");
  writeDoc(buildDir("not an id") / "manifest.json", handmade);

  for (const char* name : {"a", "a.b", "a-b", "B"}) ASSERT_TRUE(isOk(createChannel(name)));
  ASSERT_TRUE(isOk(createChannel("rill1", "rill")));
  ASSERT_TRUE(isOk(createChannel("zz")));
  ASSERT_TRUE(isOk(setLaunch("zz", launchBody({target("Play")}))));
  ASSERT_TRUE(isOk(promote("zz", "b1")));
  ASSERT_TRUE(isOk(setPublic("zz", "true")));
  writeDoc(channelFile("legacy"),
           parseJsonText(R"({"build":"open","promoted_at":5,"public":"yes"})"));
  writeDoc(channelFile("weird"), parseJsonText(R"({"build":"not an id","engine":"rill"})"));
  writeText(channelFile("broken"), "{");
  writeText(data().channels() / "notes.txt", R"({"build":"b1"})");
  fs::create_directories(data().channels() / "folder.json");

  auto res = listChannels();
  ASSERT_TRUE(isOk(res));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(membersOf(doc), (std::vector<std::string>{"channels", "schema_version"}));
  EXPECT_EQ(doc["schema_version"], 1);
  std::vector<std::string> order;
  for (const auto& summary : doc["channels"]) order.push_back(summary["channel"].asString());
  EXPECT_EQ(order,
            (std::vector<std::string>{"B", "a-b", "a.b", "a", "legacy", "rill1", "weird", "zz"}));
  ASSERT_EQ(doc["channels"].size(), 8u);

  const Json::Value& fresh = doc["channels"][0];
  EXPECT_EQ(membersOf(fresh),
            (std::vector<std::string>{"build", "channel", "engine", "promoted_at", "public"}));
  EXPECT_EQ(fresh["build"], "");
  EXPECT_EQ(fresh["engine"], "barge");
  EXPECT_EQ(fresh["promoted_at"], "");
  EXPECT_EQ(fresh["public"], false);

  // Absent engine reads as barge; a non-string promoted_at as ""; a non-boolean public as false;
  // an open build has no figures.
  const Json::Value& legacy = doc["channels"][4];
  EXPECT_EQ(membersOf(legacy),
            (std::vector<std::string>{"build", "channel", "engine", "promoted_at", "public"}));
  EXPECT_EQ(legacy["engine"], "barge");
  EXPECT_EQ(legacy["build"], "open");
  EXPECT_EQ(legacy["promoted_at"], "");
  EXPECT_EQ(legacy["public"], false);

  EXPECT_EQ(doc["channels"][5]["engine"], "rill");
  // A build that is not a valid id gets no figures even when a manifest would read.
  EXPECT_FALSE(doc["channels"][6].isMember("file_count")) << doc["channels"][6];

  Json::Value manifest = readDoc(buildDir("b1") / "manifest.json");
  Json::Value pointer = readDoc(channelFile("zz"));
  Json::Value expected(Json::objectValue);
  expected["channel"] = "zz";
  expected["engine"] = "barge";
  expected["build"] = "b1";
  expected["promoted_at"] = pointer["promoted_at"];
  expected["public"] = true;
  expected["launch_targets"] = pointer["launch_targets"];
  expected["file_count"] = 2;
  expected["total_size"] = 5;
  expected["build_created_at"] = manifest["created_at"];
  EXPECT_EQ(doc["channels"][7], expected);
}

TEST_F(ChannelApiTest, DeleteUnassignsFromGroupsAndFollowsButKeepsBuilds) {
  for (const auto& name : invalidNames()) {
    EXPECT_TRUE(isError(deleteChannel(name), 400, kBadName)) << name;
  }
  EXPECT_TRUE(isError(deleteChannel("nobody"), 404, kNotFound));

  makeBuild("b1");
  ASSERT_TRUE(isOk(createChannel("beta")));
  ASSERT_TRUE(isOk(createChannel("x")));
  ASSERT_TRUE(isOk(promote("beta", "b1")));
  auto group = [&](const std::string& name, Json::Value channels) {
    Json::Value record = store::newGroupRecord(name);
    record["channels"] = std::move(channels);
    ASSERT_TRUE(store::saveGroup(data(), record));
  };
  group("twice", strings({"beta", "x", "beta"}));
  group("once", strings({"beta"}));
  group("other", strings({"x"}));
  writeText(data().groups() / "junk.json", "{");
  auto follow = [&](const std::string& name, Json::Value follows) {
    seedUser(name, "member");
    Json::Value record = readDoc(data().users() / (name + ".json"));
    if (!follows.isNull()) record["follows"] = std::move(follows);
    writeDoc(data().users() / (name + ".json"), record);
  };
  follow("u1", strings({"beta"}));
  follow("u2", strings({"beta", "beta", "y"}));
  follow("u3", strings({"a", "beta"}));
  follow("u4", strings({"y"}));
  follow("u5", Json::Value());

  auto res = deleteChannel("beta");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(res.body, R"({"deleted":"beta","unassigned_from_groups":2,"unfollowed_by_users":3})");
  EXPECT_FALSE(fs::exists(channelFile("beta")));
  EXPECT_EQ(readDoc(data().groups() / "twice.json")["channels"], strings({"x"}));
  EXPECT_EQ(readDoc(data().groups() / "once.json")["channels"], Json::Value(Json::arrayValue));
  EXPECT_EQ(readDoc(data().groups() / "other.json")["channels"], strings({"x"}));
  EXPECT_EQ(readDoc(data().users() / "u2.json")["follows"], strings({"y"}));
  EXPECT_EQ(readDoc(data().users() / "u3.json")["follows"], strings({"a"}));
  EXPECT_EQ(readDoc(data().users() / "u4.json")["follows"], strings({"y"}));
  EXPECT_TRUE(fs::exists(channelFile("x")));
  EXPECT_TRUE(isOk(readBuild("b1")));
  EXPECT_TRUE(isError(deleteChannel("beta"), 404, kNotFound));
  // Nothing points at the build any more, so it can go.
  EXPECT_TRUE(isOk(send(Call("DELETE", "/api/builds/b1").as(admin()))));
}

TEST_F(ChannelApiTest, PromoteChecksInOrder) {
  for (const auto& name : invalidNames()) {
    EXPECT_TRUE(isError(send(Call("POST", "/api/channels/" + name + "/promote").as(admin())), 400,
                        kBadName))
        << name;
  }
  EXPECT_TRUE(
      isError(send(Call("POST", "/api/channels/ghost/promote").as(admin())), 400, kBadBuild));
  for (const char* build : {"", "a b", "..", "con", "b/1"}) {
    EXPECT_TRUE(isError(promote("ghost", build), 400, kBadBuild)) << build;
  }
  EXPECT_TRUE(isError(promote("ghost", "nobuild"), 404, missingChannel("ghost")));
  EXPECT_EQ(missingChannel("beta"),
            "channel 'beta' does not exist - create it first (quillmoor channel create beta)");

  ASSERT_TRUE(isOk(createChannel("beta")));
  const std::string untouched = readBytes(channelFile("beta"));
  EXPECT_TRUE(isError(promote("beta", "nobuild"), 404, kBuildMissing));
  ASSERT_TRUE(isOk(upload("open", "a.txt", "a")));
  EXPECT_TRUE(isError(promote("beta", "open"), 404, kBuildMissing));
  makeBuild("b1");
  ASSERT_TRUE(isOk(send(Call("POST", "/api/builds/b1/disabled").as(admin()))));
  EXPECT_TRUE(isError(promote("beta", "b1"), 409, kBuildDisabled));
  EXPECT_EQ(readBytes(channelFile("beta")), untouched);

  ASSERT_TRUE(isOk(send(Call("POST", "/api/builds/b1/disabled").q("value", "false").as(admin()))));
  auto res = promote("beta", "b1");
  ASSERT_TRUE(isOk(res));
  EXPECT_EQ(bodyOf(res)["build"], "b1");
  // Promoting the current build again is allowed.
  EXPECT_TRUE(isOk(promote("beta", "b1")));
}

TEST_F(ChannelApiTest, PromotionKeepsPublicAndLaunchTargetsAndDropsTheEngine) {
  makeBuild("b1");
  makeBuild("b2");
  ASSERT_TRUE(isOk(createChannel("beta", "rill")));
  ASSERT_TRUE(isOk(setPublic("beta", "true")));
  ASSERT_TRUE(
      isOk(setLaunch("beta", launchBody({target("Play", "bin/game.exe", R"("primary":true)")}))));
  Json::Value old = readDoc(channelFile("beta"));
  old["note"] = "not carried over";
  writeDoc(channelFile("beta"), old);

  const std::string before = store::nowUtcText();
  auto res = promote("beta", "b1");
  const std::string after = store::nowUtcText();
  ASSERT_TRUE(isOk(res));
  Json::Value doc = bodyOf(res);
  EXPECT_EQ(membersOf(doc), (std::vector<std::string>{"build", "created_at", "launch_targets",
                                                      "promoted_at", "public", "schema_version"}));
  EXPECT_EQ(doc["schema_version"], 1);
  EXPECT_EQ(doc["build"], "b1");
  EXPECT_EQ(doc["created_at"], old["created_at"]);
  EXPECT_EQ(doc["public"], true);
  EXPECT_EQ(doc["launch_targets"], old["launch_targets"]);
  ASSERT_TRUE(isUtcStamp(doc["promoted_at"]));
  EXPECT_LE(before, doc["promoted_at"].asString());
  EXPECT_GE(after, doc["promoted_at"].asString());
  EXPECT_EQ(readDoc(channelFile("beta")), doc);
  EXPECT_EQ(bodyOf(listChannels())["channels"][0]["engine"], "barge");

  // Members absent before stay absent; a stored false is carried as false.
  writeDoc(channelFile("bare"), parseJsonText(R"({"schema_version":1,"build":"","public":false})"));
  Json::Value bare = bodyOf(promote("bare", "b2"));
  EXPECT_EQ(membersOf(bare),
            (std::vector<std::string>{"build", "promoted_at", "public", "schema_version"}));
  EXPECT_EQ(bare["public"], false);
}

TEST_F(ChannelApiTest, PublicFlagTakesOnlyTrueOrFalseAndKeepsTheRest) {
  for (const auto& name : invalidNames()) {
    EXPECT_TRUE(isError(setPublic(name, "maybe"), 400, kBadName)) << name;
  }
  for (const char* value : {"TRUE", "False", "1", "", "yes", "true "}) {
    EXPECT_TRUE(isError(setPublic("ghost", value), 400, kBadPublic)) << value;
  }
  EXPECT_TRUE(
      isError(send(Call("POST", "/api/channels/ghost/public").as(admin())), 400, kBadPublic));
  EXPECT_TRUE(isError(setPublic("ghost", "true"), 404, kNotFound));
  writeText(channelFile("broken"), "[");
  EXPECT_TRUE(isError(setPublic("broken", "true"), 404, kNotFound));

  makeBuild("b1");
  ASSERT_TRUE(isOk(createChannel("beta", "rill")));
  ASSERT_TRUE(isOk(setLaunch("beta", launchBody({target("Play")}))));
  Json::Value before = readDoc(channelFile("beta"));
  before["note"] = "kept";
  writeDoc(channelFile("beta"), before);

  auto on = setPublic("beta", "true");
  ASSERT_TRUE(isOk(on));
  Json::Value expected = before;
  expected["public"] = true;
  EXPECT_EQ(bodyOf(on), expected);
  EXPECT_EQ(readDoc(channelFile("beta")), expected);

  auto off = setPublic("beta", "false");
  ASSERT_TRUE(isOk(off));
  expected["public"] = false;
  EXPECT_EQ(bodyOf(off), expected);
  EXPECT_EQ(readDoc(channelFile("beta")), expected);
}

TEST_F(ChannelApiTest, LaunchTargetsLookUpTheChannelBeforeTheBody) {
  for (const auto& name : invalidNames()) {
    EXPECT_TRUE(isError(setLaunch(name, "nonsense"), 400, kBadName)) << name;
  }
  EXPECT_TRUE(isError(setLaunch("ghost", "nonsense"), 404, kNotFound));
  EXPECT_TRUE(isError(setLaunch("ghost", launchBody({})), 404, kNotFound));

  ASSERT_TRUE(isOk(createChannel("beta")));
  const std::string untouched = readBytes(channelFile("beta"));
  for (const char* body :
       {"", "nonsense", "[]", "{}", "null", "5", R"("launch_targets")", R"({"launch_targets":{}})",
        R"({"launch_targets":"x"})", R"({"launch_targets":null})", R"({"targets":[]})",
        R"([{"launch_targets":[]}])", R"({"launch_targets":[)"}) {
    EXPECT_TRUE(isError(setLaunch("beta", body), 400, kBadLaunchBody)) << body;
  }
  EXPECT_EQ(readBytes(channelFile("beta")), untouched);
}

TEST_F(ChannelApiTest, LaunchTargetCountIsCheckedBeforeAnyElement) {
  ASSERT_TRUE(isOk(createChannel("beta")));
  EXPECT_TRUE(isError(setLaunch("beta", launchBody(std::vector<std::string>(33, "5"))), 400,
                      kTooManyTargets));
  EXPECT_TRUE(isError(setLaunch("beta", launchBody(std::vector<std::string>(33, target("Play")))),
                      400, kTooManyTargets));
  std::vector<std::string> many;
  for (int i = 0; i < 32; ++i) many.push_back(target("Run " + std::to_string(i)));
  auto res = setLaunch("beta", launchBody(many));
  ASSERT_TRUE(isOk(res));
  const Json::Value stored = readDoc(channelFile("beta"))["launch_targets"];
  ASSERT_EQ(stored.size(), 32u);
  EXPECT_EQ(stored[31]["label"], "Run 31");
}

TEST_F(ChannelApiTest, EachLaunchTargetIsCheckedInOrderUntilTheFirstFailure) {
  ASSERT_TRUE(isOk(createChannel("beta")));
  const std::string untouched = readBytes(channelFile("beta"));
  const std::string e9 = "\xC3\xA9";
  std::string label129(129, 'L'), args1025(1025, 'a');
  std::string wideLabel;  // 65 characters, 130 bytes: lengths count bytes
  for (int i = 0; i < 65; ++i) wideLabel += e9;
  struct Case {
    std::string body;
    const char* error;
  };
  const std::vector<Case> cases = {
      {launchBody({target("Play"), "5"}), kNotObject},
      {launchBody({target("Play"), "[]"}), kNotObject},
      {launchBody({R"({"exe":"bin/game.exe"})"}), kBadLabel},
      {launchBody({target("")}), kBadLabel},
      {launchBody({target(label129)}), kBadLabel},
      {launchBody({target(wideLabel)}), kBadLabel},
      {launchBody({R"({"label":"Play"})"}), kBadExe},
      {launchBody({target("Play", "")}), kBadExe},
      {launchBody({target("Play", "../game.exe")}), kBadExe},
      {launchBody({target("Play", "/bin/game.exe")}), kBadExe},
      {launchBody({target("Play", "C:/game.exe")}), kBadExe},
      {launchBody({target("Play", "bin\\game.exe")}), kBadExe},
      {launchBody({target("Play", "bin/./game.exe")}), kBadExe},
      {launchBody({target("Play", "bin/game.exe", R"("args":")" + args1025 + "\"")}), kLongArgs},
      {launchBody({target("A", "a.exe", R"("primary":true)"), target("B"),
                   target("C", "c.exe", R"("primary":true)")}),
       kTwoPrimaries},
      // Within an element: label, then exe, then args, then primary.
      {launchBody({target("", "../x")}), kBadLabel},
      {launchBody({target("Play", "../x", R"("args":")" + args1025 + "\"")}), kBadExe},
      {launchBody({target("A", "a.exe", R"("primary":true)"),
                   target("B", "b.exe", R"("primary":true,"args":")" + args1025 + "\"")}),
       kLongArgs},
      // The first failing element decides.
      {launchBody({target(""), "5"}), kBadLabel},
      {launchBody({"5", target("")}), kNotObject},
      {launchBody({target("A", "a.exe", R"("primary":true)"),
                   target("B", "b.exe", R"("primary":true)"), target("")}),
       kTwoPrimaries},
  };
  for (const auto& c : cases) {
    EXPECT_TRUE(isError(setLaunch("beta", c.body), 400, c.error)) << c.body;
  }
  EXPECT_EQ(readBytes(channelFile("beta")), untouched);
}

TEST_F(ChannelApiTest, LaunchTargetsAreNormalisedAndReplaceOnlyThatMember) {
  makeBuild("b1");
  ASSERT_TRUE(isOk(createChannel("beta")));
  ASSERT_TRUE(isOk(promote("beta", "b1")));
  ASSERT_TRUE(isOk(setPublic("beta", "true")));
  Json::Value before = readDoc(channelFile("beta"));

  std::string label128(128, 'L'), args1024(1024, 'a'), wideLabel;
  for (int i = 0; i < 64; ++i) wideLabel += "\xC3\xA9";  // 128 bytes
  const std::string body =
      launchBody({target(label128, "bin/game.exe", R"("icon":"x.png","extra":{"deep":1})"),
                  target("Server", "Game Data/srv \xC3\xA9.exe",
                         R"("args":")" + args1024 + R"(","primary":true)"),
                  target(wideLabel, "tool.exe", R"("primary":false)")});
  auto res = setLaunch("beta", body);
  ASSERT_TRUE(isOk(res));

  Json::Value targets(Json::arrayValue);
  auto add = [&](const std::string& label, const std::string& exe, const std::string& args,
                 bool primary) {
    Json::Value t(Json::objectValue);
    t["label"] = label;
    t["exe"] = exe;
    t["args"] = args;
    t["primary"] = primary;
    targets.append(t);
  };
  add(label128, "bin/game.exe", "", false);
  add("Server", "Game Data/srv \xC3\xA9.exe", args1024, true);
  add(wideLabel, "tool.exe", "", false);
  Json::Value expected = before;
  expected["launch_targets"] = targets;
  EXPECT_EQ(bodyOf(res), expected);
  EXPECT_EQ(readDoc(channelFile("beta")), expected);

  auto cleared = setLaunch("beta", launchBody({}));
  ASSERT_TRUE(isOk(cleared));
  expected["launch_targets"] = Json::Value(Json::arrayValue);
  EXPECT_EQ(bodyOf(cleared), expected);
  EXPECT_TRUE(readDoc(channelFile("beta"))["launch_targets"].isArray());
  EXPECT_EQ(readDoc(channelFile("beta")), expected);
}

}  // namespace
}  // namespace quill
