#pragma once
// Helpers shared by the invite, access-request and claim tests, on top of the in-process API
// fixture: groups with channels, invites minted or aged by hand, distinct client addresses.

#include <json/value.h>

#include <ctime>
#include <filesystem>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "api/api_fixture.h"
#include "store/groups.h"
#include "store/invites.h"

namespace quill::test {

class OnboardingTest : public ApiTest {
 protected:
  // A peer address used by no other request of the test, so the credential budget of one
  // attempt never spills into the next unless a test wants it to.
  std::string freshPeer() {
    ++peers_;
    return "10.9." + std::to_string(peers_ / 250) + "." + std::to_string(peers_ % 250 + 1);
  }

  void seedGroup(const std::string& name, const std::vector<std::string>& channels = {}) {
    Json::Value group = store::newGroupRecord(name);
    for (const auto& channel : channels) group["channels"].append(channel);
    ASSERT_TRUE(store::saveGroup(data(), group));
  }

  // POST /api/invites as the admin with the given query parameters.
  http::Response mint(const std::vector<std::pair<std::string, std::string>>& params) {
    Req req("POST", "/api/invites");
    req.bearer(admin());
    for (const auto& [name, value] : params) req.q(name, value);
    return send(req);
  }

  // A code for `user` straight from the store.
  std::string inviteCode(const std::string& user, std::vector<std::string> groups = {},
                         const std::string& email = "", const std::string& displayName = "") {
    store::InviteRequest invite;
    invite.user = user;
    invite.groups = std::move(groups);
    invite.email = email;
    invite.displayName = displayName;
    auto created = store::createInvite(data(), invite);
    EXPECT_TRUE(created.has_value());
    return created ? (*created)["code"].asString() : "";
  }

  std::filesystem::path invitePath(const std::string& code) const {
    return store::invitePath(data(), code);
  }

  // Moves an invite's expiry `seconds` into the past.
  void age(const std::string& code, std::int64_t seconds) {
    Json::Value record = readDoc(invitePath(code));
    record["expires_epoch"] = Json::Int64(std::time(nullptr) - seconds);
    ASSERT_TRUE(store::writeJsonFile(invitePath(code), record));
  }

  // POST /api/invites/redeem from a fresh peer; `machine` is left off when null.
  http::Response redeem(const std::string& code, const char* machine = nullptr) {
    Req req("POST", "/api/invites/redeem");
    req.q("code", code).from(freshPeer());
    if (machine) req.q("machine", machine);
    return send(req);
  }

  // Sends `req` with `body` through a router of its own over the same context (with a rate limiter
  // of its own too): the request builder carries no body.
  http::Response sendBody(const Req& req, std::string body) {
    if (!bodyRouter_ || bodyRouterCtx_ != &ctx()) {
      bodyRouter_ = std::make_unique<http::Router>(makeRouter(ctx()));
      bodyRouterCtx_ = &ctx();
    }
    http::Request built = req.build();
    built.body = std::move(body);
    built.hasBody = !built.body.empty();
    built.contentLength = built.body.size();
    return bodyRouter_->dispatch(built);
  }

  std::size_t filesIn(const std::filesystem::path& dir) const {
    std::error_code ec;
    if (!std::filesystem::exists(dir, ec)) return 0;
    std::size_t n = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir)) ++n;
    return n;
  }

  static bool randomText(const Json::Value& value, std::size_t length) {
    return value.isString() &&
           std::regex_match(value.asString(),
                            std::regex("[A-Za-z0-9]{" + std::to_string(length) + "}"));
  }

 private:
  int peers_ = 0;
  std::unique_ptr<http::Router> bodyRouter_;
  const Context* bodyRouterCtx_ = nullptr;
};

}  // namespace quill::test
