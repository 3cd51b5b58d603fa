#include "rill/providers/bucket_probe.h"

#include "rill/providers/s3_provider.h"

namespace quill::rill {

std::string classifyProbeFailure(std::string_view e) {
  const auto has = [e](std::string_view what) { return e.find(what) != std::string_view::npos; };
  const std::string text(e);
  if (has("403") || has("InvalidAccessKeyId") || has("SignatureDoesNotMatch") ||
      has("Credential") || has("AccessDenied")) {
    return "access denied - check the access key and secret (" + text + ")";
  }
  if (has("404") || has("NoSuchBucket")) {
    return "bucket not found - check the bucket name and endpoint (" + text + ")";
  }
  return "could not reach the bucket - check the endpoint: " + text;
}

Result<bool> probeBucket(const S3Settings& settings) {
  if (!hasHttpEndpoint(settings)) return Failure{kEndpointScheme};
  S3Provider bucket(settings);
  const auto listed = bucket.list(kProbePrefix);
  if (!listed) return Failure{classifyProbeFailure(listed.error())};
  return true;
}

}  // namespace quill::rill
