// Bucket settings from a request body or a stored document, on arbitrary bytes: a body is refused
// with one of its fixed messages or gives complete settings, and whatever is read survives being
// written and read again.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/json_reader.h"
#include "rill/transport/s3_settings.h"

namespace {

using quill::rill::S3Settings;

bool same(const S3Settings& a, const S3Settings& b) {
  return a.endpoint == b.endpoint && a.region == b.region && a.bucket == b.bucket &&
         a.accessKey == b.accessKey && a.secretKey == b.secretKey && a.prefix == b.prefix;
}

bool isBodyRefusal(const std::string& e) {
  return e == "JSON object required" || e == quill::rill::kCredentialsRequired ||
         e == "endpoint must be a string" || e == "region must be a string" ||
         e == "bucket must be a string" || e == "access_key must be a string" ||
         e == "secret_key must be a string";
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto doc = quill::base::parseJson(text);
  if (!doc) return 0;

  const auto body = quill::rill::parseS3Credentials(*doc);
  if (!body && !isBodyRefusal(body.error())) std::abort();
  if (body && (!quill::rill::isComplete(body.value()) || body.value().region.empty() ||
               !body.value().prefix.empty())) {
    std::abort();
  }

  const S3Settings stored = quill::rill::s3SettingsFromJson(*doc);
  if (stored.region.empty()) std::abort();
  Json::Value written(Json::objectValue);
  quill::rill::writeS3Settings(stored, written);
  if (!same(quill::rill::s3SettingsFromJson(written), stored)) std::abort();
  return 0;
}
