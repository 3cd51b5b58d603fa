// quillmoor-rill: publishes builds to a bucket and pulls them back (see --help).

#include <string>
#include <vector>

#include "base/process_init.h"
#include "tool_commands.h"

int main(int argc, char** argv) {
  if (!quill::base::initializeLibraries()) return 1;
  return quill::rilltool::runTool(std::vector<std::string>(argv + 1, argv + argc));
}
