#include "handler/common.h"

#include "store/accounts.h"
#include "store/names.h"

namespace quill::handler {

std::optional<Response> refuseInvalidName(std::string_view name, std::string_view message) {
  if (store::isValidName(name)) return std::nullopt;
  return http::errorResponse(400, message);
}

std::optional<std::string> nameParam(const Request& req, std::string_view name) {
  auto value = req.param(name);
  if (!value || !store::isValidName(*value)) return std::nullopt;
  return std::string(*value);
}

bool channelExists(const Context& ctx, const std::string& name) {
  return store::channelDeclared(ctx.data, name);
}

std::vector<std::string> splitList(std::string_view value) {
  return store::splitList(value, store::ListSplit::kTrailingCommaEnds);
}

OrError<std::vector<std::string>> checkedChannelList(const Context& ctx, std::string_view value) {
  auto checked = store::checkChannelList(ctx.data, value, store::ListSplit::kTrailingCommaEnds);
  if (auto* channels = std::get_if<std::vector<std::string>>(&checked)) return std::move(*channels);
  return channelListRefusal(std::get<store::ChannelListProblem>(checked));
}

Response channelListRefusal(const store::ChannelListProblem& problem) {
  if (problem.kind == store::ChannelListProblem::Kind::kInvalidName) {
    return http::errorResponse(400, "invalid channel name in ?channels=");
  }
  return http::errorResponse(404, "channel '" + problem.piece + "' does not exist");
}

bool removeAll(Json::Value& array, const std::string& item) {
  if (!array.isArray()) return false;
  Json::Value kept(Json::arrayValue);
  for (const auto& element : array) {
    if (!(element.isString() && element.asString() == item)) kept.append(element);
  }
  bool changed = kept.size() != array.size();
  array = std::move(kept);
  return changed;
}

bool appendUnique(Json::Value& array, const std::string& item) {
  if (!array.isArray()) array = Json::Value(Json::arrayValue);
  for (const auto& element : array) {
    if (element.isString() && element.asString() == item) return false;
  }
  array.append(item);
  return true;
}

}  // namespace quill::handler
