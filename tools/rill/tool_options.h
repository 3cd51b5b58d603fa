#pragma once
// The command line of quillmoor-rill: which command, and its options, checked before anything
// touches a store, a server or a directory.

#include <map>
#include <string>
#include <vector>

#include "base/result.h"
#include "rill/transport/s3_settings.h"

namespace quill::rilltool {

// kNone: only the program's own --help or --version was asked for.
enum class Command { kNone, kPublish, kPull, kKeygen };

struct ToolOptions {
  Command command = Command::kPublish;
  bool help = false;
  bool version = false;  // --version (or the word version): print the version and stop
  std::string dir;
  std::string channel;
  std::string build;  // publish: empty gives the publication time
  bool force = false;
  std::string signKey;  // the argument of --sign-key (a file or hex)
  bool compress = true;
  std::string server;  // pull through a server's sync endpoint
  std::string token;   // --token, else QUILLMOOR_TOKEN
  std::string verifyKey;
  std::string secretFile;  // keygen: write the secret key here instead of printing it
  // Where the bucket is and who may use it: options, else a rill.json given by --from, else the
  // AWS_ACCESS_KEY_ID / AWS_SECRET_ACCESS_KEY environment variables for the two keys.
  rill::S3Settings storage;
};

// What the environment offers in place of options: AWS_ACCESS_KEY_ID, AWS_SECRET_ACCESS_KEY and
// QUILLMOOR_TOKEN (absent variables are absent from the map).
using Environment = std::map<std::string, std::string>;
Environment processEnvironment();

// Parses `args` (without the program name). Fails with a one-line reason: an unknown command or
// option, a missing value or argument, an invalid channel name, an endpoint that is not http(s),
// a --from file that cannot be read, storage settings that are incomplete.
base::Result<ToolOptions> parseToolOptions(const std::vector<std::string>& args,
                                           const Environment& env);

// The usage text of `command` (of the program for kNone), ending with a newline.
std::string usageText(Command command);

}  // namespace quill::rilltool
