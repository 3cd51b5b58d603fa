#pragma once
// What the running server takes from its command line: where it listens, its data directory and
// the switches its handlers consult. Filled once before anything else runs; part of the Context.
// The offline commands' own arguments live with the commands (app/command_arguments.h).

#include <cstdint>
#include <filesystem>
#include <string>

namespace quill {

struct ServerSettings {
  std::uint16_t port = 8080;
  std::string bind = "0.0.0.0";
  std::filesystem::path dataDir;  // empty until parsed: then the given or the default directory
  bool rillOnly = false;
  bool rateLimit = true;
  bool claimable = false;
  std::string claimPin;
  std::string accessLog;  // empty: no access log; "-": standard output
};

}  // namespace quill
