#pragma once

#include <ostream>

#include "app/command_arguments.h"
#include "handler/context.h"

namespace quill {

// Runs the subcommand named by args.words against the data directory. Results go to `out`, errors
// to `err`. Returns the exit status (0 or 1).
int runCommand(Context& ctx, const CommandArguments& args, std::ostream& out, std::ostream& err);

}  // namespace quill
