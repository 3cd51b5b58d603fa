#pragma once
// Where a bucket is, as whom to use it and which part of it: one type for the server's rill.json,
// backup.json, the settings bodies of the storage and backup requests, and the publisher tool's
// options, with one JSON form and one completeness rule for all of them.

#include <json/value.h>

#include <filesystem>
#include <string>
#include <string_view>

#include "rill/result.h"

namespace quill::rill {

// `endpoint` is a URL of a scheme and host with an optional port ("https://s3.example.com",
// "http://127.0.0.1:9000"); an empty region signs as "auto". `prefix` is where in the bucket the
// objects go ("" for the bucket's root): the S3 client ignores it, a PrefixedProvider applies it.
// JSON members: `endpoint`, `region`, `bucket`, `access_key`, `secret_key`, `prefix`.
struct S3Settings {
  std::string endpoint;
  std::string region;
  std::string bucket;
  std::string accessKey;
  std::string secretKey;
  std::string prefix = {};
};

inline constexpr const char* kCredentialsRequired =
    "endpoint, bucket, access_key and secret_key are required";
inline constexpr const char* kEndpointScheme =
    "endpoint must start with https:// (or http:// for a local test server)";

// Endpoint, bucket, access key and secret key are all non-empty.
bool isComplete(const S3Settings& settings);

// The endpoint starts with "https://" or "http://".
bool hasHttpEndpoint(const S3Settings& settings);

// A settings body of a request, checked in this order: "JSON object required" for anything but an
// object; "<member> must be a string" for one of the five credential members present with another
// type; a region absent or empty becomes "auto"; kCredentialsRequired when not isComplete. A
// request never chooses a prefix: `prefix` is not read.
Result<S3Settings> parseS3Credentials(const Json::Value& body);

// The six members of a stored document; members absent or of another type read as "", a region
// "" as "auto". Completeness is the caller's to check, with its document's own message.
S3Settings s3SettingsFromJson(const Json::Value& doc);

// Sets the five credential members of `doc` (an empty region as "auto") and `prefix` when it is
// not empty; other members of `doc` stay.
void writeS3Settings(const S3Settings& settings, Json::Value& doc);

// "..." and the last four characters of `accessKey`, or "" when it is shorter than five.
std::string accessKeyHint(std::string_view accessKey);

// The settings file of a server's Rill channels, "<data dir>/rill.json".
inline constexpr const char* kRillNotConfigured =
    "rill storage not configured (missing data-dir rill.json)";
inline constexpr const char* kRillIncomplete =
    "rill.json missing endpoint/bucket/access_key/secret_key";

std::filesystem::path rillJsonPath(const std::filesystem::path& dataRoot);

// The settings of a JSON object file, read afresh: "cannot read <path>" when it cannot be read
// (or is over 1 MiB), "<path> is not a JSON object" when it does not parse as one.
Result<S3Settings> readS3SettingsFile(const std::filesystem::path& file);

// The settings of rill.json in `dataRoot`: kRillNotConfigured when the file cannot be read or is
// not a JSON object, kRillIncomplete when not isComplete.
Result<S3Settings> readRillJson(const std::filesystem::path& dataRoot);

// The rill.json document of `settings`: `schema_version` 1 and the members of writeS3Settings.
Json::Value rillJsonDocument(const S3Settings& settings);

}  // namespace quill::rill
