// quillmoord: the build-distribution server and its own administration tool.

#include <cstdio>
#include <iostream>
#include <string>
#include <vector>

#include "app/command_line.h"
#include "app/commands.h"
#include "app/routes.h"
#include "app/serve.h"
#include "base/version.h"
#include "base/process_init.h"
#include "handler/context.h"
#include "store/data_dir.h"

int main(int argc, char** argv) {
  using namespace quill;
  if (!base::initializeLibraries()) {
    std::fputs("libsodium init failed\n", stderr);
    return 1;
  }
  CommandLine line;
  std::vector<std::string> args(argv + 1, argv + argc);
  ParseOutcome outcome = parseCommandLine(args, line);
  if (line.server.dataDir.empty()) line.server.dataDir = store::defaultDataDir();
  switch (outcome) {
    case ParseOutcome::ShowVersion:
      std::printf("%s\n", kVersion);
      return 0;
    case ParseOutcome::DumpRoutes: {
      Context ctx(line.server);
      for (const auto& [access, route] : routeTable(ctx)) {
        std::printf("%s %s %s\n", route.method.c_str(), route.pattern.c_str(),
                    accessName(access).c_str());
      }
      return 0;
    }
    case ParseOutcome::Usage:
      std::fputs(usageText().c_str(), stderr);
      return 1;
    case ParseOutcome::Proceed:
      break;
  }
  Context ctx(std::move(line.server));
  if (!line.command.words.empty()) return runCommand(ctx, line.command, std::cout, std::cerr);
  return runServer(ctx);
}
