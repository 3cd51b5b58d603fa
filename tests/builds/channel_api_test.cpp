// The channel routes through the route table and the gate: creation and its engine rules,
// reading and listing, promotion, the public flag, launch targets and deletion.

#include "store/utc_time.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

class ChannelApi : public ApiTest {
 protected:
  void SetUp() override { start(false); }
};

TEST_F(ChannelApi, InvalidNamesThenCreationAndItsEngineRules) {
  const std::string before = store::nowUtcText();
  walk(R"(
    # Every route checks the name first; the name rule itself is the names module's business.
    POST /api/channels/{129*c}?engine=Rill => 400 invalid channel name
    GET /api/channels/bad\sname => 400 invalid channel name
    DELETE /api/channels/bad\sname => 400 invalid channel name
    POST /api/channels/bad\sname/promote => 400 invalid channel name
    POST /api/channels/bad\sname/public?value=maybe => 400 invalid channel name
    POST /api/channels/bad\sname/launch nonsense => 400 invalid channel name
    POST /api/channels/beta?engine=Rill => 400 engine must be 'barge' or 'rill'
    file channels/beta.json absent
    POST /api/channels/beta => 200 keys=build,created_at,engine,schema_version ; .schema_version=1 ; .engine="barge" ; .build="" ; .created_at~\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ ; =@channels/beta.json ; $at=.created_at
    POST /api/channels/nightly?engine= => 200 .engine="barge"
    POST /api/channels/chunks?engine=rill => 200 .engine="rill"
    mark channels/beta.json
    # The engine is checked before existence.
    POST /api/channels/beta?engine=Rill => 400 engine must be 'barge' or 'rill'
    POST /api/channels/beta?engine=rill => 409 channel already exists
    unchanged channels/beta.json
  )");
  EXPECT_LE(before, vars_["at"]);
  // A Rill-only server creates only Rill channels, the engine rule before existence.
  start(false, true);
  walk(R"(
    POST /api/channels/chunks2?engine=rill => 200
    POST /api/channels/alpha => 403 this server is Rill-only: create the channel with engine=rill and publish with quillmoor-rill
    POST /api/channels/alpha?engine=Rill => 400 engine must be 'barge' or 'rill'
    file channels/alpha.json absent
    POST /api/channels/chunks2 => 403 this server is Rill-only: create the channel with engine=rill and publish with quillmoor-rill
    POST /api/channels/chunks2?engine=rill => 409 channel already exists
  )");
}

