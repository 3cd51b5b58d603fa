#pragma once
// Bucket settings as a JSON object names them (`endpoint`, `region`, `bucket`, `access_key`,
// `secret_key`): the body of the storage and backup settings requests, and what is stored.

#include <json/value.h>

#include <string>
#include <string_view>

#include "rill/result.h"
#include "rill/s3_client.h"

namespace quill::rill {

// Checks in this order: "JSON object required" for anything but an object; "<member> must be a
// string" for a member present with another type; `region` absent becomes "auto";
// "endpoint, bucket, access_key and secret_key are required" when one of those is absent or empty.
Result<S3Settings> parseStorageCredentials(const Json::Value& body);

// "..." and the last four characters of `accessKey`, or "" when it is shorter than five.
std::string accessKeyHint(std::string_view accessKey);

}  // namespace quill::rill
