#include "http/json.h"

#include <json/writer.h>

#include <memory>
#include <sstream>

namespace quill::http {

std::string toCompactJson(const Json::Value& value) {
  static const Json::StreamWriterBuilder builder = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    b["emitUTF8"] = true;
    return b;
  }();
  return Json::writeString(builder, value);
}

Response jsonResponse(const Json::Value& value, unsigned status) {
  return Response::json(toCompactJson(value), status);
}

Response errorResponse(unsigned status, std::string_view text) {
  Json::Value doc(Json::objectValue);
  doc["error"] = std::string(text);
  return jsonResponse(doc, status);
}

}  // namespace quill::http
