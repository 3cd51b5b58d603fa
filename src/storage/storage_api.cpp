#include "storage/storage_api.h"

#include "base/json_reader.h"
#include "rill/providers/bucket_probe.h"
#include "rill/transport/s3_settings.h"
#include "store/documents.h"

namespace quill::storage {

namespace {

namespace text {
constexpr const char* kBodyRequired = "JSON body required";
constexpr const char* kWriteFailed = "could not write rill.json";
}  // namespace text

Json::Value storageInfo(const rill::S3Settings* settings) {
  Json::Value info(Json::objectValue);
  info["schema_version"] = 1;
  info["configured"] = settings != nullptr;
  if (!settings) return info;
  info["endpoint"] = settings->endpoint;
  info["region"] = settings->region;
  info["bucket"] = settings->bucket;
  info["access_key_hint"] = rill::accessKeyHint(settings->accessKey);
  return info;
}

}  // namespace

Response readStorage(const Request&, Context& ctx) {
  const auto settings = rill::readRillJson(ctx.data.root());
  return http::jsonResponse(storageInfo(settings ? &settings.value() : nullptr));
}

Response saveStorage(const Request& req, Context& ctx) {
  const auto body = base::parseJson(req.body);
  if (!body) return http::errorResponse(400, text::kBodyRequired);
  const auto settings = rill::parseS3Credentials(*body);
  if (!settings) return http::errorResponse(400, settings.error());
  if (auto probe = rill::probeBucket(settings.value()); !probe) {
    return http::errorResponse(400, probe.error());
  }
  if (!store::writeJsonFile(rill::rillJsonPath(ctx.data.root()),
                            rill::rillJsonDocument(settings.value()),
                            store::FileAccess::kOwnerOnly)) {
    return http::errorResponse(500, text::kWriteFailed);
  }
  return http::jsonResponse(storageInfo(&settings.value()));
}

Response forgetStorage(const Request&, Context& ctx) {
  store::removeFile(rill::rillJsonPath(ctx.data.root()));
  return http::jsonResponse(storageInfo(nullptr));
}

Response testStorage(const Request& req, Context& ctx) {
  const auto body = base::parseJson(req.body);
  const bool given = body && body->isObject() && body->isMember("endpoint");
  const auto settings = given ? rill::parseS3Credentials(*body) : rill::readRillJson(ctx.data.root());
  if (!settings) return http::errorResponse(400, settings.error());
  if (auto probe = rill::probeBucket(settings.value()); !probe) {
    return http::errorResponse(400, probe.error());
  }
  Json::Value ok(Json::objectValue);
  ok["schema_version"] = 1;
  ok["ok"] = true;
  ok["bucket"] = settings.value().bucket;
  return http::jsonResponse(ok);
}

}  // namespace quill::storage
