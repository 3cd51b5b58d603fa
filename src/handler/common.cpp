#include "handler/common.h"

#include <filesystem>

#include "store/names.h"

namespace quill::handler {

bool isLoopbackPeer(std::string_view peer) {
  return peer == "::1" || peer.starts_with("127.") || peer.starts_with("::ffff:127.");
}

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
  std::error_code ec;
  return std::filesystem::exists(store::DataDir::recordPath(ctx.data.channels(), name), ec);
}

std::vector<std::string> splitList(std::string_view value) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  while (start < value.size()) {
    std::size_t comma = value.find(',', start);
    if (comma == std::string_view::npos) comma = value.size();
    pieces.emplace_back(value.substr(start, comma - start));
    start = comma + 1;
  }
  return pieces;
}

OrError<std::vector<std::string>> checkedChannelList(const Context& ctx, std::string_view value) {
  auto pieces = splitList(value);
  for (const auto& piece : pieces) {
    if (!store::isValidName(piece)) {
      return http::errorResponse(400, "invalid channel name in ?channels=");
    }
  }
  for (const auto& piece : pieces) {
    if (!channelExists(ctx, piece)) {
      return http::errorResponse(404, "channel '" + piece + "' does not exist");
    }
  }
  return pieces;
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
