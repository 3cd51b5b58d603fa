#include "storage/rill_settings.h"

#include <json/value.h>

#include "store/documents.h"

namespace quill::storage {

std::filesystem::path rillSettingsPath(const store::DataDir& data) {
  return data.root() / "rill.json";
}

base::Result<rill::S3Settings> readRillSettings(const store::DataDir& data) {
  Json::Value doc;
  if (!store::readJsonFile(rillSettingsPath(data), doc)) return base::Failure{kNotConfigured};
  for (const char* name : {"endpoint", "bucket", "access_key", "secret_key"}) {
    if (!doc.isMember(name)) return base::Failure{kIncomplete};
  }
  const Json::Value& read = doc;  // the const operator[] adds no members
  const auto text = [&read](const char* name) {
    return read[name].isString() ? read[name].asString() : std::string();
  };
  return rill::S3Settings{text("endpoint"), read.isMember("region") ? text("region") : "auto",
                          text("bucket"), text("access_key"), text("secret_key")};
}

bool writeRillSettings(const store::DataDir& data, const rill::S3Settings& settings) {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["endpoint"] = settings.endpoint;
  doc["region"] = settings.region;
  doc["bucket"] = settings.bucket;
  doc["access_key"] = settings.accessKey;
  doc["secret_key"] = settings.secretKey;
  return store::writeJsonFile(rillSettingsPath(data), doc, store::FileAccess::kOwnerOnly).ok();
}

}  // namespace quill::storage
