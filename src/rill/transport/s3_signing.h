#pragma once
// AWS Signature Version 4 for S3: URI encoding, canonical requests, the signing-key chain, header
// signatures and presigned GET queries. Pure functions of their inputs (the time is passed in), so
// they can be checked against published examples.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>

namespace quill::rill {

// What signs a request. An empty region signs as "auto".
struct SigningKeys {
  std::string accessKey;
  std::string secretKey;
  std::string region;
};

// The request time in the two forms signing uses: "%Y%m%dT%H%M%SZ" and "%Y%m%d" (UTC).
struct SigningTime {
  std::string amzDate;
  std::string dateStamp;
};
SigningTime signingTime(std::chrono::system_clock::time_point when);

// Lower-case hexadecimal SHA-256 of `bytes`: the payload hash.
std::string sha256Hex(std::string_view bytes);

// The region as signed: "auto" when empty.
std::string signingRegion(std::string_view region);

// The credential scope: date stamp + "/" + region + "/s3/aws4_request".
std::string credentialScope(const SigningTime& time, std::string_view region);

// Lower-case hexadecimal HMAC-SHA256 of the string to sign for `canonicalRequest`, with the key
// derived from the secret key, date stamp and region.
std::string signCanonicalRequest(std::string_view canonicalRequest, const SigningKeys& keys,
                                 const SigningTime& time);

// One request to be signed in the header form. `canonicalUri` and `canonicalQuery` are already
// encoded; `host` is the Host header value (with the port when the endpoint names one).
struct CanonicalInput {
  std::string method;
  std::string canonicalUri;
  std::string canonicalQuery;
  std::string host;
  std::string payloadHash;
};

// The canonical request of the header form, signing host, x-amz-content-sha256 and x-amz-date.
std::string canonicalHeaderRequest(const CanonicalInput& input, const SigningTime& time);

// The value of the Authorization header for `input`.
std::string authorizationHeader(const CanonicalInput& input, const SigningKeys& keys,
                                const SigningTime& time);

// The query of a presigned GET of `canonicalUri` on `host`, valid `lifetimeSeconds` from `time`:
// X-Amz-Algorithm, -Credential, -Date, -Expires, -SignedHeaders and -Signature, in that order.
std::string presignedGetQuery(std::string_view canonicalUri, std::string_view host,
                              std::int64_t lifetimeSeconds, const SigningKeys& keys,
                              const SigningTime& time);

}  // namespace quill::rill
