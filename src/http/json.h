#pragma once
// JSON answers: compact documents with members in ascending key order, and the one error shape
// {"error": text} that every refusal uses.

#include <json/value.h>

#include <string>
#include <string_view>

#include "http/response.h"

namespace quill::http {

// Compact serialisation (no spaces or newlines), UTF-8 passed through unescaped.
std::string toCompactJson(const Json::Value& value);

Response jsonResponse(const Json::Value& value, unsigned status = 200);

// {"error": text} with `status`; the only way any part of the server builds an error answer.
Response errorResponse(unsigned status, std::string_view text);

}  // namespace quill::http
