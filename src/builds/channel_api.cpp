#include "builds/channel_api.h"

#include <algorithm>

#include "base/json_reader.h"
#include "builds/build_store.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/names.h"
#include "store/users.h"
#include "store/utc_time.h"

namespace quill::builds {

namespace {

namespace text {
constexpr const char* kBadName = "invalid channel name";
constexpr const char* kNotFound = "channel not found";
constexpr const char* kBadEngine = "engine must be 'barge' or 'rill'";
constexpr const char* kRillOnly =
    "this server is Rill-only: create the channel with engine=rill and publish with quillmoor-rill";
constexpr const char* kExists = "channel already exists";
constexpr const char* kCreateFailed = "could not create channel";
constexpr const char* kUpdateFailed = "could not update channel";
constexpr const char* kBadBuild = "missing or invalid ?build= parameter";
constexpr const char* kBuildMissing = "build not found or not finalized";
constexpr const char* kBuildDisabled = "build is disabled and cannot be promoted";
constexpr const char* kBadPublic = "?value= must be true or false";
constexpr const char* kBadLaunchBody = R"(body must be JSON {"launch_targets": [ ... ]})";
constexpr const char* kTooManyTargets = "at most 32 launch targets per channel";
constexpr const char* kTargetNotObject = "each launch target must be an object";
constexpr const char* kBadLabel = "launch target 'label' must be 1..128 characters";
constexpr const char* kBadExe =
    "launch target 'exe' must be a safe install-relative path (no '..', no drive, forward "
    "slashes)";
constexpr const char* kLongArgs = "launch target 'args' too long";
constexpr const char* kTwoPrimaries = "at most one launch target can be marked primary";
}  // namespace text

constexpr Json::ArrayIndex kMaxLaunchTargets = 32;
constexpr std::size_t kMaxLabel = 128;
constexpr std::size_t kMaxArgs = 1024;

fs::path channelPath(const Context& ctx, const std::string& name) {
  return store::DataDir::recordPath(ctx.data.channels(), name);
}

std::optional<Json::Value> loadChannel(const Context& ctx, const std::string& name) {
  Json::Value doc;
  if (!store::readJsonFile(channelPath(ctx, name), doc)) return std::nullopt;
  return doc;
}

Response savedChannel(const Context& ctx, const std::string& name, const Json::Value& doc) {
  if (!store::writeJsonFile(channelPath(ctx, name), doc)) {
    return http::errorResponse(500, text::kUpdateFailed);
  }
  return http::jsonResponse(doc);
}

// The summary of one channel for the listing, with its build's manifest figures when readable.
Json::Value channelSummary(const Context& ctx, const std::string& name, const Json::Value& doc) {
  Json::Value summary(Json::objectValue);
  summary["channel"] = name;
  summary["engine"] = doc["engine"].isString() ? doc["engine"] : Json::Value("barge");
  summary["build"] = doc["build"];
  summary["promoted_at"] = store::textOf(doc, "promoted_at");
  summary["public"] = store::flagOf(doc, "public");
  if (doc.isMember("launch_targets")) summary["launch_targets"] = doc["launch_targets"];
  const std::string build = store::textOf(doc, "build");
  if (!store::isValidName(build)) return summary;
  if (auto manifest = readManifest(buildPaths(ctx.data, build))) {
    summary["file_count"] = (*manifest)["file_count"];
    summary["total_size"] = (*manifest)["total_size"];
    summary["build_created_at"] = (*manifest)["created_at"];
  }
  return summary;
}

// Removes `channel` from the `member` array of every record in `records`; saves and counts the
// changed ones (a failed save is counted all the same and does not stop the others).
template <typename Save>
int unassign(std::vector<Json::Value> records, const char* member, const std::string& channel,
             Save save) {
  int changed = 0;
  for (auto& record : records) {
    if (!handler::removeAll(record[member], channel)) continue;
    save(record);
    ++changed;
  }
  return changed;
}

}  // namespace

Response listChannels(const Request&, Context& ctx) {
  auto documents = store::listJsonDir(ctx.data.channels());
  std::sort(documents.begin(), documents.end(),
            [](const auto& a, const auto& b) { return a.first.filename() < b.first.filename(); });
  Json::Value channels(Json::arrayValue);
  for (const auto& [path, doc] : documents) {
    channels.append(channelSummary(ctx, path.stem().string(), doc));
  }
  Json::Value result(Json::objectValue);
  result["schema_version"] = 1;
  result["channels"] = std::move(channels);
  return http::jsonResponse(result);
}

Response readChannel(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (!store::isValidName(name)) return http::errorResponse(400, text::kBadName);
  auto doc = loadChannel(ctx, name);
  if (!doc) return http::errorResponse(404, text::kNotFound);
  return http::jsonResponse(*doc);
}

Response createChannel(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (!store::isValidName(name)) return http::errorResponse(400, text::kBadName);
  std::string engine(req.param("engine").value_or(""));
  if (engine.empty()) engine = "barge";
  if (engine != "barge" && engine != "rill") return http::errorResponse(400, text::kBadEngine);
  if (ctx.settings.rillOnly && engine == "barge") return http::errorResponse(403, text::kRillOnly);
  std::error_code ec;
  if (fs::exists(channelPath(ctx, name), ec)) return http::errorResponse(409, text::kExists);
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["engine"] = engine;
  doc["build"] = "";
  doc["created_at"] = store::nowUtcText();
  if (!store::writeJsonFile(channelPath(ctx, name), doc)) {
    return http::errorResponse(500, text::kCreateFailed);
  }
  return http::jsonResponse(doc);
}

Response deleteChannel(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (!store::isValidName(name)) return http::errorResponse(400, text::kBadName);
  std::error_code ec;
  if (!fs::exists(channelPath(ctx, name), ec)) return http::errorResponse(404, text::kNotFound);
  int groups = unassign(store::listGroups(ctx.data), "channels", name,
                        [&](const Json::Value& g) { store::saveGroup(ctx.data, g); });
  int users = unassign(store::listUsers(ctx.data), "follows", name,
                       [&](const Json::Value& u) { store::saveUser(ctx.data, u); });
  store::removeFile(channelPath(ctx, name));
  Json::Value doc(Json::objectValue);
  doc["deleted"] = name;
  doc["unassigned_from_groups"] = groups;
  doc["unfollowed_by_users"] = users;
  return http::jsonResponse(doc);
}

Response promoteChannel(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (!store::isValidName(name)) return http::errorResponse(400, text::kBadName);
  auto build = handler::nameParam(req, "build");
  if (!build) return http::errorResponse(400, text::kBadBuild);
  auto old = loadChannel(ctx, name);
  if (!old) {
    return http::errorResponse(404, "channel '" + name +
                                        "' does not exist - create it first (quillmoor channel "
                                        "create " +
                                        name + ")");
  }
  const BuildPaths paths = buildPaths(ctx.data, *build);
  if (!isFinalized(paths)) return http::errorResponse(404, text::kBuildMissing);
  if (isDisabled(paths)) return http::errorResponse(409, text::kBuildDisabled);
  // Promotion is the file-by-file operation: the new pointer carries no engine member.
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["build"] = *build;
  doc["promoted_at"] = store::nowUtcText();
  for (const char* kept : {"created_at", "public", "launch_targets"}) {
    if (old->isMember(kept)) doc[kept] = (*old)[kept];
  }
  return savedChannel(ctx, name, doc);
}

Response setChannelPublic(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (!store::isValidName(name)) return http::errorResponse(400, text::kBadName);
  std::string_view value = req.param("value").value_or("");
  if (value != "true" && value != "false") return http::errorResponse(400, text::kBadPublic);
  auto doc = loadChannel(ctx, name);
  if (!doc) return http::errorResponse(404, text::kNotFound);
  (*doc)["public"] = value == "true";
  return savedChannel(ctx, name, *doc);
}

handler::OrError<Json::Value> checkedLaunchTargets(const std::string& body) {
  auto parsed = base::parseJsonObject(body);
  if (!parsed || !(*parsed)["launch_targets"].isArray()) {
    return http::errorResponse(400, text::kBadLaunchBody);
  }
  const Json::Value& targets = (*parsed)["launch_targets"];
  if (targets.size() > kMaxLaunchTargets) return http::errorResponse(400, text::kTooManyTargets);
  Json::Value normalised(Json::arrayValue);
  bool primarySeen = false;
  for (const auto& target : targets) {
    if (!target.isObject()) return http::errorResponse(400, text::kTargetNotObject);
    const std::string label = store::textOf(target, "label");
    if (label.empty() || label.size() > kMaxLabel) return http::errorResponse(400, text::kBadLabel);
    const std::string exe = store::textOf(target, "exe");
    if (!store::isSafeRelativePath(exe)) return http::errorResponse(400, text::kBadExe);
    const std::string args = store::textOf(target, "args");
    if (args.size() > kMaxArgs) return http::errorResponse(400, text::kLongArgs);
    const bool primary = store::flagOf(target, "primary");
    if (primary && primarySeen) return http::errorResponse(400, text::kTwoPrimaries);
    primarySeen = primarySeen || primary;
    Json::Value clean(Json::objectValue);
    clean["label"] = label;
    clean["exe"] = exe;
    clean["args"] = args;
    clean["primary"] = primary;
    normalised.append(std::move(clean));
  }
  return normalised;
}

Response setLaunchTargets(const Request& req, Context& ctx) {
  const std::string& name = req.segment();
  if (!store::isValidName(name)) return http::errorResponse(400, text::kBadName);
  auto doc = loadChannel(ctx, name);
  if (!doc) return http::errorResponse(404, text::kNotFound);
  auto targets = checkedLaunchTargets(req.body);
  if (auto* refusal = std::get_if<Response>(&targets)) return std::move(*refusal);
  (*doc)["launch_targets"] = std::get<Json::Value>(std::move(targets));
  return savedChannel(ctx, name, *doc);
}

}  // namespace quill::builds
