#include "sso/result_page.h"

#include <cstdio>
#include <string>

#include "sso/web_text.h"

namespace quill::sso {

namespace {

constexpr const char* kBodyStyle =
    "font-family:system-ui,-apple-system,'Segoe UI',Roboto,sans-serif;background:#0a1020;"
    "color:#dce7f5;display:grid;place-items:center;min-height:100vh;margin:0;text-align:center";

// Text for a one-line report: control bytes (a provider's error description is the client's
// text) cannot start a line of their own.
std::string oneLine(std::string_view text) {
  std::string line(text);
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  }
  return line;
}

}  // namespace

http::Response resultPage(unsigned status, std::string_view title, std::string_view detail) {
  std::fprintf(stderr, "sign-in failed (%u): %s: %s\n", status, oneLine(title).c_str(),
               oneLine(detail).c_str());
  const std::string heading = htmlEscape(title);
  std::string page = "<!doctype html><meta charset=utf-8><title>" + heading + "</title>";
  page += "<body style=\"";
  page += kBodyStyle;
  page += "\"><main><h1>" + heading + "</h1><p>" + htmlEscape(detail) + "</p></main></body>\n";
  http::Response res = http::Response::html(std::move(page));
  res.status = status;
  res.withHeader("Cache-Control", "no-store")
      .withHeader("Content-Security-Policy", "default-src 'none'; style-src 'unsafe-inline'")
      .withHeader("X-Frame-Options", "DENY");
  return res;
}

http::Response noStoreRedirect(std::string location) {
  http::Response res = http::Response::redirect(std::move(location));
  res.withHeader("Cache-Control", "no-store");
  return res;
}

}  // namespace quill::sso
