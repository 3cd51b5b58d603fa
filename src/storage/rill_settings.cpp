#include "storage/rill_settings.h"

#include <json/value.h>

#include "store/documents.h"

namespace quill::storage {

std::filesystem::path rillSettingsPath(const store::DataDir& data) {
  return data.root() / "rill.json";
}

rill::Result<rill::S3Settings> readRillSettings(const store::DataDir& data) {
  Json::Value doc;
  if (!store::readJsonFile(rillSettingsPath(data), doc)) return rill::Failure{kNotConfigured};
  const auto text = [&doc](const char* name) {
    return doc[name].isString() ? doc[name].asString() : std::string();
  };
  rill::S3Settings settings{text("endpoint"), text("region"), text("bucket"), text("access_key"),
                            text("secret_key")};
  for (const char* name : {"endpoint", "bucket", "access_key", "secret_key"}) {
    if (!doc.isMember(name)) return rill::Failure{kIncomplete};
  }
  if (!doc.isMember("region")) settings.region = "auto";
  return settings;
}

bool writeRillSettings(const store::DataDir& data, const rill::S3Settings& settings) {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["endpoint"] = settings.endpoint;
  doc["region"] = settings.region;
  doc["bucket"] = settings.bucket;
  doc["access_key"] = settings.accessKey;
  doc["secret_key"] = settings.secretKey;
  return store::writeJsonFile(rillSettingsPath(data), doc);
}

}  // namespace quill::storage
