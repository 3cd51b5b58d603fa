#include "sso/provider_http.h"

#include <curl/curl.h>

#include <memory>

namespace quill::sso {

namespace {

std::size_t collect(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

// A provider's documents are small; anything beyond this is not an answer worth reading.
constexpr std::size_t kMaxAnswerBytes = 4 * 1024 * 1024;

std::size_t collectBounded(char* data, std::size_t size, std::size_t count, void* out) {
  auto* body = static_cast<std::string*>(out);
  if (body->size() + size * count > kMaxAnswerBytes) return 0;  // aborts the transfer
  return collect(data, size, count, out);
}

ProviderAnswer perform(const std::string& url, const std::string* form) {
  ProviderAnswer answer;
  std::unique_ptr<CURL, void (*)(CURL*)> curl(curl_easy_init(), curl_easy_cleanup);
  if (!curl) return answer;
  CURL* h = curl.get();
  curl_easy_setopt(h, CURLOPT_URL, url.c_str());
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_FOLLOWLOCATION, 0L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_TIMEOUT, kProviderTimeoutSeconds);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collectBounded);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &answer.body);
  std::unique_ptr<curl_slist, void (*)(curl_slist*)> headers(nullptr, curl_slist_free_all);
  headers.reset(curl_slist_append(headers.release(), "Accept: application/json"));
  if (form) {
    headers.reset(
        curl_slist_append(headers.release(), "Content-Type: application/x-www-form-urlencoded"));
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, form->c_str());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(form->size()));
  }
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  if (curl_easy_perform(h) != CURLE_OK) return ProviderAnswer{};
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &answer.status);
  return answer;
}

}  // namespace

ProviderAnswer providerGet(const std::string& url) { return perform(url, nullptr); }

ProviderAnswer providerPostForm(const std::string& url, const std::string& form) {
  return perform(url, &form);
}

}  // namespace quill::sso
