#pragma once
// The three commands of quillmoor-rill over the storage library. Each prints its result to
// standard output and its failure, the library's message, to standard error, and answers the
// process exit status: 0 on success, 1 on failure.

#include "tool_options.h"

namespace quill::rilltool {

int runPublish(const ToolOptions& options);
int runPull(const ToolOptions& options);
int runKeygen(const ToolOptions& options);

// Parses the command line and runs the command (or prints the usage it asks for).
int runTool(const std::vector<std::string>& args);

}  // namespace quill::rilltool
