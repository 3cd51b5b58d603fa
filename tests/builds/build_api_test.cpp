// The build and channel routes through the route table and the gate: each refusal in its order,
// the stored files, manifests and channel documents, promotion, downloads and deletion.

#include <regex>
#include <thread>

#include "http/file_answer.h"
#include "store/utc_time.h"
#include "support/api_fixture.h"
#include "support/numbered.h"

namespace quill::test {
namespace {

class BuildApi : public ApiTest {
 protected:
  void SetUp() override { start(false); }
};

TEST_F(BuildApi, InvalidIdsAndTheRillOnlyServer) {
  // Every route checks the id; the name rule itself is the names module's business.
  walk(R"(
    PUT /api/builds/bad\sid/files => 400 invalid build id
    PUT /api/builds/Lpt9.zip/files?path=ok.txt => 400 invalid build id
    POST /api/builds/bad\sid/finalize => 400 invalid build id
    GET /api/builds/bad\sid => 400 invalid build id
    GET /api/builds/bad\sid/files?path=a.txt => 400 invalid build id
    POST /api/builds/bad\sid/disabled => 400 invalid build id
    DELETE /api/builds/bad\sid => 400 invalid build id
    PUT /api/builds/{129*a}/files?path=ok.txt x => 400 invalid build id
    build done
  )");
  // A Rill-only server refuses every upload after the gate and before any other check.
  start(false, true);
  walk(R"(
    PUT /api/builds/bad\sid/files => 403 this server is Rill-only: Barge uploads are not accepted
    PUT /api/builds/done/files?path=app.bin x => 403 this server is Rill-only: Barge uploads are not accepted
    - PUT /api/builds/bad\sid/files => 401 missing or invalid token
    user mia member
    mia PUT /api/builds/b3/files?path=a => 403 this operation requires the admin role
    user pete publisher beta
    pete PUT /api/builds/bad\sid/files => 403 this server is Rill-only: Barge uploads are not accepted
    file builds/b1 absent | file builds/done/files/app.bin is=bytes
  )");
}

TEST_F(BuildApi, UploadChecksThePathThenTheStateAndStoresTheBody) {
  walk(R"(
    # A few of the path rule's refusals: the rule itself is the names module's business.
    PUT /api/builds/b2/files?path= x => 400 missing or invalid ?path= parameter
    PUT /api/builds/b2/files?path=a/../b x => 400 missing or invalid ?path= parameter
    PUT /api/builds/b2/files x => 400 missing or invalid ?path= parameter
    # Refusals touch nothing.
    file builds/b2 absent | build b3
    PUT /api/builds/b3/files?path=../x x => 400 missing or invalid ?path= parameter
    PUT /api/builds/b3/files?path=new.txt x => 409 build is finalized and immutable
    PUT /api/builds/b3/files?path=app.bin changed => 409 build is finalized and immutable
    file builds/b3/files/app.bin is=bytes | file builds/b3/files/new.txt absent
    PUT /api/builds/b1/files?path=Game\sData/\xC3\xA9t\xC3\xA9\s1.pak he\x00llo => 200 {"build":"b1","path":"Game Data/\xC3\xA9t\xC3\xA9 1.pak","size":6}
    file builds/b1/files/Game\sData/\xC3\xA9t\xC3\xA9\s1.pak is=he\x00llo
    PUT /api/builds/b1/files?path=empty.dat => 200 {"build":"b1","path":"empty.dat","size":0}
    file builds/b1/files/empty.dat exists
    PUT /api/builds/b1/files?path=Game\sData/\xC3\xA9t\xC3\xA9\s1.pak v2 => 200
    file builds/b1/files/Game\sData/\xC3\xA9t\xC3\xA9\s1.pak is=v2
    # The atomic write leaves nothing beside the files themselves.
    files builds/b1/files 2 | files builds/b1/files/Game\sData 1 | file builds/b1/incoming absent
    # Every upload has a temporary of its own: an empty upload of `x` leaves `x.tmp` alone.
    PUT /api/builds/b1/files?path=x.tmp earlier => 200
    PUT /api/builds/b1/files?path=x => 200
    file builds/b1/files/x.tmp is=earlier
    # A segment may be as long as a file name can be.
    PUT /api/builds/b1/files?path=deep/{255*n} long => 200
    GET /api/builds/b1/files?path=deep/{255*n} => 200 bytes=long
    PUT /api/builds/b1/files?path=deep/{256*n} x => 400 missing or invalid ?path= parameter
    # A path that collides with a file or a directory cannot be stored.
    PUT /api/builds/b1/files?path=plain a\sfile => 200
    PUT /api/builds/b1/files?path=plain/below x => 500 could not store file
    PUT /api/builds/b1/files?path=Game\sData x => 500 could not store file
    file builds/b1/files/plain is=a file
  )");
  // Nor can a body the disk had no room for.
  EXPECT_TRUE(isError(asAdmin(Req("PUT", "/api/builds/b1/files").q("path", "plain").bodyLost()),
                      500, "could not store file"));
  EXPECT_EQ(readBytes(buildDir("b1") / "files" / "plain"), "a file");
}

TEST_F(BuildApi, FinalizeWritesTheManifestWithFilesInByteOrder) {
  const std::string before = store::nowUtcText();
  walk(R"(
    PUT /api/builds/b1/files?path=a.txt 1 => 200
    PUT /api/builds/b1/files?path=B.txt 22 => 200
    PUT /api/builds/b1/files?path=dir2/y 333 => 200
    PUT /api/builds/b1/files?path=dir/x 4444 => 200
    PUT /api/builds/b1/files?path=dir.txt 55555 => 200
    PUT /api/builds/b1/files?path=z.txt => 200
    PUT /api/builds/b1/files?path=\xC3\xA9.txt 666666 => 200
  )");
  fs::create_directories(buildDir("b1") / "files" / "empty dir");
  fs::create_directories(buildDir("husk") / "incoming");
  fs::create_directories(buildDir("hollow") / "files");
  walk(R"(
    POST /api/builds/b1/finalize => 200 keys=build,created_at,file_count,files,schema_version,total_size ; .schema_version=1 ; .build="b1" ; .created_at~\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ ; .file_count=7 ; .total_size=21 ; =@builds/b1/manifest.json ; $at=.created_at ; .files=[{"path":"B.txt","size":2},{"path":"a.txt","size":1},{"path":"dir.txt","size":5},{"path":"dir/x","size":4},{"path":"dir2/y","size":3},{"path":"z.txt","size":0},{"path":"\xC3\xA9.txt","size":6}]
    POST /api/builds/b1/finalize => 409 build already finalized
    # A build needs a files directory but not a file; a broken upload's leftovers are no files.
    POST /api/builds/never/finalize => 404 build has no files
    file builds/never absent
    POST /api/builds/husk/finalize => 404 build has no files
    file builds/husk/manifest.json absent
    POST /api/builds/hollow/finalize => 200 .files=[] ; .total_size=0
  )");
  EXPECT_LE(before, vars_["at"]);
  // The stored manifest is the one answered, in the indented form.
  EXPECT_TRUE(std::regex_search(readBytes(buildDir("b1") / "manifest.json"),
                                std::regex("^\\{\n[ \t]+\"build\"")));
}

TEST_F(BuildApi, LinksLeftUnderABuildAreNeverFollowed) {
  const fs::path outside = dir() / "outside";
  fs::create_directories(outside / "dir");
  writeText(outside / "secret.txt", "secret");
  writeText(outside / "manifest.json", R"({"build":"b4","files":[]})");
  walk("PUT /api/builds/b1/files?path=real.txt real => 200\n PUT /api/builds/b2/files?path=real.txt real => 200\n PUT /api/builds/b4/files?path=a.txt x => 200");
  const fs::path files = buildDir("b1") / "files";
  fs::create_directory_symlink(outside / "dir", files / "linked-dir");
  fs::create_symlink(outside / "secret.txt", files / "linked-file");
  fs::create_symlink(outside / "secret.txt", buildDir("b2") / "files" / "over");
  fs::create_symlink(outside / "manifest.json", buildDir("b4") / "manifest.json");
  fs::create_directories(buildDir("b3"));
  fs::create_directory_symlink(outside / "dir", buildDir("b3") / "files");
  walk(R"(
    PUT /api/builds/b1/files?path=linked-dir/new.txt x => 500 could not store file
    GET /api/builds/b1/files?path=linked-file => 404 file not found
    GET /api/builds/b1/files?path=linked-dir/../secret.txt => 400 missing or invalid ?path= parameter
  )");
  EXPECT_TRUE(fs::is_empty(outside / "dir"));
  writeText(outside / "dir" / "inner.txt", "inner");
  walk(R"(
    GET /api/builds/b1/files?path=linked-dir/inner.txt => 404 file not found
    # Finalize lists neither link nor what lies behind it.
    POST /api/builds/b1/finalize => 200 .files=[{"path":"real.txt","size":4}]
    # An upload over a link replaces the link, never the file it points at.
    PUT /api/builds/b2/files?path=over replaced => 200
    # Nor are the build's documents read through links.
    GET /api/builds/b4 => 404 build not found
    PUT /api/builds/b4/files?path=a.txt y => 409 build is finalized and immutable
    # A `files` that is itself a link is no files directory.
    POST /api/builds/b3/finalize => 404 build has no files
    PUT /api/builds/b3/files?path=a.txt x => 500 could not store file
  )");
  EXPECT_FALSE(fs::is_symlink(buildDir("b2") / "files" / "over"));
  EXPECT_EQ(readBytes(outside / "secret.txt"), "secret");
}

TEST_F(BuildApi, AnUploadRacingFinalizeIsListedOrRefusedNeverChangedAfterwards) {
  for (int round = 0; round < 40; ++round) {
    const std::string id = test::numbered("r", round);
    const auto upload = [&](std::string bytes) {
      return asAdmin(Req("PUT", "/api/builds/" + id + "/files").q("path", "a.bin").body(bytes));
    };
    ASSERT_TRUE(isOk(upload("1")));
    http::Response uploaded;
    std::thread uploader([&] { uploaded = upload(std::string(20000, 'x')); });
    http::Response finalized = asAdmin(Req("POST", "/api/builds/" + id + "/finalize"));
    uploader.join();
    ASSERT_TRUE(isOk(finalized));
    const std::uint64_t listed = bodyOf(finalized)["files"][0]["size"].asUInt64();
    EXPECT_EQ(fs::file_size(buildDir(id) / "files" / "a.bin"), listed) << round;
    if (uploaded.status == 200u) {
      EXPECT_EQ(listed, 20000u) << round;
    } else {
      EXPECT_TRUE(isError(uploaded, 409, "build is finalized and immutable")) << round;
    }
  }
}

TEST_F(BuildApi, ReadDownloadAndTheDisabledFlag) {
  walk(R"(
    GET /api/builds/nobody => 404 build not found
    build b1 a.txt=abc | build b2 | channel nightly b1 | channel beta b1 | channel Zeta b1
    channel other b2 | channel upper B1 | write channels/spaced.json {"build":"b1 "}
    write channels/old.json.bak {"build":"b1"} | write channels/broken.json {"build":"b1"
    # Channel documents of any shape leave reads working.
    write channels/odd1.json ["b1"] | write channels/odd2.json "b1" | write channels/odd3.json 7
    write channels/odd4.json null | write channels/odd5.json {"build": 5, "public": "yes"}
    write channels/folder.json/x
    # The manifest annotated with the channels pointing at it.
    GET /api/builds/b1 => 200 .disabled=false ; .channels=["Zeta","beta","nightly"] ; .build="b1" ; .files=[{"path":"a.txt","size":3}] ; .#=8
    GET /api/builds => 200 .builds.#=2
    # Downloads stream the file named as an attachment.
    PUT /api/builds/b3/files?path=docs/read\sme.TXT text => 200
    GET /api/builds/b3/files => 400 missing or invalid ?path= parameter
    GET /api/builds/b3/files?path=../b3/docs/read\sme.TXT => 400 missing or invalid ?path= parameter
    GET /api/builds/b3/files?path=docs/absent.txt => 404 file not found
    GET /api/builds/b3/files?path=docs => 404 file not found
    GET /api/builds/nobody/files?path=docs/read\sme.TXT => 404 file not found
    GET /api/builds/b3/files?path=docs/read\sme.TXT => 200 bytes=text ; hdr:Content-Disposition=attachment; filename="read me.TXT"; filename*=UTF-8''read%20me.TXT
    # The disabled flag is false only for the exact word false.
    POST /api/builds/nobody/disabled => 404 build not found
    POST /api/builds/b3/disabled?value=true => 404 build not found
    file builds/b3/state.json absent
    POST /api/builds/b1/disabled => 200 {"build":"b1","disabled":true}
    file builds/b1/state.json .disabled=true ; .schema_version=1 ; .#=2
    GET /api/builds/b1 => 200 .disabled=true
    POST /api/builds/b1/disabled?value=false => 200 {"build":"b1","disabled":false}
    GET /api/builds/b1 => 200 .disabled=false
    POST /api/builds/b1/disabled?value=FALSE => 200 {"build":"b1","disabled":true}
    POST /api/builds/b1/disabled?value=false => 200 {"build":"b1","disabled":false}
    POST /api/builds/b1/disabled?value= => 200 {"build":"b1","disabled":true}
    POST /api/builds/b1/disabled?value=true => 200 {"build":"b1","disabled":true}
    # Disabled, the build is still read, downloaded and listed.
    GET /api/builds/b1/files?path=a.txt => 200 bytes=abc
    GET /api/builds => 200 .builds.build:b1.disabled=true
    # An unreadable state document means "not disabled".
    write builds/b1/state.json {"disabled": tru
    GET /api/builds/b1 => 200 .disabled=false
    GET /api/builds => 200 .builds.build:b1.disabled=false
  )");
  const http::Response text =
      asAdmin(Req("GET", "/api/builds/b3/files").q("path", "docs/read me.TXT"));
  EXPECT_TRUE(text.body.empty()) << "streamed from disk, not held in the answer";
  EXPECT_EQ(text.contentType, "text/plain; charset=utf-8");
}

TEST_F(BuildApi, DeleteRefusesWhileOnChannelsNamingThemInOrder) {
  walk(R"(
    DELETE /api/builds/nobody => 404 build not found
    PUT /api/builds/open/files?path=a.txt a => 200
    DELETE /api/builds/open => 200 {"deleted":"open"}
    file builds/open absent | build b1 | build b2 | channel nightly b1 | channel beta b1 public
    channel stable b2
    DELETE /api/builds/b1 => 409 build is still on channel(s): beta, nightly - promote them away first
    POST /api/channels/beta/promote?build=b2 => 200
    DELETE /api/builds/b1 => 409 build is still on channel(s): nightly - promote them away first
    POST /api/channels/nightly/promote?build=b2 => 200
    POST /api/builds/b1/disabled => 200
    DELETE /api/builds/b1 => 200 {"deleted":"b1"}
    file builds/b1 absent
    file channels/nightly.json .build="b2"
  )");
}

TEST_F(BuildApi, ListingSummarisesOnlyFinalizedBuildsInByteOrder) {
  fs::remove_all(data().builds());
  walk(R"(
    GET /api/builds => 200 {"builds":[],"schema_version":1}
    build b f.bin=12345 | build B f.bin=12345 | build a.1 f.bin=12345 | build a-1 f.bin=12345
    PUT /api/builds/open/files?path=dir/a.txt still\suploading => 200
    write builds/stray.json {"created_at":"x"} | write builds/damaged/manifest.json [
    # Open or damaged builds are not found, yet an open one's files download.
    GET /api/builds/open => 404 build not found
    GET /api/builds/damaged => 404 build not found
    GET /api/builds/open/files?path=dir/a.txt => 200 bytes=still uploading
    # Directory names are not checked against the id rule, and the figures are copied as stored.
    write builds/not\san\sid/manifest.json {"schema_version":1,"build":"not an id","created_at":"2020-02-02T02:02:02Z","file_count":7,"total_size":12345678901234,"files":[]}
    channel zed b | channel alpha b | write channels/odd.json {"build":"not an id"}
    POST /api/builds/a.1/disabled => 200
    GET /api/builds => 200 keys=builds,schema_version ; .builds.#=5 ; .builds.0.build="B" ; .builds.1.build="a-1" ; .builds.2.build="a.1" ; .builds.2.disabled=true ; .builds.3.channels=["alpha","zed"] ; .builds.3.#=6 ; .builds.3.build="b" ; .builds.3.disabled=false ; .builds.3.file_count=1 ; .builds.3.total_size=5 ; .builds.4={"build":"not an id","channels":["odd"],"created_at":"2020-02-02T02:02:02Z","disabled":false,"file_count":7,"total_size":12345678901234} ; $at=.builds.3.created_at
  )");
  EXPECT_EQ(vars_["at"], readDoc(buildDir("b") / "manifest.json")["created_at"].asString());
}

// The listing reads the channels once for all builds; it must agree with each build's own read.
TEST_F(BuildApi, ListingOfManyBuildsAgreesWithEachBuildsOwnRead) {
  constexpr int kBuilds = 300;
  auto idOf = [](int i) { return test::numbered("b", 1000 + i); };
  for (int i = 0; i < kBuilds; ++i) {
    const std::string id = idOf(i);
    writeText(buildDir(id) / "manifest.json",
              R"({"schema_version":1,"build":")" + id + R"(","created_at":")" +
                  store::formatUtc(1700000000 + i) + R"(","file_count":)" + std::to_string(i % 17) +
                  R"(,"total_size":)" + std::to_string(i * 1000) + R"(,"files":[]})");
    if (i % 7 == 0) writeText(buildDir(id) / "state.json", R"({"disabled":true})");
  }
  for (int k = 0; k < 60; ++k) {
    // Pairs of channels share a build; some point nowhere or at a missing build.
    writeChannel((k % 3 ? "ch" : "CH") + std::to_string(k),
                 k % 11 == 0 ? "" : k % 13 == 0 ? "gone" : idOf((k / 2) * 19 % kBuilds), k % 2 == 0);
  }
  const Json::Value builds = bodyOf(asAdmin(Req("GET", "/api/builds")))["builds"];
  ASSERT_EQ(builds.size(), static_cast<Json::ArrayIndex>(kBuilds));
  for (int i = 0; i < kBuilds; ++i) {
    Json::Value own = bodyOf(asAdmin(Req("GET", "/api/builds/" + idOf(i))));
    own.removeMember("files");
    own.removeMember("schema_version");
    EXPECT_EQ(builds[i], own) << idOf(i);
  }
}

// Downloads with byte ranges and conditions: a file of a finalized build offers validators, the
// same file of a build still open (that may still be replaced) offers none.
TEST_F(BuildApi, RangesAndConditions) {
  vars_["d"] = "/api/builds/done/files?path=dir/app.bin";
  walk(R"(
    build done dir/app.bin=0123456789 | build empty dir/app.bin=
    PUT /api/builds/open/files?path=dir/app.bin 0123456789 => 200
    GET $d => 200 bytes=0123456789 ; hdr:Accept-Ranges=bytes ; hdr:ETag~".+" ; $etag=hdr:ETag ; $date=hdr:Last-Modified
    GET /api/builds/open/files?path=dir/app.bin => 200 hdr:ETag= ; hdr:Last-Modified=
  )");
  const auto date = http::parseHttpDate(vars_["date"]);
  ASSERT_TRUE(date);
  vars_["older"] = http::httpDate(*date - 1);
  for (const char* var : {"date", "older"}) {
    vars_[var] = std::regex_replace(vars_[var], std::regex(" "), "\\s");  // one word on a line
  }
  walk(R"(
    range:bytes=2-4 GET $d => 206 bytes=234 ; hdr:Content-Range=bytes 2-4/10 ; hdr:Accept-Ranges=bytes
    range:bytes=8-99 GET $d => 206 bytes=89 ; hdr:Content-Range=bytes 8-9/10
    range:bytes=-3 GET $d => 206 bytes=789 ; hdr:Content-Range=bytes 7-9/10
    range:bytes=-30 GET $d => 206 bytes=0123456789 ; hdr:Content-Range=bytes 0-9/10
    range:bytes=10- GET $d => 416 requested range not satisfiable ; hdr:Content-Range=bytes */10
    range:bytes=-0 GET $d => 416 requested range not satisfiable ; hdr:Content-Range=bytes */10
    range:bytes=0- GET /api/builds/empty/files?path=dir/app.bin => 416
    # Ignored: several ranges, another unit, a reversed or unreadable range.
    range:bytes=0-1,4-5 GET $d => 200 bytes=0123456789 ; hdr:Content-Range= ; hdr:Accept-Ranges=bytes
    range:items=0-1 GET $d => 200 bytes=0123456789 ; hdr:Content-Range=
    range:bytes=5-2 GET $d => 200 bytes=0123456789 ; hdr:Content-Range=
    range:bytes=x- GET $d => 200 bytes=0123456789 ; hdr:Content-Range=
    if-none-match:$etag GET $d => 304 hdr:ETag=$etag ; hdr:Content-Range=
    if-none-match:"other",\sW/$etag GET $d => 304 hdr:ETag=$etag
    if-none-match:* GET $d => 304 hdr:ETag=$etag
    if-none-match:"other" GET $d => 200 bytes=0123456789
    if-modified-since:$date GET $d => 304 hdr:ETag=$etag
    if-modified-since:$older GET $d => 200 bytes=0123456789
    if-modified-since:yesterday GET $d => 200 bytes=0123456789
    # If-None-Match decides alone when both are sent.
    if-none-match:"other" if-modified-since:$date GET $d => 200 bytes=0123456789
    range:bytes=4- if-range:$etag GET $d => 206 bytes=456789 ; hdr:Content-Range=bytes 4-9/10
    range:bytes=4- if-range:$date GET $d => 206 bytes=456789 ; hdr:Content-Range=bytes 4-9/10
    range:bytes=4- if-range:"other" GET $d => 200 bytes=0123456789 ; hdr:Content-Range=
    range:bytes=4- if-range:W/$etag GET $d => 200 bytes=0123456789 ; hdr:Content-Range=
    range:bytes=4- if-range:$older GET $d => 200 bytes=0123456789 ; hdr:Content-Range=
    # A file that may still be replaced: ranges yes, conditions never.
    range:bytes=4- GET /api/builds/open/files?path=dir/app.bin => 206 bytes=456789 ; hdr:Content-Range=bytes 4-9/10
    if-none-match:* GET /api/builds/open/files?path=dir/app.bin => 200 bytes=0123456789
    if-modified-since:$date GET /api/builds/open/files?path=dir/app.bin => 200 bytes=0123456789
    range:bytes=4- if-range:$date GET /api/builds/open/files?path=dir/app.bin => 200 bytes=0123456789 ; hdr:Content-Range=
  )");
}


using ChannelApi = BuildApi;

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
