#include "storage/sync_api.h"

#include <json/writer.h>

#include <cstdlib>

#include "rill/manifest.h"
#include "rill/s3_provider.h"
#include "rill/sync_descriptor.h"
#include "storage/rill_settings.h"
#include "store/documents.h"

namespace quill::storage {

namespace {

namespace text {
constexpr const char* kBadName = "invalid channel name";
constexpr const char* kNoRillChannel = "no such Rill channel";
}  // namespace text

constexpr std::int64_t kDefaultLifetime = 300;

bool isRillChannel(const Context& ctx, const std::string& name) {
  Json::Value doc;
  if (!store::readJsonFile(store::DataDir::recordPath(ctx.data.channels(), name), doc))
    return false;
  return doc["engine"].isString() && doc["engine"].asString() == "rill";
}

Response unavailable(const std::string& reason) {
  return http::errorResponse(503, "rill: " + reason);
}

}  // namespace

std::int64_t syncLinkLifetime(const Request& req) {
  const auto ttl = req.param("ttl");
  if (!ttl) return kDefaultLifetime;
  const std::string digits(*ttl);
  const long long value = std::strtoll(digits.c_str(), nullptr, 10);
  return value < 1 ? kDefaultLifetime : value;
}

Response rillSync(const Request& req, Context& ctx) {
  const std::string& channel = req.segment();
  if (auto refused = handler::refuseInvalidName(channel, text::kBadName)) return *refused;
  if (!isRillChannel(ctx, channel)) return http::errorResponse(404, text::kNoRillChannel);

  const auto settings = readRillSettings(ctx.data);
  if (!settings) return unavailable(settings.error());
  const std::int64_t lifetime = syncLinkLifetime(req);
  rill::S3Provider bucket(settings.value());
  std::string body;
  std::string error;
  if (!bucket.get(rill::manifestKey(channel), body, &error)) return unavailable(error);
  auto manifest = rill::parseManifest(body);
  if (!manifest) return unavailable(manifest.error());

  Json::StreamWriterBuilder styled;
  styled["indentation"] = "  ";
  styled["emitUTF8"] = true;
  return Response::json(
      Json::writeString(
          styled, rill::buildSyncDescriptor(bucket.client(), channel, manifest.value(), lifetime)) +
      "\n");
}

}  // namespace quill::storage
