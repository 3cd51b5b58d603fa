#include "rill/providers/s3_provider.h"

#include <utility>

namespace quill::rill {

namespace {

// Writes the reason of a failed request; false for use in `return`.
bool requestFailed(const base::HttpResponse& response, std::string_view method, std::string_view key,
                   std::string* error) {
  return fail(error, describeFailure(std::string(method) + " " + std::string(key), response));
}

}  // namespace

S3Provider::S3Provider(S3Settings settings) : client_(std::move(settings)) {}

bool S3Provider::put(const std::string& key, std::string_view body, std::string* error) {
  const base::HttpResponse response = client_.put(key, body);
  return response.isSuccess() || requestFailed(response, "PUT", key, error);
}

bool S3Provider::get(const std::string& key, std::string& body, std::string* error,
                         std::uint64_t maxBytes) {
  base::HttpResponse response = client_.get(key, maxBytes);
  if (!response.isSuccess()) return requestFailed(response, "GET", key, error);
  body = std::move(response.body);
  return true;
}

std::optional<ObjectInfo> S3Provider::exists(const std::string& key, std::string* error) {
  const base::HttpResponse response = client_.head(key);
  if (response.isSuccess()) return ObjectInfo{true, response.contentLength};
  if (response.status == 404) return ObjectInfo{};
  requestFailed(response, "HEAD", key, error);
  return std::nullopt;
}

std::optional<std::vector<ObjectEntry>> S3Provider::list(const std::string& prefix,
                                                         std::string* error) {
  auto entries = client_.list(prefix);
  if (!entries) {
    fail(error, entries.error());
    return std::nullopt;
  }
  return std::move(entries).value();
}

bool S3Provider::remove(const std::string& key, std::string* error) {
  const base::HttpResponse response = client_.remove(key);
  return response.isSuccess() || requestFailed(response, "DELETE", key, error);
}

}  // namespace quill::rill
