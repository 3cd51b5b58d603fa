#pragma once
// The rules about accounts that the API, the offline commands and sign-in share: the roles,
// the promote allow-list check, whether a user or token name is taken, and what makes a new user
// acceptable. Each caller words its own refusals; the rules themselves live only here.

#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "store/data_dir.h"
#include "store/users.h"

namespace quill::store {

// "admin", "member" or "publisher".
bool isRole(std::string_view role);
// For choosing the strongest of several roles: admin 3, publisher 2, member 1, anything else 0.
int roleRank(std::string_view role);

// The pieces of a comma-separated list. kTrailingCommaEnds: "a," is {"a"} (the API's lists);
// kEveryComma: "a," is {"a", ""} (the command line's, where the empty piece is then refused).
enum class ListSplit { kTrailingCommaEnds, kEveryComma };
std::vector<std::string> splitList(std::string_view value, ListSplit split);

// Why a promote allow-list was refused: a piece that fails the name rule (every piece is checked
// for that first), or the first one that names no declared channel.
struct ChannelListProblem {
  enum class Kind { kInvalidName, kUndeclared } kind;
  std::string piece;
};
// The channels of `value` when every one is a valid name of a declared channel, else the problem.
std::variant<std::vector<std::string>, ChannelListProblem> checkChannelList(const DataDir& data,
                                                                            std::string_view value,
                                                                            ListSplit split);

// Whether `channels/<name>.json`, `users/<name>.json` or `tokens/<name>.json` exists (whatever it
// holds). The name must have passed isValidName.
bool channelDeclared(const DataDir& data, const std::string& name);
bool userExists(const DataDir& data, const std::string& name);
bool tokenNameTaken(const DataDir& data, const std::string& name);

// A user asked for by an administrator (the API or the command line).
struct UserRequest {
  std::string name;
  std::string role;
  std::string_view channels;  // the promote allow-list, as given; "" for none
  bool service = false;
  // A member asked for as a service account becomes a publisher (the command line's reading);
  // otherwise it is refused.
  bool serviceMakesPublisher = false;
};

// Why a requested user was refused; `list` tells which piece of the allow-list, for kChannelList.
struct UserRefusal {
  enum class Kind {
    kInvalidName,
    kBadRole,
    kChannelsNeedPublisher,
    kChannelList,
    kExists,
    kServiceNotPublisher
  } kind;
  ChannelListProblem list{};
};

// The record to create for `request`, or why not. The checks run in the order of the kinds: the
// name rule, the role, an allow-list (for publishers only; then checkChannelList with `split`),
// the name taken by any users/ file, and a service account's role.
std::variant<NewUser, UserRefusal> checkNewUser(const DataDir& data, const UserRequest& request,
                                                ListSplit split);

}  // namespace quill::store