TEST_F(ChannelApi, ReadAndListSummariseInFileNameOrder) {
  walk(R"(
    GET /api/channels => 200 {"channels":[],"schema_version":1}
    GET /api/channels/nobody => 404 channel not found
    write channels/broken.json {"build":"
    GET /api/channels/broken => 404 channel not found
    # No defaults are filled in, and members unknown to the server are kept.
    write channels/legacy.json {"schema_version":1,"build":"b9","created_at":"2024-01-01T00:00:00Z","note":"hand-made"}
    GET /api/channels/legacy => 200 {"build":"b9","created_at":"2024-01-01T00:00:00Z","note":"hand-made","schema_version":1}
    build b1 a.bin=12 b.bin=345
    PUT /api/builds/open/files?path=a.txt a => 200
    write builds/not\san\sid/manifest.json {"build":"not an id","created_at":"2020-01-01T00:00:00Z","file_count":9,"total_size":9,"files":[]}
    POST /api/channels/a => 200
    POST /api/channels/a.b => 200
    POST /api/channels/B => 200
    POST /api/channels/rill1?engine=rill => 200
    POST /api/channels/zz => 200
    POST /api/channels/zz/launch {"launch_targets":[{"label":"Play","exe":"bin/game.exe"}]} => 200
    POST /api/channels/zz/promote?build=b1 => 200 $promoted=.promoted_at
    POST /api/channels/zz/public?value=true => 200
    write channels/legacy.json {"build":"open","promoted_at":5,"public":"yes"}
    write channels/weird.json {"build":"not an id","engine":"rill"} | write channels/broken.json {
    write channels/notes.txt {"build":"b1"} | write channels/folder.json/x
    # Absent engine reads as barge, a non-string promoted_at as "", a non-boolean public as false;
    # an open build, or a build that is not a valid id, has no figures.
    GET /api/channels => 200 keys=channels,schema_version ; .channels.#=7 ; .channels.0={"build":"","channel":"B","engine":"barge","promoted_at":"","public":false} ; .channels.1.channel="a.b" ; .channels.2={"build":"","channel":"a","engine":"barge","promoted_at":"","public":false} ; .channels.3={"build":"open","channel":"legacy","engine":"barge","promoted_at":"","public":false} ; .channels.4={"build":"","channel":"rill1","engine":"rill","promoted_at":"","public":false} ; .channels.5={"build":"not an id","channel":"weird","engine":"rill","promoted_at":"","public":false} ; .channels.6.build="b1" ; .channels.6.channel="zz" ; .channels.6.engine="barge" ; .channels.6.file_count=2 ; .channels.6.total_size=5 ; .channels.6.public=true ; .channels.6.promoted_at="$promoted" ; .channels.6.launch_targets=[{"args":"","exe":"bin/game.exe","label":"Play","primary":false}] ; .channels.6.build_created_at~.+Z ; .channels.6.#=9
  )");
}

TEST_F(ChannelApi, DeleteUnassignsFromGroupsAndFollowsButKeepsBuilds) {
  walk(R"(
    DELETE /api/channels/nobody => 404 channel not found
    build b1 | channel beta b1 | channel x | group twice beta,x,beta | group once beta
    group other x | write groups/junk.json { | user u1 member | user u2 member | user u3 member
    user u4 member | user u5 member | set users/u1.json .follows=["beta"]
    set users/u2.json .follows=["beta","beta","y"] | set users/u3.json .follows=["a","beta"]
    set users/u4.json .follows=["y"]
    DELETE /api/channels/beta => 200 {"deleted":"beta","unassigned_from_groups":2,"unfollowed_by_users":3}
    file channels/beta.json absent | file groups/twice.json .channels=["x"]
    file groups/once.json .channels=[] | file users/u2.json .follows=["y"]
    file users/u3.json .follows=["a"] | file channels/x.json exists
    DELETE /api/channels/beta => 404 channel not found
    # Nothing points at the build any more, so it can go.
    DELETE /api/builds/b1 => 200
  )");
}

TEST_F(ChannelApi, PromoteChecksInOrderAndKeepsPublicAndLaunchTargets) {
  const std::string before = store::nowUtcText();
  walk(R"(
    POST /api/channels/ghost/promote => 400 missing or invalid ?build= parameter
    POST /api/channels/ghost/promote?build=b/1 => 400 missing or invalid ?build= parameter
    POST /api/channels/ghost/promote?build=nobuild => 404 channel 'ghost' does not exist - create it first (quillmoor channel create ghost)
    POST /api/channels/beta => 200
    mark channels/beta.json
    POST /api/channels/beta/promote?build=nobuild => 404 build not found or not finalized
    PUT /api/builds/open/files?path=a.txt a => 200
    POST /api/channels/beta/promote?build=open => 404 build not found or not finalized
    build b1 | build b2
    POST /api/builds/b1/disabled => 200
    POST /api/channels/beta/promote?build=b1 => 409 build is disabled and cannot be promoted
    unchanged channels/beta.json
    POST /api/builds/b1/disabled?value=false => 200
    # Again: allowed.
    2* POST /api/channels/beta/promote?build=b1 => 200 .build="b1"
    # Promotion keeps public and the launch targets and drops the engine and unknown members.
    POST /api/channels/rc?engine=rill => 200 $created=.created_at
    POST /api/channels/rc/public?value=true => 200
    POST /api/channels/rc/launch {"launch_targets":[{"label":"Play","exe":"bin/game.exe","primary":true}]} => 200
    set channels/rc.json .note="not carried over"
    POST /api/channels/rc/promote?build=b1 => 200 keys=build,created_at,launch_targets,promoted_at,public,schema_version ; .build="b1" ; .created_at="$created" ; .public=true ; .launch_targets=[{"args":"","exe":"bin/game.exe","label":"Play","primary":true}] ; .promoted_at~\d{4}-.+Z ; =@channels/rc.json ; $at=.promoted_at
    GET /api/channels => 200 .channels.channel:rc.engine="barge"
    # Members absent before stay absent; a stored false is carried as false.
    write channels/bare.json {"schema_version":1,"build":"","public":false}
    POST /api/channels/bare/promote?build=b2 => 200 keys=build,promoted_at,public,schema_version ; .public=false
  )");
  EXPECT_LE(before, vars_["at"]);
}

TEST_F(ChannelApi, PublicFlagTakesOnlyTrueOrFalseAndKeepsTheRest) {
  walk(R"(
    POST /api/channels/ghost/public?value=TRUE => 400 ?value= must be true or false
    POST /api/channels/ghost/public?value=true => 404 channel not found
    write channels/broken.json [
    POST /api/channels/broken/public?value=true => 404 channel not found
    POST /api/channels/beta?engine=rill => 200
    POST /api/channels/beta/launch {"launch_targets":[{"label":"Play","exe":"bin/game.exe"}]} => 200
    set channels/beta.json .note="kept"
    POST /api/channels/beta/public?value=true => 200 =@channels/beta.json ; .public=true ; .note="kept" ; .engine="rill" ; .launch_targets.0.label="Play" ; .#=7
    POST /api/channels/beta/public?value=false => 200 =@channels/beta.json ; .public=false ; .note="kept" ; .#=7
  )");
}

TEST_F(ChannelApi, LaunchTargetsAreCheckedInOrderUntilTheFirstFailure) {
  walk(R"(
    # The channel is checked before the body.
    POST /api/channels/ghost/launch nonsense => 404 channel not found
    POST /api/channels/beta => 200
    mark channels/beta.json
    POST /api/channels/beta/launch nonsense => 400 body must be JSON {"launch_targets": [ ... ]}
    POST /api/channels/beta/launch [] => 400 body must be JSON {"launch_targets": [ ... ]}
    POST /api/channels/beta/launch {"launch_targets":{}} => 400 body must be JSON {"launch_targets": [ ... ]}
    # The count is checked before any element.
    POST /api/channels/beta/launch {"launch_targets":[{32*5,}5]} => 400 at most 32 launch targets per channel
    POST /api/channels/beta/launch {"launch_targets":[{"label":"Play","exe":"bin/game.exe"},5]} => 400 each launch target must be an object
    POST /api/channels/beta/launch {"launch_targets":[{"exe":"bin/game.exe"}]} => 400 launch target 'label' must be 1..128 characters
    # Lengths count bytes: 65 two-byte letters are too many.
    POST /api/channels/beta/launch {"launch_targets":[{"label":"{65*\xC3\xA9}","exe":"bin/game.exe"}]} => 400 launch target 'label' must be 1..128 characters
    POST /api/channels/beta/launch {"launch_targets":[{"label":"Play"}]} => 400 launch target 'exe' must be a safe install-relative path (no '..', no drive, forward slashes)
    POST /api/channels/beta/launch {"launch_targets":[{"label":"Play","exe":"bin/game.exe","args":"{1025*a}"}]} => 400 launch target 'args' too long
    POST /api/channels/beta/launch {"launch_targets":[{"label":"A","exe":"a.exe","primary":true},{"label":"B","exe":"b"},{"label":"C","exe":"c.exe","primary":true}]} => 400 at most one launch target can be marked primary
    # Within an element: label, then exe, then args; the first failing element decides.
    POST /api/channels/beta/launch {"launch_targets":[{"label":"","exe":"../x"}]} => 400 launch target 'label' must be 1..128 characters
    POST /api/channels/beta/launch {"launch_targets":[{"label":"Play","exe":"../x","args":"{1025*a}"}]} => 400 launch target 'exe' must be a safe install-relative path (no '..', no drive, forward slashes)
    POST /api/channels/beta/launch {"launch_targets":[{"label":"","exe":"a"},5]} => 400 launch target 'label' must be 1..128 characters
    POST /api/channels/beta/launch {"launch_targets":[5,{"label":"","exe":"a"}]} => 400 each launch target must be an object
    POST /api/channels/beta/launch {"launch_targets":[{"label":"A","exe":"a.exe","primary":true},{"label":"B","exe":"b.exe","primary":true},{"label":"","exe":"a"}]} => 400 at most one launch target can be marked primary
    unchanged channels/beta.json
  )");
}

TEST_F(ChannelApi, LaunchTargetsAreNormalisedAndReplaceOnlyThatMember) {
  std::string many;
  for (int i = 2; i < 32; ++i) many += R"(,{"label":"Run)" + std::to_string(i) + R"(","exe":"tool.exe","primary":false})";
  vars_["many"] = many;
  walk(R"(
    build b1
    POST /api/channels/beta => 200
    POST /api/channels/beta/promote?build=b1 => 200
    POST /api/channels/beta/launch {"launch_targets":[{"label":"{128*L}","exe":"bin/game.exe","icon":"x.png","extra":{"deep":1}},{"label":"Server","exe":"Game Data/srv \xC3\xA9.exe","args":"{1024*a}","primary":true}$many]} => 200 =@channels/beta.json ; .launch_targets.#=32 ; .launch_targets.0={"args":"","exe":"bin/game.exe","label":"{128*L}","primary":false} ; .launch_targets.1={"args":"{1024*a}","exe":"Game Data/srv \xC3\xA9.exe","label":"Server","primary":true} ; .launch_targets.31.label="Run31" ; .build="b1" ; .#=5
    POST /api/channels/beta/launch {"launch_targets":[]} => 200 =@channels/beta.json ; .launch_targets=[] ; .build="b1" ; .#=5
  )");
}

}  // namespace
}  // namespace quill::test
