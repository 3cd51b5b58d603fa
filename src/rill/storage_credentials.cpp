#include "rill/storage_credentials.h"

namespace quill::rill {

Result<S3Settings> parseStorageCredentials(const Json::Value& body) {
  if (!body.isObject()) return Failure{"JSON object required"};
  S3Settings settings;
  const std::pair<const char*, std::string*> members[] = {{"endpoint", &settings.endpoint},
                                                          {"region", &settings.region},
                                                          {"bucket", &settings.bucket},
                                                          {"access_key", &settings.accessKey},
                                                          {"secret_key", &settings.secretKey}};
  for (const auto& [name, into] : members) {
    if (!body.isMember(name)) continue;
    if (!body[name].isString()) return Failure{std::string(name) + " must be a string"};
    *into = body[name].asString();
  }
  if (!body.isMember("region")) settings.region = "auto";
  if (settings.endpoint.empty() || settings.bucket.empty() || settings.accessKey.empty() ||
      settings.secretKey.empty()) {
    return Failure{"endpoint, bucket, access_key and secret_key are required"};
  }
  return settings;
}

std::string accessKeyHint(std::string_view accessKey) {
  if (accessKey.size() < 5) return "";
  return "..." + std::string(accessKey.substr(accessKey.size() - 4));
}

}  // namespace quill::rill
