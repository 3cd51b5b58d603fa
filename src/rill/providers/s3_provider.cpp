#include "rill/providers/s3_provider.h"

#include <utility>

namespace quill::rill {

namespace {

// The reason of a failed request, with the status the store answered.
Failure requestFailed(const base::HttpResponse& response, std::string_view method,
                      std::string_view key) {
  return Failure::fromStatus(describeFailure(std::string(method) + " " + std::string(key), response),
                             response.status);
}

}  // namespace

S3Provider::S3Provider(S3Settings settings) : client_(std::move(settings)) {}

Result<bool> S3Provider::put(const std::string& key, std::string_view body) {
  const base::HttpResponse response = client_.put(key, body);
  if (!response.isSuccess()) return requestFailed(response, "PUT", key);
  return true;
}

Result<std::string> S3Provider::get(const std::string& key, std::uint64_t maxBytes) {
  base::HttpResponse response = client_.get(key, maxBytes);
  if (!response.isSuccess()) return requestFailed(response, "GET", key);
  return std::move(response.body);
}

Result<ObjectInfo> S3Provider::exists(const std::string& key) {
  const base::HttpResponse response = client_.head(key);
  if (response.isSuccess()) return ObjectInfo{true, response.contentLength};
  if (response.status == 404) return ObjectInfo{};
  return requestFailed(response, "HEAD", key);
}

Result<std::vector<ObjectEntry>> S3Provider::list(const std::string& prefix) {
  return client_.list(prefix);
}

Result<bool> S3Provider::remove(const std::string& key) {
  const base::HttpResponse response = client_.remove(key);
  if (!response.isSuccess()) return requestFailed(response, "DELETE", key);
  return true;
}

}  // namespace quill::rill
