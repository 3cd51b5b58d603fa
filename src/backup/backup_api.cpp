#include "backup/backup_api.h"

#include <chrono>

#include "base/json_reader.h"
#include "backup/background_run.h"
#include "backup/backup_config.h"
#include "backup/backup_key.h"
#include "backup/backup_state.h"
#include "backup/backup_store.h"
#include "backup/backup_texts.h"
#include "backup/snapshots.h"
#include "handler/common.h"
#include "http/json.h"
#include "rill/providers/bucket_probe.h"
#include "rill/transport/s3_settings.h"
#include "store/documents.h"

namespace quill::backup {

namespace {

constexpr const char* kSharedPrefix = "backups/";
constexpr const char* kCannotWriteSchedule = "cannot write backup.json";

bool fileExists(const fs::path& path) {
  std::error_code ec;
  return fs::exists(path, ec);
}

// The bucket and prefix of either mode, or the refusal.
handler::OrError<rill::S3Settings> destinationOf(const Json::Value& body, const std::string& mode,
                                                 Context& ctx) {
  if (mode == "shared") {
    auto settings = rill::readRillJson(ctx.data.root());
    if (!settings) return http::errorResponse(400, text::kSharedNeedsStorage + settings.error());
    settings.value().prefix = kSharedPrefix;
    return settings.value();
  }
  if (mode == "separate") {
    auto settings = rill::parseS3Credentials(body);
    if (!settings) return http::errorResponse(400, settings.error());
    return settings.value();
  }
  return http::errorResponse(400, text::kBadMode);
}

Json::Value snapshotEntry(rill::StorageProvider& store, const std::string& name) {
  Json::Value entry(Json::objectValue);
  entry["name"] = name;
  auto manifest = readSnapshotManifest(store, name);
  entry["files"] = manifest ? Json::Value(Json::UInt64(manifest.value().tree.stats.files))
                            : Json::Value(Json::nullValue);
  entry["bytes"] = manifest ? Json::Value(Json::UInt64(manifest.value().tree.stats.total_bytes))
                            : Json::Value(Json::nullValue);
  return entry;
}

// Members present with the right type: daily_at a string, keep a 32-bit integer written as one.
std::optional<Response> scheduleBodyProblem(const Json::Value& body) {
  if (body.isMember("daily_at") && !body["daily_at"].isString()) {
    return http::errorResponse(400, text::kDailyAtNotString);
  }
  if (body.isMember("keep")) {
    const Json::Value& keep = body["keep"];
    const bool integer = keep.type() == Json::intValue || keep.type() == Json::uintValue;
    if (!integer || !keep.isInt()) return http::errorResponse(400, text::kKeepNotInteger);
    if (keep.asInt() < 0) return http::errorResponse(400, text::kNegativeKeep);
  }
  if (body.isMember("daily_at") && !isValidDailyAt(body["daily_at"].asString())) {
    return http::errorResponse(400, text::kBadDailyAt);
  }
  return std::nullopt;
}

}  // namespace

Response initBackups(const Request& req, Context& ctx) {
  const auto body = base::parseJsonObject(req.body);
  if (!body) return http::errorResponse(400, text::kJsonBodyRequired);
  const fs::path root = ctx.data.root();
  if (fileExists(backupConfigPath(root))) return http::errorResponse(409, text::kAlreadyConfigured);
  const Json::Value& modeValue = (*body)["mode"];
  if (body->isMember("mode") && !modeValue.isString()) {
    return http::errorResponse(400, text::kModeNotString);
  }
  const std::string mode = modeValue.isString() ? modeValue.asString() : "";
  auto destination = destinationOf(*body, mode, ctx);
  if (auto* refusal = std::get_if<Response>(&destination)) return std::move(*refusal);
  const rill::S3Settings& where = std::get<rill::S3Settings>(destination);

  auto probed = rill::probeBucket(where);
  if (!probed) return http::errorResponse(400, probed.error());
  // A new key reads nothing already stored there: another server's snapshots must not be
  // counted (and pruned) as ours.
  std::string key = generateBackupKey();
  if (auto foreign = foreignSnapshots(where, key); !foreign.empty()) {
    return http::errorResponse(409, foreign);
  }
  const fs::path keyPath = backupKeyPath(root);
  if (fileExists(keyPath)) return http::errorResponse(409, text::kKeyExists);
  if (!writeKeyFile(keyPath, key)) return http::errorResponse(500, text::kCannotWriteKey);
  if (!writeBackupConfig(backupConfigPath(root), {where, keyPath.string(), {}})) {
    return http::errorResponse(500, text::kCannotWriteConfig);
  }
  Json::Value answer(Json::objectValue);
  answer["bucket"] = where.bucket;
  answer["key"] = key;
  answer["mode"] = mode;
  answer["prefix"] = where.prefix;
  answer["schema_version"] = 1;
  return http::jsonResponse(answer);
}

Response startBackup(const Request&, Context& ctx) {
  auto config = loadBackupConfig(backupConfigPath(ctx.data.root()));
  if (!config) return http::errorResponse(503, config.error());
  if (!claimRunningFlag(ctx.backups)) return http::errorResponse(409, text::kAlreadyRunning);
  const std::string name = snapshotNameAt(std::chrono::system_clock::now());
  startBackgroundRun(ctx.backups, ctx.data.root(), std::move(config).value(), name,
                     printRunOutcome("backup"));
  Json::Value answer(Json::objectValue);
  answer["schema_version"] = 1;
  answer["snapshot"] = name;
  answer["started"] = true;
  return http::jsonResponse(answer, 202);
}

Response backupStatus(const Request&, Context& ctx) {
  const fs::path root = ctx.data.root();
  Json::Value answer(Json::objectValue);
  answer["schema_version"] = 1;
  answer["running"] = ctx.backups.running.load();
  const auto last = readBackupState(root);
  answer["last"] = last ? *last : Json::Value(Json::nullValue);
  auto config = loadBackupConfig(backupConfigPath(root));
  answer["configured"] = config.ok();
  if (!config) return http::jsonResponse(answer);

  answer["bucket"] = config.value().s3.bucket;
  answer["endpoint"] = config.value().s3.endpoint;
  answer["prefix"] = config.value().s3.prefix;
  answer["shared"] = !config.value().s3.prefix.empty();
  const Schedule& schedule = config.value().schedule;
  answer["schedule"]["daily_at"] = schedule.dailyAt;
  answer["schedule"]["keep"] = schedule.keep;
  answer["snapshots"] = Json::Value(Json::arrayValue);
  auto store = openBackupStore(config.value().s3, config.value().keyFile);
  if (!store) {
    answer["snapshots_error"] = store.error();
    return http::jsonResponse(answer);
  }
  auto names = listSnapshots(*store.value());
  if (!names) {
    answer["snapshots_error"] = names.error();
    return http::jsonResponse(answer);
  }
  for (const std::string& name : names.value()) {
    answer["snapshots"].append(snapshotEntry(*store.value(), name));
  }
  return http::jsonResponse(answer);
}

Response setBackupSchedule(const Request& req, Context& ctx) {
  const fs::path configFile = backupConfigPath(ctx.data.root());
  auto schedule = readSchedule(configFile);
  if (!schedule) return http::errorResponse(503, text::kNotConfiguredHere);
  const auto body = base::parseJsonObject(req.body);
  if (!body) return http::errorResponse(400, text::kJsonObjectRequired);
  if (auto problem = scheduleBodyProblem(*body)) return *problem;
  if (body->isMember("daily_at")) schedule->dailyAt = (*body)["daily_at"].asString();
  if (body->isMember("keep")) schedule->keep = (*body)["keep"].asInt();
  if (!writeSchedule(configFile, *schedule)) return http::errorResponse(500, kCannotWriteSchedule);
  Json::Value answer(Json::objectValue);
  answer["daily_at"] = schedule->dailyAt;
  answer["keep"] = schedule->keep;
  answer["schema_version"] = 1;
  return http::jsonResponse(answer);
}

Response forgetBackupConfig(const Request&, Context& ctx) {
  store::removeFile(backupConfigPath(ctx.data.root()));
  Json::Value answer(Json::objectValue);
  answer["configured"] = false;
  answer["schema_version"] = 1;
  return http::jsonResponse(answer);
}

}  // namespace quill::backup
