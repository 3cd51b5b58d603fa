#include "base/json_reader.h"

#include <json/reader.h>

#include <exception>
#include <memory>

namespace quill::base {

std::optional<Json::Value> parseJson(std::string_view text, std::string* reason,
                                     const JsonLimits& limits) {
  const auto fail = [reason](std::string why) -> std::optional<Json::Value> {
    if (reason) *reason = std::move(why);
    return std::nullopt;
  };
  if (text.size() > limits.maxBytes) return fail("too large");
  Json::CharReaderBuilder builder;
  builder["collectComments"] = false;
  builder["allowComments"] = false;
  builder["failIfExtra"] = true;
  builder["rejectDupKeys"] = false;
  // The reader throws, rather than fails, past its stack limit; the limit also bounds the
  // recursion of the value's own destructor.
  builder["stackLimit"] = limits.maxDepth;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value value;
  std::string errors;
  try {
    if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
      const std::string first = errors.substr(0, errors.find('\n'));
      return fail(first.empty() ? "not JSON" : first);
    }
  } catch (const Json::Exception&) {
    return fail("nested too deep");
  } catch (const std::bad_alloc&) {
    return fail("too large");
  }
  return value;
}

std::optional<Json::Value> parseJsonObject(std::string_view text, std::string* reason,
                                           const JsonLimits& limits) {
  auto value = parseJson(text, reason, limits);
  if (value && !value->isObject()) {
    if (reason) *reason = "not a JSON object";
    return std::nullopt;
  }
  return value;
}

}  // namespace quill::base
