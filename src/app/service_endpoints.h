#pragma once
// The four routes that need no token and read nothing: each answers the same bytes every time.

#include "http/response.h"

namespace quill {

http::Response landingPage();      // GET /
http::Response docsPage();         // GET /api/docs
http::Response openapiDocument();  // GET /api/openapi.yaml
http::Response versionDocument();  // GET /api/version

}  // namespace quill
