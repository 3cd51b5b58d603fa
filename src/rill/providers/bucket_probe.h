#pragma once
// The cheap check that bucket settings work, with a message that tells a person what to fix.

#include <string>
#include <string_view>

#include "rill/result.h"
#include "rill/transport/s3_client.h"

namespace quill::rill {

// The prefix the probe lists: one that should hold nothing, so the probe reads no data.
inline constexpr const char* kProbePrefix = "quillmoor-probe-does-not-exist/";

// Refuses an endpoint that is not http(s) before any traffic ("endpoint must start with https://
// (or http:// for a local test server)"), then lists kProbePrefix; a failed listing's error text
// is classified by classifyProbeFailure. Never quotes the secret key.
Result<bool> probeBucket(const S3Settings& settings);

// The message for the listing error `e`, first match wins: "403", "InvalidAccessKeyId",
// "SignatureDoesNotMatch", "Credential" or "AccessDenied" give
// "access denied - check the access key and secret (<e>)"; "404" or "NoSuchBucket" give
// "bucket not found - check the bucket name and endpoint (<e>)"; anything else
// "could not reach the bucket - check the endpoint: <e>".
std::string classifyProbeFailure(std::string_view e);

}  // namespace quill::rill
