#pragma once

#include "handler/context.h"

namespace quill {

// Starts the server on the settings of `ctx` and serves until the process ends. Returns the exit
// status when start-up fails.
int runServer(Context& ctx);

// The banner and, when no token exists yet, the hint on minting the first one.
std::string startupBanner(const Context& ctx, bool anyTokenExists);

}  // namespace quill
