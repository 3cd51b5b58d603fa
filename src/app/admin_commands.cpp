#include "app/admin_commands.h"

#include <filesystem>

#include "store/accounts.h"
#include "store/documents.h"
#include "store/invites.h"
#include "store/names.h"
#include "store/tokens.h"
#include "store/users.h"

namespace quill {

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;

int fail(std::ostream& err, const std::string& message) {
  err << message << "\n";
  return kFailed;
}

// The word after the command words: `user create <name>` and the like.
const std::string& argument(const CommandArguments& args) { return args.words.back(); }

std::string joined(const std::vector<std::string>& items) {
  std::string text;
  for (const auto& item : items) text += (text.empty() ? "" : ",") + item;
  return text;
}

// Deletes the pending invites of `user`. Records that cannot be read are left alone, and so is an
// invites folder that cannot be listed (storing the new invite then fails and says so).
void replaceInvitesOf(const Context& ctx, const std::string& user) {
  try {
    for (const auto& [path, record] : store::listJsonDir(ctx.data.invites())) {
      if (store::textOf(record, "user") == user) store::removeFile(path);
    }
  } catch (const std::filesystem::filesystem_error&) {
  }
}

}  // namespace

int userCreateCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                      std::ostream& err) {
  const std::string& name = argument(args);
  // --channels splits at every comma: a trailing one leaves an empty piece, which the name rule
  // refuses.
  const store::UserRequest request{name, args.role, args.channels, args.service, true};
  auto checked = store::checkNewUser(ctx.data, request, store::ListSplit::kEveryComma);
  if (auto* refusal = std::get_if<store::UserRefusal>(&checked)) {
    using Kind = store::UserRefusal::Kind;
    switch (refusal->kind) {
      case Kind::kInvalidName:
        return fail(err, "invalid user name");
      case Kind::kBadRole:
        return fail(err, "--role must be admin, member or publisher");
      case Kind::kChannelsNeedPublisher:
        return fail(err, "--channels only applies to --role publisher");
      case Kind::kChannelList:
        if (refusal->list.kind == store::ChannelListProblem::Kind::kInvalidName) {
          return fail(err, "invalid channel name in --channels");
        }
        return fail(err, "channel '" + refusal->list.piece + "' is not declared on this server");
      case Kind::kExists:
        return fail(err, "user '" + name + "' already exists");
      case Kind::kServiceNotPublisher:
        return fail(err, "--service accounts always have role publisher");
    }
  }
  const store::NewUser& user = std::get<store::NewUser>(checked);
  store::createUser(ctx.data, user);
  const std::string& role = user.role;

  const std::string access = "  quillmoord token create <token-name> --user " + name + "\n";
  if (args.service) {
    out << "Service account '" << name
        << "' created (role: publisher; tokens only, cannot be invited or promoted).\n"
           "Give your CI access with:\n"
        << access;
  } else if (role == "publisher") {
    out << "User '" << name << "' created (role: publisher; may promote to: "
        << (args.channels.empty() ? "(no channels)" : args.channels)
        << ").\nGive them access with:\n"
        << access;
  } else {
    out << "User '" << name << "' created (role: " << role << "). Give them access with:\n"
        << access;
  }
  return kOk;
}

int userListCommand(Context& ctx, std::ostream& out, std::ostream&) {
  for (const auto& user : store::listUsers(ctx.data)) {
    const std::string name = store::textOf(user, "name");
    const std::string role = store::textOf(user, "role");
    if (role != "publisher") {
      out << name << " (" << role << ")\n";
      continue;
    }
    auto channels = store::stringsOf(user, "channels");
    out << name << " (publisher: " << (channels.empty() ? "(no channels)" : joined(channels))
        << ")\n";
  }
  return kOk;
}

int tokenCreateCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                       std::ostream& err) {
  const std::string& name = argument(args);
  if (!store::isValidName(name)) return fail(err, "invalid token name");
  if (store::tokenNameTaken(ctx.data, name)) {
    return fail(err, "token '" + name + "' already exists");
  }
  // Without --user the token belongs to a user named like the token.
  const std::string owner = args.user.empty() ? name : args.user;
  if (!store::isValidName(owner)) return fail(err, "invalid user name");
  store::NewUser user;
  user.name = owner;
  store::createUser(ctx.data, user);  // an existing owner is left as it is
  const std::string token = store::mintToken(ctx.data, name, owner);
  if (token.empty()) return fail(err, "could not store token");
  out << "Token '" << name << "' created for user '" << owner
      << "'. Save it now - it is shown only once:\n\n  " << token << "\n";
  return kOk;
}

int tokenDeleteCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                       std::ostream& err) {
  const std::string& name = argument(args);
  if (!store::isValidName(name)) return fail(err, "invalid token name");
  if (!store::removeFile(store::DataDir::recordPath(ctx.data.tokens(), name))) {
    return fail(err, "no token named '" + name + "'");
  }
  out << "Token '" << name << "' deleted - access revoked immediately.\n";
  return kOk;
}

int tokenListCommand(Context& ctx, std::ostream& out, std::ostream&) {
  std::error_code ec;
  for (std::filesystem::directory_iterator it(ctx.data.tokens(), ec), end; !ec && it != end;
       it.increment(ec)) {
    if (it->path().extension() == ".json") out << it->path().stem().string() << "\n";
  }
  return kOk;
}

int inviteCreateCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                        std::ostream& err) {
  const std::string& user = argument(args);
  if (!store::isValidName(user)) return fail(err, "invalid user name");
  if (!store::findUser(ctx.data, user)) return fail(err, "user '" + user + "' does not exist");
  // A negative value counts as not given.
  const bool days = args.days >= 0;
  const bool hours = args.hours >= 0;
  if (days && hours) return fail(err, "use --days or --hours, not both");
  store::InviteRequest invite;
  invite.user = user;
  if (hours) {
    if (args.hours < 1 || args.hours > 87600) return fail(err, "--hours must be 1..87600");
    invite.lifetimeSeconds = std::int64_t{args.hours} * 3600;
  } else if (days) {
    if (args.days < 1 || args.days > 3650) return fail(err, "--days must be 1..3650");
    invite.lifetimeSeconds = std::int64_t{args.days} * 86400;
  }
  if (args.replace) replaceInvitesOf(ctx, user);
  auto created = store::createInvite(ctx.data, invite);
  if (!created) return fail(err, "could not store invite");
  out << "Invite for user '" << user << "' created, valid until "
      << (*created)["expires_at"].asString() << ". Single use, shown only once:\n\n  "
      << (*created)["code"].asString() << "\n";
  return kOk;
}

}  // namespace quill
