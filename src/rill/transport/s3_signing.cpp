#include "rill/transport/s3_signing.h"

#include <openssl/sha.h>
#include <sodium.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <span>

#include "base/hex.h"
#include "base/percent_encoding.h"

namespace quill::rill {

namespace {

constexpr std::string_view kAlgorithm = "AWS4-HMAC-SHA256";
constexpr std::string_view kSignedHeaders = "host;x-amz-content-sha256;x-amz-date";

using Digest = std::array<std::uint8_t, crypto_auth_hmacsha256_BYTES>;

Digest hmac(std::span<const std::uint8_t> key, std::string_view message) {
  crypto_auth_hmacsha256_state state;
  crypto_auth_hmacsha256_init(&state, key.data(), key.size());
  crypto_auth_hmacsha256_update(&state, reinterpret_cast<const unsigned char*>(message.data()),
                                message.size());
  Digest out{};
  crypto_auth_hmacsha256_final(&state, out.data());
  sodium_memzero(&state, sizeof state);
  return out;
}

// k4 of the chain HMAC("AWS4" + secret, date) -> region -> "s3" -> "aws4_request".
Digest signingKey(const SigningKeys& keys, const SigningTime& time) {
  std::string first = "AWS4" + keys.secretKey;
  Digest k = hmac(std::span(reinterpret_cast<const std::uint8_t*>(first.data()), first.size()),
                  time.dateStamp);
  sodium_memzero(first.data(), first.size());
  k = hmac(k, signingRegion(keys.region));
  k = hmac(k, "s3");
  return hmac(k, "aws4_request");
}

std::tm utcTime(std::chrono::system_clock::time_point when) {
  const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
  std::tm utc{};
  gmtime_r(&seconds, &utc);
  return utc;
}

}  // namespace

SigningTime signingTime(std::chrono::system_clock::time_point when) {
  const std::tm utc = utcTime(when);
  char amzDate[32];
  char dateStamp[16];
  const std::size_t dateLength = std::strftime(amzDate, sizeof amzDate, "%Y%m%dT%H%M%SZ", &utc);
  const std::size_t stampLength = std::strftime(dateStamp, sizeof dateStamp, "%Y%m%d", &utc);
  return {std::string(amzDate, dateLength), std::string(dateStamp, stampLength)};
}

std::string sha256Hex(std::string_view bytes) {
  // OpenSSL's SHA-256 uses the processor's SHA instructions where there are any: payload hashes
  // cover every uploaded byte, and this is several times faster than a portable implementation.
  std::array<std::uint8_t, SHA256_DIGEST_LENGTH> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest.data());
  return base::toHex(std::span<const std::uint8_t>(digest));
}

std::string signingRegion(std::string_view region) {
  return region.empty() ? std::string("auto") : std::string(region);
}

std::string credentialScope(const SigningTime& time, std::string_view region) {
  return time.dateStamp + "/" + signingRegion(region) + "/s3/aws4_request";
}

std::string signCanonicalRequest(std::string_view canonicalRequest, const SigningKeys& keys,
                                 const SigningTime& time) {
  const std::string stringToSign = std::string(kAlgorithm) + "\n" + time.amzDate + "\n" +
                                   credentialScope(time, keys.region) + "\n" +
                                   sha256Hex(canonicalRequest);
  Digest key = signingKey(keys, time);
  const std::string signature = base::toHex(std::span<const std::uint8_t>(hmac(key, stringToSign)));
  sodium_memzero(key.data(), key.size());
  return signature;
}

std::string canonicalHeaderRequest(const CanonicalInput& input, const SigningTime& time) {
  return input.method + "\n" + input.canonicalUri + "\n" + input.canonicalQuery + "\n" +
         "host:" + input.host + "\n" + "x-amz-content-sha256:" + input.payloadHash + "\n" +
         "x-amz-date:" + time.amzDate + "\n" + "\n" + std::string(kSignedHeaders) + "\n" +
         input.payloadHash;
}

std::string authorizationHeader(const CanonicalInput& input, const SigningKeys& keys,
                                const SigningTime& time) {
  const std::string signature =
      signCanonicalRequest(canonicalHeaderRequest(input, time), keys, time);
  return std::string(kAlgorithm) + " Credential=" + keys.accessKey + "/" +
         credentialScope(time, keys.region) + ", SignedHeaders=" + std::string(kSignedHeaders) +
         ", Signature=" + signature;
}

std::string presignedGetQuery(std::string_view canonicalUri, std::string_view host,
                              std::int64_t lifetimeSeconds, const SigningKeys& keys,
                              const SigningTime& time) {
  // Already in the sorted order that the canonical query needs.
  const std::string query =
      "X-Amz-Algorithm=" + std::string(kAlgorithm) + "&X-Amz-Credential=" +
      base::percentEncode(keys.accessKey + "/" + credentialScope(time, keys.region), false) +
      "&X-Amz-Date=" + time.amzDate + "&X-Amz-Expires=" + std::to_string(lifetimeSeconds) +
      "&X-Amz-SignedHeaders=host";
  const std::string canonical = "GET\n" + std::string(canonicalUri) + "\n" + query + "\n" +
                                "host:" + std::string(host) + "\n" + "\n" + "host" + "\n" +
                                "UNSIGNED-PAYLOAD";
  return query + "&X-Amz-Signature=" + signCanonicalRequest(canonical, keys, time);
}

}  // namespace quill::rill
