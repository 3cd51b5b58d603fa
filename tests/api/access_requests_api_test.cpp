// Access requests: submission with its checks and the cap of pending requests, the admin-only
// list, approval into an invite, and declining.

#include <algorithm>
#include <ctime>

#include "support/api_fixture.h"

namespace quill::test {
namespace {

class AccessRequestsApi : public ApiTest {
 protected:
  // The ids of the stored requests.
  std::vector<std::string> ids() const {
    std::vector<std::string> found;
    std::error_code ec;
    for (fs::directory_iterator it(data().accessRequests(), ec), end; !ec && it != end; ++it) {
      found.push_back(it->path().stem().string());
    }
    return found;
  }
  // Submits a request and names its id `$var`.
  void pending(const std::string& var, const std::string& name, const std::string& email) {
    const auto before = ids();
    walk("- POST /api/access-requests {\"name\":\"" + name + "\",\"email\":\"" + email + "\"} => 200");
    for (const auto& id : ids()) {
      if (std::find(before.begin(), before.end(), id) == before.end()) vars_[var] = id;
    }
  }
};

TEST_F(AccessRequestsApi, SubmitStoresTheRequestWithProfileTextRules) {
  walk(R"(- POST /api/access-requests {"name":"newbie","email":"newbie@example.com","message":"let me\\tin\\nplease"} => 200 {"accepted":true})");
  ASSERT_EQ(ids().size(), 1u);
  vars_["id"] = ids()[0];
  walk(R"(
    file access-requests/$id.json .id~[A-Za-z0-9]{8} ; .id="$id" ; .created_at~\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ ; .email="newbie@example.com" ; .message="let me in please" ; .name="newbie" ; .schema_version=1 ; .#=6
    # No message is an empty message; a long one is cut to 256 bytes.
    - POST /api/access-requests {"name":"quiet","email":"q@example.com"} => 200
    - POST /api/access-requests {"name":"chatty","email":"c@example.com","message":"{300*m}"} => 200
    # A name of 128 characters is still a name.
    - POST /api/access-requests {"name":"{128*n}","email":"n@example.com"} => 200
  )");
  for (const auto& id : ids()) {
    const Json::Value r = readDoc(data().accessRequests() / (id + ".json"));
    if (r["name"] == "quiet") {
      EXPECT_EQ(r["message"], "");
    } else if (r["name"] == "chatty") {
      EXPECT_EQ(r["message"], std::string(256, 'm'));
    }
  }
}

TEST_F(AccessRequestsApi, SubmitRefusesBadBodiesNamesAndAddressesWritingNothing) {
  walk(R"(
    - POST /api/access-requests => 400 JSON body required
    - POST /api/access-requests not\sjson => 400 JSON body required
    - POST /api/access-requests [1,2] => 400 JSON body required
    - POST /api/access-requests "name" => 400 JSON body required
    - POST /api/access-requests 42 => 400 JSON body required
    - POST /api/access-requests null => 400 JSON body required
    - POST /api/access-requests {"name":{1001*[}{1001*]}} => 400 JSON body required
    - POST /api/access-requests {"email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":42,"email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"{129*n}","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"..","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"con","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"Aux.txt","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"a..b","email":"a@example.com"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"x..","email":"a@example.com"} => 400 missing or invalid name
    # The name is checked before the address.
    - POST /api/access-requests {"name":"","email":"bad"} => 400 missing or invalid name
    - POST /api/access-requests {"name":"ann"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":""} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"@example.com"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"ann@example"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"ann.x@example"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"ann @example.com"} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"ann@example.com "} => 400 a valid email address is required
    - POST /api/access-requests {"name":"ann","email":"annexample.com"} => 400 a valid email address is required
    files access-requests 0
    - POST /api/access-requests {"name":"ann","email":"a@b.c"} => 200
  )");
}

TEST_F(AccessRequestsApi, FiftyPendingRequestsCloseTheDoorAndEveryAttemptIsStillCharged) {
  for (int i = 0; i < 50; ++i) {
    const std::string id = "req" + std::to_string(10000 + i);
    writeDoc(data().accessRequests() / (id + ".json"),
             parseJson(R"({"schema_version":1,"id":")" + id + R"(","name":"person)" +
                       std::to_string(i) + R"(","email":"p@example.com","message":"",)"
                       R"("created_at":"2026-01-01T00:00:00Z"})"));
  }
  walk(R"(
    5* - @10.0.0.8 POST /api/access-requests {"name":"late","email":"late@example.com"} => 429 too many pending requests - try again later
    - @10.0.0.8 POST /api/access-requests {"name":"late","email":"late@example.com"} => 429 too many requests - slow down and retry later ; hdr:Retry-After~[0-9]+
    files access-requests 50
    # Declining one opens a place again.
    DELETE /api/access-requests/req10000 => 200
    - POST /api/access-requests {"name":"late","email":"late@example.com"} => 200
    - POST /api/access-requests {"name":"later","email":"later@example.com"} => 429 too many pending requests - try again later
  )");
}

TEST_F(AccessRequestsApi, ListApproveAndDecline) {
  walk("user known publisher stable\n group testers beta\n mark users/known.json\n write access-requests/broken.json {");
  pending("known", "known", "k@example.com");
  pending("fresh", "fresh", "f@example.com");
  pending("third", "third", "t@example.com");
  // Each entry is the stored record less its schema version, plus whether the user exists.
  walk(R"(
    GET /api/access-requests => 200 keys=requests,schema_version ; .requests.#=3 ; .requests.id:$known.user_exists=true ; .requests.id:$fresh.user_exists=false ; .requests.id:$fresh.schema_version! ; .requests.id:$fresh.email="f@example.com" ; .requests.id:$fresh.name="fresh" ; .requests.id:$fresh.message="" ; .requests.id:$fresh.created_at~.+Z ; .requests.id:$fresh.#=6
    # Approval turns the request into an invite carrying the address.
    POST /api/access-requests/$fresh/approve => 200 keys=code,email,expires_at,groups,id,schema_version,user ; .email="f@example.com" ; .user="fresh" ; .groups=[] ; $code=.code ; $invite=.id
    file access-requests/$fresh.json absent
  )");
  EXPECT_EQ(readDoc(invitePath(vars_["code"]))["id"], vars_["invite"]);
  EXPECT_FALSE(readDoc(invitePath(vars_["code"])).isMember("display_name"));
  walk(R"(
    - POST /api/invites/redeem?code=$code&machine=desk => 200
    file users/fresh.json .email="f@example.com" ; .role="member"
    # A refused approval keeps the request and writes no invite (the messages are the mint's own).
    POST /api/access-requests/$known/approve?groups=testers,ghost => 404
    POST /api/access-requests/$known/approve?days=3651 => 400
    files invites 0
    POST /api/access-requests/$known/approve?groups=testers&days=30 => 200 .groups=["testers"] ; $code=.code
    unchanged users/known.json
    # Declining removes only that request, and either ends it.
    DELETE /api/access-requests/$third => 200 {"declined":"$third"}
    file access-requests/$third.json absent
    files access-requests 1
    DELETE /api/access-requests/$third => 404 no such request
    POST /api/access-requests/$known/approve => 404 no such request
    DELETE /api/access-requests/con => 404 no such request
    POST /api/access-requests/nosuch/approve => 404 no such request
  )");
  const auto expires = readDoc(invitePath(vars_["code"]))["expires_epoch"].asInt64();
  EXPECT_LE(expires, std::time(nullptr) + 30 * 86400);
  EXPECT_GT(expires, std::time(nullptr) + 29 * 86400);
}

}  // namespace
}  // namespace quill::test
