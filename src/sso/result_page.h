#pragma once
// The small HTML pages the browser sees at the end of a sign-in, and the headers that keep them
// (and the sign-in redirects) out of caches and frames.

#include <string>
#include <string_view>

#include "http/response.h"

namespace quill::sso {

namespace title {
inline constexpr const char* kNotCompleted = "Sign-in was not completed";
inline constexpr const char* kExpired = "Sign-in expired";
inline constexpr const char* kUnavailable = "Sign-in unavailable";
inline constexpr const char* kUnreachable = "Identity provider unreachable";
inline constexpr const char* kFailed = "Sign-in failed";
inline constexpr const char* kRejected = "Sign-in rejected";
inline constexpr const char* kRefused = "Sign-in refused";
}  // namespace title

// "<!doctype html><meta charset=utf-8><title>" + title + "</title>", then a styled body with the
// title as heading and `detail` as paragraph; both are HTML-escaped. Not cacheable, not frameable,
// no scripts. Every such page ends a sign-in that failed: it is also reported on standard error,
// one line "sign-in failed (<status>): <title>: <detail>".
http::Response resultPage(unsigned status, std::string_view title, std::string_view detail);

// A 302 to `location` that no cache keeps.
http::Response noStoreRedirect(std::string location);

}  // namespace quill::sso
