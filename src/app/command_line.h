#pragma once
// The flat command line: options and positional words in any order.

#include <string>
#include <vector>

#include "app/command_arguments.h"
#include "handler/server_settings.h"

namespace quill {

// One command line: the server's settings and the offline commands' arguments.
struct CommandLine {
  ServerSettings server;
  CommandArguments command;
};

enum class ParseOutcome {
  Proceed,      // line filled: run the subcommand named by the words, or the server
  ShowVersion,  // --version or the word "version" was met: print the version, exit 0
  DumpRoutes,   // --dump-routes was met: print the route table, exit 0
  Usage,        // bad argument: print the usage text to standard error, exit 1
};

// Parses `args` (without the program name) into `line`, one argument at a time from the first.
// --version, version and --dump-routes act as soon as they are met, even if later arguments are
// bad. A numeric option with a non-numeric or out-of-range value is a usage error.
ParseOutcome parseCommandLine(const std::vector<std::string>& args, CommandLine& line);

// The usage text, newline-terminated.
const std::string& usageText();

}  // namespace quill
