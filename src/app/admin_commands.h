#pragma once
// The offline administrative commands: users, tokens and invites made directly in the data
// directory, whether or not a server runs on it. Every check comes before the first write, so a
// refused command changes nothing. Each returns the exit status (0 or 1).

#include <ostream>

#include "app/command_arguments.h"
#include "handler/context.h"

namespace quill {

int userCreateCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                      std::ostream& err);
int userListCommand(Context& ctx, std::ostream& out, std::ostream& err);
int tokenCreateCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                       std::ostream& err);
int tokenDeleteCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                       std::ostream& err);
int tokenListCommand(Context& ctx, std::ostream& out, std::ostream& err);
int inviteCreateCommand(Context& ctx, const CommandArguments& args, std::ostream& out,
                        std::ostream& err);

}  // namespace quill
