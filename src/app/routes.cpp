#include "app/routes.h"

#include "api/access_requests.h"
#include "api/claim.h"
#include "api/groups.h"
#include "api/invites.h"
#include "api/service_tokens.h"
#include "api/users.h"
#include "app/gate.h"
#include "app/service_endpoints.h"
#include "backup/backup_api.h"
#include "builds/build_api.h"
#include "builds/channel_api.h"
#include "http/json.h"
#include "sso/config_api.h"
#include "sso/sign_in_api.h"
#include "storage/storage_api.h"
#include "storage/sync_api.h"

namespace quill {

namespace {

using http::Request;
using http::Response;

http::Route route(const char* method, const char* path, http::Handler handler) {
  http::Route r;
  r.method = method;
  r.pattern = path;
  r.handler = std::move(handler);
  return r;
}

using ContextHandler = Response (*)(const Request&, Context&);

http::Route route(const char* method, const char* path, Context& ctx, ContextHandler handler) {
  return route(method, path, [&ctx, handler](const Request& req) { return handler(req, ctx); });
}

// JSON request documents are small; a larger body is refused before it is read.
constexpr std::uint64_t kJsonBodyLimit = 1 << 20;

// A route that reads a JSON document from its body (every other route drops a body unread).
http::Route withJsonBody(http::Route r) {
  r.bodyLimit = kJsonBodyLimit;
  return r;
}

// The remote services that handlers wait on. Each has a pool of its own, so that one that stops
// answering delays only the routes that need it: sign-ins go on while the bucket stalls, and an
// admin can still test and save new settings while the configured bucket or provider stalls.
constexpr const char* kRillBucket = "rill bucket";
constexpr const char* kBackupBucket = "backup bucket";
constexpr const char* kIdentityProvider = "identity provider";
constexpr const char* kSettingsProbe = "settings probe";  // the bucket or provider being tried

http::Route waitingOn(const char* service, http::Route r) {
  r.waitsOn = service;
  return r;
}

// A route whose body is streamed to disk after a check on the head alone.
http::Route streamed(http::Route r, Context& ctx,
                     std::optional<Response> (*check)(const Request&, Context&),
                     std::filesystem::path (*bodyFile)(const Request&, Context&)) {
  r.headCheck = [&ctx, check](const Request& req) { return check(req, ctx); };
  r.bodyFile = [&ctx, bodyFile](const Request& req) { return bodyFile(req, ctx); };
  return r;
}

}  // namespace

std::vector<http::Route> routeTable(Context& ctx) {
  return {
      route("GET", "/api/channels", ctx, builds::listChannels),
      route("POST", "/api/channels/{channel}", ctx, builds::createChannel),
      route("GET", "/api/channels/{channel}", ctx, builds::readChannel),
      route("DELETE", "/api/channels/{channel}", ctx, builds::deleteChannel),
      route("POST", "/api/channels/{channel}/promote", ctx, builds::promoteChannel),
      route("POST", "/api/channels/{channel}/public", ctx, builds::setChannelPublic),
      withJsonBody(route("POST", "/api/channels/{channel}/launch", ctx, builds::setLaunchTargets)),
      route("GET", "/api/builds", ctx, builds::listBuilds),
      route("GET", "/api/builds/{id}", ctx, builds::readBuild),
      route("DELETE", "/api/builds/{id}", ctx, builds::deleteBuild),
      streamed(route("PUT", "/api/builds/{id}/files", ctx, builds::uploadFile), ctx,
               builds::uploadCheck, builds::uploadBodyFile),
      route("GET", "/api/builds/{id}/files", ctx, builds::downloadFile),
      route("POST", "/api/builds/{id}/finalize", ctx, builds::finalizeBuild),
      route("POST", "/api/builds/{id}/disabled", ctx, builds::setBuildDisabled),
      route("GET", "/api/me", ctx, api::me),
      route("POST", "/api/invites", ctx, api::mintInvite),
      route("GET", "/api/invites", ctx, api::listInvites),
      route("DELETE", "/api/invites/{id}", ctx, api::revokeInvite),
      route("POST", "/api/invites/redeem", ctx, api::redeemInvite),
      withJsonBody(route("POST", "/api/access-requests", ctx, api::submitAccessRequest)),
      route("GET", "/api/access-requests", ctx, api::listAccessRequests),
      route("POST", "/api/access-requests/{id}/approve", ctx, api::approveAccessRequest),
      route("DELETE", "/api/access-requests/{id}", ctx, api::declineAccessRequest),
      route("GET", "/api/claim", ctx, api::claimState),
      route("POST", "/api/claim", ctx, api::claim),
      route("GET", "/api/users", ctx, api::listUsers),
      route("POST", "/api/users/{name}", ctx, api::createUser),
      route("DELETE", "/api/users/{name}", ctx, api::deleteUser),
      route("POST", "/api/users/{name}/groups", ctx, api::addUserToGroup),
      route("DELETE", "/api/users/{name}/groups", ctx, api::removeUserFromGroup),
      route("POST", "/api/users/{name}/channels", ctx, api::followChannel),
      route("DELETE", "/api/users/{name}/channels", ctx, api::unfollowChannel),
      route("POST", "/api/users/{name}/disabled", ctx, api::setUserDisabled),
      route("POST", "/api/users/{name}/role", ctx, api::setUserRole),
      route("POST", "/api/users/{name}/profile", ctx, api::setUserProfile),
      route("POST", "/api/users/{name}/tokens", ctx, api::mintServiceToken),
      route("GET", "/api/groups", ctx, api::listGroups),
      route("POST", "/api/groups/{name}", ctx, api::createGroup),
      route("DELETE", "/api/groups/{name}", ctx, api::deleteGroup),
      route("POST", "/api/groups/{name}/channels", ctx, api::assignGroupChannel),
      route("DELETE", "/api/groups/{name}/channels", ctx, api::unassignGroupChannel),
      route("GET", "/api/version", [](const Request&) { return versionDocument(); }),
      route("GET", "/api/openapi.yaml", [](const Request&) { return openapiDocument(); }),
      waitingOn(kRillBucket, route("GET", "/api/rill/sync/{channel}", ctx, storage::rillSync)),
      route("POST", "/api/backup", ctx, backup::startBackup),
      waitingOn(kBackupBucket, route("GET", "/api/backups", ctx, backup::backupStatus)),
      withJsonBody(route("PUT", "/api/backup/config", ctx, backup::setBackupSchedule)),
      withJsonBody(
          waitingOn(kSettingsProbe, route("POST", "/api/backup/init", ctx, backup::initBackups))),
      route("DELETE", "/api/backup/config", ctx, backup::forgetBackupConfig),
      route("GET", "/api/storage", ctx, storage::readStorage),
      waitingOn(kSettingsProbe,
                withJsonBody(route("PUT", "/api/storage", ctx, storage::saveStorage))),
      route("DELETE", "/api/storage", ctx, storage::forgetStorage),
      waitingOn(kSettingsProbe,
                withJsonBody(route("POST", "/api/storage/test", ctx, storage::testStorage))),
      route("GET", "/api/sso/config", ctx, sso::readConfig),
      waitingOn(kSettingsProbe, withJsonBody(route("PUT", "/api/sso/config", ctx, sso::putConfig))),
      route("DELETE", "/api/sso/config", ctx, sso::deleteConfig),
      waitingOn(kSettingsProbe,
                withJsonBody(route("POST", "/api/sso/config/test", ctx, sso::testConfig))),
      route("GET", "/api/sso/mapping", ctx, sso::readMapping),
      withJsonBody(route("PUT", "/api/sso/mapping", ctx, sso::putMapping)),
      route("GET", "/api/sso/status", ctx, sso::ssoStatus),
      waitingOn(kIdentityProvider, route("GET", "/api/sso/start", ctx, sso::startSignIn)),
      waitingOn(kIdentityProvider, route("GET", "/api/sso/callback", ctx, sso::callback)),
      withJsonBody(route("POST", "/api/sso/handoff", ctx, sso::handoff)),
      route("GET", "/api/docs", [](const Request&) { return docsPage(); }),
      route("GET", "/", [](const Request&) { return landingPage(); }),
  };
}

http::Router makeRouter(Context& ctx) {
  http::Router router;
  auto gate = std::make_shared<Gate>(ctx);
  router.setPreHandling([gate](const Request& req) { return gate->judge(req); });
  for (auto& r : routeTable(ctx)) router.add(std::move(r));
  return router;
}

}  // namespace quill
