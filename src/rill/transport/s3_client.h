#pragma once
// Signed requests to one bucket of an S3-compatible store, path-style: endpoint + "/" + bucket +
// "/" + key. Each call is one (or, for listings, one per page) blocking transfer on the calling
// thread. Holds no mutable state, so one client may be used from several threads.

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "base/http_client.h"
#include "rill/result.h"
#include "rill/transport/s3_listing.h"
#include "rill/transport/s3_settings.h"

namespace quill::rill {

// The Host header value: the text after "://" up to the first "/" (the port included as written).
std::string endpointHost(std::string_view endpoint);

// "/" + encoded bucket, and "/" + encoded key (keeping its slashes) when the key is not empty.
std::string canonicalObjectUri(std::string_view bucket, std::string_view key);

// The sorted query of one listing page: ["continuation-token=" + token + "&"] + "list-type=2" +
// "&prefix=" + prefix, values encoded (a '/' in the prefix becomes %2F).
std::string listQuery(std::string_view prefix, std::string_view continuationToken);

// The reason a request for `what` ("GET <key>", "LIST") failed: the transport's error, or
// "<what> -> HTTP <status>" followed by a blank and the store's Code and Message (s3ErrorReason)
// when it gave them, and for a 403 by " (credentials refused)".
std::string describeFailure(std::string_view what, const base::HttpResponse& response);

class S3Client {
 public:
  explicit S3Client(S3Settings settings);

  base::HttpResponse put(std::string_view key, std::string_view body) const;
  // Fails (transport error) once the answer runs past `maxBytes`.
  base::HttpResponse get(std::string_view key, std::uint64_t maxBytes = UINT64_MAX) const;
  base::HttpResponse head(std::string_view key) const;
  base::HttpResponse remove(std::string_view key) const;

  // Every object whose key starts with `prefix`, following continuation tokens until a page is not
  // truncated. Fails with the transport's error, describeFailure("LIST", ...) for a page that
  // is not 2xx, the listing parser's messages, or "malformed listing: repeated continuation token".
  Result<std::vector<ObjectEntry>> list(std::string_view prefix) const;

  // A URL that lets anyone GET `key` for `lifetimeSeconds` from `now`, without other credentials.
  std::string presignGet(
      std::string_view key, std::int64_t lifetimeSeconds,
      std::chrono::system_clock::time_point now = std::chrono::system_clock::now()) const;

  // A header-signed request: `body` is what is sent and `payloadHash` what is signed (normally
  // sha256Hex(body)). Exposed so that the verification of stores can be exercised.
  base::HttpResponse send(std::string_view method, std::string_view key, std::string_view query,
                          std::string_view body, const std::string& payloadHash,
                          std::uint64_t maxBytes = UINT64_MAX) const;

  const S3Settings& settings() const { return settings_; }

 private:
  std::string url(std::string_view canonicalUri, std::string_view query) const;

  S3Settings settings_;
  std::string host_;
  std::string origin_;  // scheme and host
};

}  // namespace quill::rill
