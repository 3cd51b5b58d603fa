#include "base/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "base/process_init.h"

namespace quill::base {

namespace {

constexpr const char* kUserAgent = "quillmoor-rill/0.1";

struct Upload {
  std::string_view body;
  std::size_t sent = 0;
};

// The body of an error answer is kept only for the message it makes.
constexpr std::uint64_t kErrorBodyMax = 64 * 1024;

struct Download {
  CURL* handle;
  std::string& body;
  std::uint64_t maxBody;
  bool tooLarge = false;      // a success answer ran past maxBody
  bool errorTrimmed = false;  // an error answer was cut at kErrorBodyMax
};

// Called by libcurl, through C: it must never throw. Returning less than it was given stops the
// transfer with a write error.
std::size_t collect(char* data, std::size_t size, std::size_t count, void* target) noexcept {
  auto* download = static_cast<Download*>(target);
  const std::size_t n = size * count;
  long status = 0;
  curl_easy_getinfo(download->handle, CURLINFO_RESPONSE_CODE, &status);
  const bool success = status >= 200 && status < 300;
  const std::uint64_t limit = success ? download->maxBody : kErrorBodyMax;
  if (n > limit - std::min<std::uint64_t>(limit, download->body.size())) {
    (success ? download->tooLarge : download->errorTrimmed) = true;
    return 0;
  }
  try {
    download->body.append(data, n);
  } catch (...) {
    return 0;
  }
  return n;
}

std::size_t supply(char* buffer, std::size_t size, std::size_t count, void* source) noexcept {
  auto* upload = static_cast<Upload*>(source);
  const std::size_t n = std::min(size * count, upload->body.size() - upload->sent);
  std::memcpy(buffer, upload->body.data() + upload->sent, n);
  upload->sent += n;
  return n;
}

// Lets libcurl start an upload over: it does so when a reused connection turns out to have been
// closed by the server in the meantime.
int rewind(void* source, curl_off_t offset, int origin) noexcept {
  auto* upload = static_cast<Upload*>(source);
  if (origin != SEEK_SET || offset < 0 || static_cast<std::size_t>(offset) > upload->body.size()) {
    return CURL_SEEKFUNC_CANTSEEK;
  }
  upload->sent = static_cast<std::size_t>(offset);
  return CURL_SEEKFUNC_OK;
}

// Connections idle longer than this are not reused: servers close idle connections after a few
// seconds (5 s is common), and a request sent as the server closes is lost.
constexpr long kMaxIdleSeconds = 4;

struct EasyDeleter {
  void operator()(CURL* curl) const { curl_easy_cleanup(curl); }
};
struct ListDeleter {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};

// One handle per thread: it keeps its connection cache, so a thread that talks to one store again
// reuses the open connection instead of connecting anew.
CURL* threadHandle() {
  thread_local std::unique_ptr<CURL, EasyDeleter> handle(curl_easy_init());
  return handle.get();
}

// Resets the thread's handle when a request ends, however it ends: the handle then holds no
// pointers into the finished request (its header list, error text and body), and the next request
// starts from the defaults.
struct ResetWhenDone {
  CURL* handle;
  ~ResetWhenDone() { curl_easy_reset(handle); }
};

// The failure of a transfer that timed out: a connection never made (so no request was sent on
// it), or a transfer that stalled.
std::string timedOut(CURL* h, const HttpRequest& request) {
  long sent = 0;
  curl_easy_getinfo(h, CURLINFO_REQUEST_SIZE, &sent);
  if (sent == 0) {
    return "curl: could not connect within " + std::to_string(request.connectSeconds) + " s";
  }
  if (request.totalSeconds > 0) {
    double seconds = 0;
    curl_easy_getinfo(h, CURLINFO_TOTAL_TIME, &seconds);
    if (seconds >= static_cast<double>(request.totalSeconds)) {
      return "curl: no complete answer within " + std::to_string(request.totalSeconds) + " s";
    }
  }
  return "curl: transfer stalled (less than " + std::to_string(request.stallBytesPerSecond) +
         " bytes/s for " + std::to_string(request.stallSeconds) + " s)";
}

}  // namespace

std::string tooLarge(std::uint64_t maxBytes) {
  return "answer larger than " + std::to_string(maxBytes) + " bytes";
}

HttpResponse performHttp(const HttpRequest& request) {
  HttpResponse response;
  initializeLibraries();
  CURL* h = threadHandle();
  if (!h) {
    response.error = "curl init failed";
    return response;
  }
  const ResetWhenDone resetWhenDone{h};
  std::unique_ptr<curl_slist, ListDeleter> headers;
  for (const std::string& header : request.headers) {
    curl_slist* grown = curl_slist_append(headers.get(), header.c_str());
    if (!grown) {
      response.error = "curl: out of memory";
      return response;
    }
    headers.release();
    headers.reset(grown);
  }

  char errorText[CURL_ERROR_SIZE] = {};
  Upload upload{request.body};
  Download download{h, response.body, request.maxBody};
  curl_easy_setopt(h, CURLOPT_URL, request.url.c_str());
  curl_easy_setopt(h, CURLOPT_HTTPHEADER, headers.get());
  curl_easy_setopt(h, CURLOPT_USERAGENT, kUserAgent);
  curl_easy_setopt(h, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(h, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(h, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(h, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(h, CURLOPT_MAXAGE_CONN, kMaxIdleSeconds);
  curl_easy_setopt(h, CURLOPT_CONNECTTIMEOUT, request.connectSeconds);
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_TIME, request.stallSeconds);
  curl_easy_setopt(h, CURLOPT_LOW_SPEED_LIMIT, request.stallBytesPerSecond);
  if (request.totalSeconds > 0) curl_easy_setopt(h, CURLOPT_TIMEOUT, request.totalSeconds);
  curl_easy_setopt(h, CURLOPT_WRITEFUNCTION, collect);
  curl_easy_setopt(h, CURLOPT_WRITEDATA, &download);
  if (request.method == "PUT") {
    curl_easy_setopt(h, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(h, CURLOPT_READFUNCTION, supply);
    curl_easy_setopt(h, CURLOPT_READDATA, &upload);
    curl_easy_setopt(h, CURLOPT_SEEKFUNCTION, rewind);
    curl_easy_setopt(h, CURLOPT_SEEKDATA, &upload);
    curl_easy_setopt(h, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  } else if (request.method == "POST") {
    curl_easy_setopt(h, CURLOPT_POST, 1L);
    // An empty body still needs a buffer: without one libcurl would read the body from stdin.
    curl_easy_setopt(h, CURLOPT_POSTFIELDS, request.body.empty() ? "" : request.body.data());
    curl_easy_setopt(h, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
  } else if (request.method == "HEAD") {
    curl_easy_setopt(h, CURLOPT_NOBODY, 1L);
  } else if (request.method != "GET") {
    curl_easy_setopt(h, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  const CURLcode code = curl_easy_perform(h);
  if (code != CURLE_OK && !download.errorTrimmed) {
    response.body.clear();
    if (download.tooLarge) {
      response.error = "curl: " + tooLarge(request.maxBody);
      return response;
    }
    if (code == CURLE_OPERATION_TIMEDOUT) {
      response.error = timedOut(h, request);
      return response;
    }
    response.error = std::string("curl: ") + (errorText[0] ? errorText : curl_easy_strerror(code));
    return response;
  }
  curl_easy_getinfo(h, CURLINFO_RESPONSE_CODE, &response.status);
  curl_off_t length = -1;
  if (curl_easy_getinfo(h, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length) == CURLE_OK) {
    response.contentLength = length;
  }
  return response;
}

}  // namespace quill::base
