#include "sso/provider_http.h"

#include "base/http_client.h"

namespace quill::sso {

namespace {

// A provider's documents are small; anything beyond this is not an answer worth reading.
constexpr std::uint64_t kMaxAnswerBytes = 4 * 1024 * 1024;

ProviderAnswer perform(std::string method, const std::string& url, const std::string* form) {
  base::HttpRequest request;
  request.method = std::move(method);
  request.url = url;
  request.headers.emplace_back("Accept: application/json");
  if (form) {
    request.headers.emplace_back("Content-Type: application/x-www-form-urlencoded");
    request.body = *form;
  }
  request.maxBody = kMaxAnswerBytes;
  request.connectSeconds = kProviderTimeoutSeconds;
  request.totalSeconds = kProviderTimeoutSeconds;
  base::HttpResponse response = base::performHttp(request);
  if (!response.error.empty()) return ProviderAnswer{};
  return ProviderAnswer{response.status, std::move(response.body)};
}

}  // namespace

ProviderAnswer providerGet(const std::string& url) { return perform("GET", url, nullptr); }

ProviderAnswer providerPostForm(const std::string& url, const std::string& form) {
  return perform("POST", url, &form);
}

}  // namespace quill::sso
