#include "sso/result_page.h"

#include "sso/web_text.h"

namespace quill::sso {

namespace {

constexpr const char* kBodyStyle =
    "font-family:system-ui,-apple-system,'Segoe UI',Roboto,sans-serif;background:#0a1020;"
    "color:#dce7f5;display:grid;place-items:center;min-height:100vh;margin:0;text-align:center";

}  // namespace

http::Response resultPage(unsigned status, std::string_view title, std::string_view detail) {
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
