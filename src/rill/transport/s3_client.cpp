#include "rill/transport/s3_client.h"

#include <algorithm>
#include <utility>

#include "base/percent_encoding.h"
#include "rill/transport/s3_error.h"
#include "rill/transport/s3_signing.h"

namespace quill::rill {

namespace {

// Where the host (with its port) starts and ends in `endpoint`: after "://", up to the first "/".
std::pair<std::size_t, std::size_t> hostSpan(std::string_view endpoint) {
  const std::size_t scheme = endpoint.find("://");
  const std::size_t start = scheme == std::string_view::npos ? 0 : scheme + 3;
  return {start, std::min(endpoint.find('/', start), endpoint.size())};
}

// The scheme and host: the part of the endpoint that request URLs start with.
std::string endpointOrigin(std::string_view endpoint) {
  return std::string(endpoint.substr(0, hostSpan(endpoint).second));
}

}  // namespace

std::string describeFailure(std::string_view what, const base::HttpResponse& response) {
  if (!response.error.empty()) return response.error;
  std::string text = std::string(what) + " -> HTTP " + std::to_string(response.status);
  if (const std::string reason = s3ErrorReason(response.body); !reason.empty()) {
    text += " " + reason;
  }
  if (response.status == 403) {
    text += " (credentials refused)";
  }
  return text;
}

std::string endpointHost(std::string_view endpoint) {
  const auto [start, end] = hostSpan(endpoint);
  return std::string(endpoint.substr(start, end - start));
}

std::string canonicalObjectUri(std::string_view bucket, std::string_view key) {
  std::string uri = "/";
  uri += base::percentEncode(bucket, false);
  if (key.empty()) return uri;
  uri += '/';
  uri += base::percentEncode(key, true);
  return uri;
}

std::string listQuery(std::string_view prefix, std::string_view continuationToken) {
  std::string query;
  if (!continuationToken.empty()) {
    query = "continuation-token=" + base::percentEncode(continuationToken, false) + "&";
  }
  return query + "list-type=2&prefix=" + base::percentEncode(prefix, false);
}

S3Client::S3Client(S3Settings settings)
    : settings_(std::move(settings)),
      host_(endpointHost(settings_.endpoint)),
      origin_(endpointOrigin(settings_.endpoint)) {}

std::string S3Client::url(std::string_view canonicalUri, std::string_view query) const {
  std::string out = origin_;
  out += canonicalUri;
  if (query.empty()) return out;
  out += '?';
  out += query;
  return out;
}

base::HttpResponse S3Client::send(std::string_view method, std::string_view key,
                                  std::string_view query, std::string_view body,
                                  const std::string& payloadHash, std::uint64_t maxBytes) const {
  const SigningTime time = signingTime(std::chrono::system_clock::now());
  const CanonicalInput input{std::string(method), canonicalObjectUri(settings_.bucket, key),
                             std::string(query), host_, payloadHash};
  const SigningKeys keys{settings_.accessKey, settings_.secretKey, settings_.region};
  base::HttpRequest request{
      input.method,
      url(input.canonicalUri, query),
      {"Host: " + host_, "x-amz-date: " + time.amzDate, "x-amz-content-sha256: " + payloadHash,
       "Authorization: " + authorizationHeader(input, keys, time),
       // Without this libcurl would wait for "100 Continue" before each upload.
       "Expect:"},
      method == "PUT" ? body : std::string_view(),
      maxBytes};
  return base::performHttp(request);
}

base::HttpResponse S3Client::put(std::string_view key, std::string_view body) const {
  return send("PUT", key, "", body, sha256Hex(body));
}

base::HttpResponse S3Client::get(std::string_view key, std::uint64_t maxBytes) const {
  return send("GET", key, "", "", sha256Hex(""), maxBytes);
}

base::HttpResponse S3Client::head(std::string_view key) const {
  return send("HEAD", key, "", "", sha256Hex(""));
}

base::HttpResponse S3Client::remove(std::string_view key) const {
  return send("DELETE", key, "", "", sha256Hex(""));
}

Result<std::vector<ObjectEntry>> S3Client::list(std::string_view prefix) const {
  std::vector<ObjectEntry> entries;
  std::string token;
  for (;;) {
    const base::HttpResponse response = send("GET", "", listQuery(prefix, token), "", sha256Hex(""));
    if (!response.error.empty() || !response.isSuccess()) {
      return Failure{describeFailure("LIST", response)};
    }
    auto page = parseListPage(response.body);
    if (!page) return Failure{page.error()};
    for (ObjectEntry& entry : page.value().entries) entries.push_back(std::move(entry));
    if (!page.value().truncated) return entries;
    // A store that hands out the same token again would keep us here forever.
    if (page.value().nextToken == token) {
      return Failure{"malformed listing: repeated continuation token"};
    }
    token = std::move(page.value().nextToken);
  }
}

std::string S3Client::presignGet(std::string_view key, std::int64_t lifetimeSeconds,
                                 std::chrono::system_clock::time_point now) const {
  const std::string uri = canonicalObjectUri(settings_.bucket, key);
  const SigningKeys keys{settings_.accessKey, settings_.secretKey, settings_.region};
  return url(uri, presignedGetQuery(uri, host_, lifetimeSeconds, keys, signingTime(now)));
}

}  // namespace quill::rill
