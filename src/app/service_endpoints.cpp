#include "app/service_endpoints.h"

#include <json/value.h>

#include "app/resources.h"
#include "base/version.h"
#include "http/json.h"

namespace quill {

http::Response landingPage() {
  return http::Response::html(std::string(resources::landing_html()));
}

http::Response docsPage() { return http::Response::html(std::string(resources::docs_html())); }

http::Response openapiDocument() {
  return http::Response::text(std::string(resources::openapi_yaml()));
}

http::Response versionDocument() {
  static const std::string body = [] {
    Json::Value doc(Json::objectValue);
    doc["name"] = kProgramName;
    doc["schema_version"] = 1;
    doc["version"] = kVersion;
    return http::toCompactJson(doc);
  }();
  return http::Response::json(body);
}

}  // namespace quill
