#include "rill/ops/pull_source.h"

#include "base/http_client.h"
#include "rill/chunks/chunk_codec.h"
#include "rill/chunks/manifest.h"

namespace quill::rill {

namespace {

base::HttpResponse fetch(const std::string& url, std::uint64_t maxBytes) {
  return base::performHttp({"GET", url, {}, {}, maxBytes});
}

// The failure of a presigned GET: the transport's reason, or `what` + " -> HTTP " + status.
Failure fetchFailed(const base::HttpResponse& response, const std::string& what) {
  if (!response.error.empty()) return Failure{response.error};
  return Failure{what + " -> HTTP " + std::to_string(response.status)};
}

}  // namespace

StorePullSource::StorePullSource(StorageProvider& store, std::string channel)
    : store_(store), channel_(std::move(channel)) {}

Result<std::string> StorePullSource::manifest() {
  return store_.get(manifestKey(channel_), kMaxManifestBytes);
}

Result<std::optional<std::string>> StorePullSource::signature() {
  const auto info = store_.exists(signatureKey(channel_));
  if (!info) return info.failure();
  if (!info.value().present) return std::optional<std::string>();
  auto body = store_.get(signatureKey(channel_), kMaxSignatureBytes);
  if (!body) return body.failure();
  return std::optional<std::string>(std::move(body).value());
}

Result<std::string> StorePullSource::chunk(const ChunkRef& ref) {
  return store_.get(store_.chunkKey(ref.h), maxChunkObjectSize(ref.n));
}

PresignedPullSource::PresignedPullSource(PresignedLinks links) : links_(std::move(links)) {}

Result<std::string> PresignedPullSource::manifest() {
  base::HttpResponse response = fetch(links_.manifestUrl, kMaxManifestBytes);
  if (!response.isSuccess()) return fetchFailed(response, "manifest URL");
  return std::move(response.body);
}

Result<std::optional<std::string>> PresignedPullSource::signature() {
  if (links_.signatureUrl.empty()) return std::optional<std::string>();
  base::HttpResponse response = fetch(links_.signatureUrl, kMaxSignatureBytes);
  if (response.status == 404) return std::optional<std::string>();
  if (!response.isSuccess()) return fetchFailed(response, "signature URL");
  return std::optional<std::string>(std::move(response.body));
}

Result<std::string> PresignedPullSource::chunk(const ChunkRef& ref) {
  const auto link = links_.chunks.find(ref.h);
  if (link == links_.chunks.end()) return Failure{"no presigned URL for chunk " + ref.h};
  base::HttpResponse response = fetch(link->second, maxChunkObjectSize(ref.n));
  if (!response.isSuccess()) return fetchFailed(response, "chunk URL");
  return std::move(response.body);
}

}  // namespace quill::rill
