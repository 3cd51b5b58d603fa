#include "store/accounts.h"

#include <filesystem>

#include "store/names.h"

namespace quill::store {

namespace {

bool recordExists(const fs::path& dir, const std::string& name) {
  std::error_code ec;
  return fs::exists(DataDir::recordPath(dir, name), ec);
}

}  // namespace

bool isRole(std::string_view role) { return roleRank(role) > 0; }

int roleRank(std::string_view role) {
  if (role == "admin") return 3;
  if (role == "publisher") return 2;
  if (role == "member") return 1;
  return 0;
}

std::vector<std::string> splitList(std::string_view value, ListSplit split) {
  std::vector<std::string> pieces;
  std::size_t start = 0;
  while (start < value.size()) {
    std::size_t comma = value.find(',', start);
    if (comma == std::string_view::npos) comma = value.size();
    pieces.emplace_back(value.substr(start, comma - start));
    start = comma + 1;
  }
  if (split == ListSplit::kEveryComma && value.ends_with(',')) pieces.emplace_back();
  return pieces;
}

std::variant<std::vector<std::string>, ChannelListProblem> checkChannelList(const DataDir& data,
                                                                            std::string_view value,
                                                                            ListSplit split) {
  auto pieces = splitList(value, split);
  for (const auto& piece : pieces) {
    if (!isValidName(piece))
      return ChannelListProblem{ChannelListProblem::Kind::kInvalidName, piece};
  }
  for (const auto& piece : pieces) {
    if (!channelDeclared(data, piece)) {
      return ChannelListProblem{ChannelListProblem::Kind::kUndeclared, piece};
    }
  }
  return pieces;
}

bool channelDeclared(const DataDir& data, const std::string& name) {
  return recordExists(data.channels(), name);
}

bool userExists(const DataDir& data, const std::string& name) {
  return recordExists(data.users(), name);
}

bool tokenNameTaken(const DataDir& data, const std::string& name) {
  return recordExists(data.tokens(), name);
}

std::variant<NewUser, UserRefusal> checkNewUser(const DataDir& data, const UserRequest& request,
                                                ListSplit split) {
  using Kind = UserRefusal::Kind;
  NewUser user;
  user.name = request.name;
  user.role = request.role;
  user.service = request.service;
  if (!isValidName(user.name)) return UserRefusal{Kind::kInvalidName};
  if (!isRole(user.role)) return UserRefusal{Kind::kBadRole};
  if (!request.channels.empty()) {
    if (user.role != "publisher") return UserRefusal{Kind::kChannelsNeedPublisher};
    auto checked = checkChannelList(data, request.channels, split);
    if (auto* problem = std::get_if<ChannelListProblem>(&checked)) {
      return UserRefusal{Kind::kChannelList, *problem};
    }
    user.channels = std::get<std::vector<std::string>>(std::move(checked));
  }
  if (userExists(data, user.name)) return UserRefusal{Kind::kExists};
  if (user.service && user.role == "member" && request.serviceMakesPublisher) {
    user.role = "publisher";
  }
  if (user.service && user.role != "publisher") return UserRefusal{Kind::kServiceNotPublisher};
  return user;
}

}  // namespace quill::store
