#pragma once

#include <ostream>

#include "handler/context.h"

namespace quill {

// Runs the subcommand named by ctx.settings.words against the data directory. Results go to
// standard output, errors to standard error. Returns the exit status (0 or 1).
int runCommand(Context& ctx, std::ostream& out, std::ostream& err);

}  // namespace quill
