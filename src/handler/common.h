#pragma once
// Small pieces shared by the identity and access handlers.

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "handler/context.h"
#include "store/accounts.h"
#include "http/json.h"
#include "http/request.h"
#include "http/response.h"

namespace quill::handler {

using http::Request;
using http::Response;

// A value or the error answer that replaces it.
template <typename T>
using OrError = std::variant<T, Response>;

// 400 `message` unless `name` passes the name rule.
std::optional<Response> refuseInvalidName(std::string_view name, std::string_view message);

// The query parameter `name` when present and a valid name, else nullopt.
std::optional<std::string> nameParam(const Request& req, std::string_view name);

// Whether `channels/<name>.json` exists (the name must be valid).
bool channelExists(const Context& ctx, const std::string& name);

// A comma-separated channel list ("a,b"; a trailing comma ends it): every piece must be a valid
// name (400 "invalid channel name in ?channels=") naming an existing channel
// (404 "channel '<piece>' does not exist").
OrError<std::vector<std::string>> checkedChannelList(const Context& ctx, std::string_view value);
// The answer checkedChannelList gives for `problem`.
Response channelListRefusal(const store::ChannelListProblem& problem);

// The pieces of a comma-separated list; a trailing comma ends the list ("a," is {"a"}).
std::vector<std::string> splitList(std::string_view value);

// Removes every element equal to `item`; appends `item` unless present. Both report a change.
bool removeAll(Json::Value& array, const std::string& item);
bool appendUnique(Json::Value& array, const std::string& item);

}  // namespace quill::handler
