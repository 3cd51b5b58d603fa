#include "rill/pull_source.h"

#include "rill/http_transport.h"
#include "rill/manifest.h"

namespace quill::rill {

namespace {

HttpResponse fetch(const std::string& url) { return performHttp({"GET", url, {}, {}}); }

// The failure of a presigned GET: the transport's reason, or `what` + " -> HTTP " + status.
Failure fetchFailed(const HttpResponse& response, const std::string& what) {
  if (!response.error.empty()) return Failure{response.error};
  return Failure{what + " -> HTTP " + std::to_string(response.status)};
}

}  // namespace

StorePullSource::StorePullSource(StorageProvider& store, std::string channel)
    : store_(store), channel_(std::move(channel)) {}

Result<std::string> StorePullSource::manifest() {
  std::string body;
  std::string error;
  if (!store_.get(manifestKey(channel_), body, &error)) return Failure{error};
  return body;
}

Result<std::optional<std::string>> StorePullSource::signature() {
  std::string error;
  const auto info = store_.exists(signatureKey(channel_), &error);
  if (!info) return Failure{error};
  if (!info->present) return std::optional<std::string>();
  std::string body;
  if (!store_.get(signatureKey(channel_), body, &error)) return Failure{error};
  return std::optional<std::string>(std::move(body));
}

Result<std::string> StorePullSource::chunk(const std::string& id) {
  std::string body;
  std::string error;
  if (!store_.get(store_.chunkKey(id), body, &error)) return Failure{error};
  return body;
}

PresignedPullSource::PresignedPullSource(PresignedLinks links) : links_(std::move(links)) {}

Result<std::string> PresignedPullSource::manifest() {
  HttpResponse response = fetch(links_.manifestUrl);
  if (!response.isSuccess()) return fetchFailed(response, "manifest URL");
  return std::move(response.body);
}

Result<std::optional<std::string>> PresignedPullSource::signature() {
  if (links_.signatureUrl.empty()) return std::optional<std::string>();
  HttpResponse response = fetch(links_.signatureUrl);
  if (response.status == 404) return std::optional<std::string>();
  if (!response.isSuccess()) return fetchFailed(response, "signature URL");
  return std::optional<std::string>(std::move(response.body));
}

Result<std::string> PresignedPullSource::chunk(const std::string& id) {
  const auto link = links_.chunks.find(id);
  if (link == links_.chunks.end()) return Failure{"no presigned URL for chunk " + id};
  HttpResponse response = fetch(link->second);
  if (!response.isSuccess()) return fetchFailed(response, "chunk URL");
  return std::move(response.body);
}

}  // namespace quill::rill
