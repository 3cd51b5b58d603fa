#include "rill/transport/s3_settings.h"

#include "base/file_io.h"
#include "base/json_reader.h"

namespace quill::rill {

namespace {

constexpr std::uint64_t kMaxSettingsFileBytes = 1024 * 1024;

struct Member {
  const char* name;
  std::string S3Settings::*field;
};

// What a request may set; `prefix` comes only from stored documents and options.
constexpr Member kCredentialMembers[] = {{"endpoint", &S3Settings::endpoint},
                                         {"region", &S3Settings::region},
                                         {"bucket", &S3Settings::bucket},
                                         {"access_key", &S3Settings::accessKey},
                                         {"secret_key", &S3Settings::secretKey}};
constexpr Member kPrefixMember = {"prefix", &S3Settings::prefix};

void defaultRegion(S3Settings& settings) {
  if (settings.region.empty()) settings.region = "auto";
}

}  // namespace

bool isComplete(const S3Settings& s) {
  return !s.endpoint.empty() && !s.bucket.empty() && !s.accessKey.empty() && !s.secretKey.empty();
}

bool hasHttpEndpoint(const S3Settings& settings) {
  return settings.endpoint.starts_with("https://") || settings.endpoint.starts_with("http://");
}

Result<S3Settings> parseS3Credentials(const Json::Value& body) {
  if (!body.isObject()) return Failure{"JSON object required"};
  S3Settings settings;
  for (const auto& [name, field] : kCredentialMembers) {
    if (!body.isMember(name)) continue;
    if (!body[name].isString()) return Failure{std::string(name) + " must be a string"};
    settings.*field = body[name].asString();
  }
  defaultRegion(settings);
  if (!isComplete(settings)) return Failure{kCredentialsRequired};
  return settings;
}

S3Settings s3SettingsFromJson(const Json::Value& doc) {
  S3Settings settings;
  const auto read = [&doc, &settings](const Member& member) {
    const Json::Value& value = doc[member.name];
    if (value.isString()) settings.*member.field = value.asString();
  };
  if (doc.isObject()) {
    for (const Member& member : kCredentialMembers) read(member);
    read(kPrefixMember);
  }
  defaultRegion(settings);
  return settings;
}

void writeS3Settings(const S3Settings& settings, Json::Value& doc) {
  for (const auto& [name, field] : kCredentialMembers) doc[name] = settings.*field;
  if (settings.region.empty()) doc["region"] = "auto";
  if (!settings.prefix.empty()) doc[kPrefixMember.name] = settings.prefix;
}

std::string accessKeyHint(std::string_view accessKey) {
  if (accessKey.size() < 5) return "";
  return "..." + std::string(accessKey.substr(accessKey.size() - 4));
}

std::filesystem::path rillJsonPath(const std::filesystem::path& dataRoot) {
  return dataRoot / "rill.json";
}

Result<S3Settings> readS3SettingsFile(const std::filesystem::path& file) {
  std::string text;
  if (!base::readFileLimited(file, kMaxSettingsFileBytes, text)) {
    return Failure{"cannot read " + file.string()};
  }
  const auto doc = base::parseJsonObject(text);
  if (!doc) return Failure{file.string() + " is not a JSON object"};
  return s3SettingsFromJson(*doc);
}

Result<S3Settings> readRillJson(const std::filesystem::path& dataRoot) {
  auto settings = readS3SettingsFile(rillJsonPath(dataRoot));
  if (!settings) return Failure{kRillNotConfigured};
  if (!isComplete(settings.value())) return Failure{kRillIncomplete};
  return settings;
}

Json::Value rillJsonDocument(const S3Settings& settings) {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  writeS3Settings(settings, doc);
  return doc;
}

}  // namespace quill::rill
