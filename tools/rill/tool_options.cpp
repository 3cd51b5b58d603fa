#include "tool_options.h"

#include <cstdlib>
#include <utility>


namespace quill::rilltool {

namespace {

using base::Failure;

const char* const kEnvNames[] = {"AWS_ACCESS_KEY_ID", "AWS_SECRET_ACCESS_KEY", "QUILLMOOR_TOKEN"};

bool isChannelName(const std::string& name) {
  if (name.empty() || name.size() > 128 || name == "." || name == "..") return false;
  for (const char c : name) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                    c == '-' || c == '.' || c == '_';
    if (!ok) return false;
  }
  return true;
}

struct Parser {
  const std::vector<std::string>& args;
  std::size_t at = 1;  // args[0] is the command
  std::vector<std::string> positional;

  // The value after option `name`, or a failure.
  base::Result<std::string> value(const std::string& name) {
    if (at + 1 >= args.size()) return Failure{name + " needs a value"};
    at += 2;
    return args[at - 1];
  }
};

}  // namespace

Environment processEnvironment() {
  Environment env;
  for (const char* name : kEnvNames) {
    if (const char* v = std::getenv(name); v && *v) env[name] = v;
  }
  return env;
}

base::Result<ToolOptions> parseToolOptions(const std::vector<std::string>& args,
                                           const Environment& env) {
  ToolOptions o;
  if (args.empty()) return Failure{"a command is required: publish, pull or keygen"};
  const std::string& name = args[0];
  if (name == "--help" || name == "-h" || name == "help") {
    o.help = true;
    o.command = Command::kNone;
    return o;
  }
  if (name == "--version" || name == "version") {
    o.version = true;
    o.command = Command::kNone;
    return o;
  }
  if (name == "publish")
    o.command = Command::kPublish;
  else if (name == "pull")
    o.command = Command::kPull;
  else if (name == "keygen")
    o.command = Command::kKeygen;
  else
    return Failure{"unknown command '" + name + "'"};

  // Options that take a value, and where the value goes.
  std::map<std::string, std::string*> valued = {
      {"--endpoint", &o.storage.endpoint},    {"--bucket", &o.storage.bucket},
      {"--access-key", &o.storage.accessKey}, {"--secret-key", &o.storage.secretKey},
      {"--region", &o.storage.region},        {"--prefix", &o.storage.prefix}};
  if (o.command == Command::kPublish) {
    valued.insert({{"--channel", &o.channel}, {"--build", &o.build}, {"--sign-key", &o.signKey}});
  } else if (o.command == Command::kPull) {
    valued.insert({{"--server", &o.server}, {"--token", &o.token}, {"--verify-key", &o.verifyKey}});
  } else {
    valued = {{"--secret-file", &o.secretFile}};
  }

  Parser p{args, 1, {}};
  std::string from;
  while (p.at < args.size()) {
    const std::string& arg = args[p.at];
    if (arg == "--help" || arg == "-h") {
      o.help = true;
      return o;
    }
    if (arg == "--force" && o.command == Command::kPublish) {
      o.force = true;
    } else if (arg == "--no-compress" && o.command == Command::kPublish) {
      o.compress = false;
    } else if (arg == "--from" && o.command != Command::kKeygen) {
      auto v = p.value(arg);
      if (!v) return Failure{v.error()};
      from = v.value();
      continue;
    } else if (const auto it = valued.find(arg); it != valued.end()) {
      auto v = p.value(arg);
      if (!v) return Failure{v.error()};
      *it->second = v.value();
      continue;
    } else if (arg.starts_with("--")) {
      return Failure{"unknown option " + arg};
    } else {
      p.positional.push_back(arg);
    }
    ++p.at;
  }

  const std::size_t wanted = o.command == Command::kPublish ? 1
                             : o.command == Command::kPull  ? 2
                                                            : 0;
  if (p.positional.size() != wanted) {
    static const char* const shapes[] = {"", "publish <dir> --channel <name>",
                                         "pull <channel> <dir>", "keygen"};
    return Failure{std::string("usage: quillmoor-rill ") + shapes[static_cast<int>(o.command)]};
  }
  if (o.command == Command::kKeygen) return o;
  if (o.command == Command::kPublish) {
    o.dir = p.positional[0];
  } else {
    o.channel = p.positional[0];
    o.dir = p.positional[1];
  }
  if (o.channel.empty()) return Failure{"--channel is required"};
  if (!isChannelName(o.channel)) return Failure{"invalid channel name"};

  if (o.command == Command::kPull && !o.server.empty()) {
    if (o.token.empty() && env.contains("QUILLMOOR_TOKEN")) o.token = env.at("QUILLMOOR_TOKEN");
    return o;
  }

  // Storage: --from first, then the options over it, then the environment for missing keys.
  rill::S3Settings& s3 = o.storage;
  if (!from.empty()) {
    auto fromFile = rill::readS3SettingsFile(from);
    if (!fromFile) return Failure{fromFile.error()};
    const rill::S3Settings given = std::exchange(s3, fromFile.value());
    const auto over = [](const std::string& option, std::string& into) {
      if (!option.empty()) into = option;
    };
    over(given.endpoint, s3.endpoint);
    over(given.region, s3.region);
    over(given.bucket, s3.bucket);
    over(given.accessKey, s3.accessKey);
    over(given.secretKey, s3.secretKey);
    over(given.prefix, s3.prefix);
  }
  if (s3.accessKey.empty() && env.contains("AWS_ACCESS_KEY_ID"))
    s3.accessKey = env.at("AWS_ACCESS_KEY_ID");
  if (s3.secretKey.empty() && env.contains("AWS_SECRET_ACCESS_KEY")) {
    s3.secretKey = env.at("AWS_SECRET_ACCESS_KEY");
  }
  if (!rill::isComplete(s3)) {
    return Failure{o.command == Command::kPull
                       ? "give --server <url>, or the storage: --endpoint, --bucket, --access-key "
                         "and --secret-key (or --from <rill.json>)"
                       : "the storage is required: --endpoint, --bucket, --access-key and "
                         "--secret-key (or --from <rill.json>)"};
  }
  if (!rill::hasHttpEndpoint(s3)) return Failure{rill::kEndpointScheme};
  return o;
}

std::string usageText(Command command) {
  const char* const storage =
      "Storage (straight to the bucket):\n"
      "  --endpoint <url>      S3 endpoint, https:// (http:// for a local test server)\n"
      "  --bucket <name>       bucket\n"
      "  --access-key <id>     access key id (else AWS_ACCESS_KEY_ID)\n"
      "  --secret-key <key>    secret access key (else AWS_SECRET_ACCESS_KEY)\n"
      "  --region <name>       signing region (default auto)\n"
      "  --prefix <text>       keep every object under this prefix\n"
      "  --from <rill.json>    read the settings above from a server's rill.json\n";
  if (command == Command::kPublish) {
    return std::string(
               "Usage: quillmoor-rill publish <dir> --channel <name> [--build <label>] [--force]\n"
               "                              [--sign-key <file|hex>] [--no-compress] <storage>\n"
               "Uploads the chunks of <dir> the bucket lacks, then the channel's manifest and,\n"
               "with a signing key, its signature.\n"
               "  --channel <name>      channel to publish to\n"
               "  --build <label>       build label (default: the publication time, UTC)\n"
               "  --force               replace the channel's current build\n"
               "  --sign-key <file|hex> Ed25519 secret key from keygen, or a file holding it\n"
               "  --no-compress         store chunks as they are\n") +
           storage;
  }
  if (command == Command::kPull) {
    return std::string(
               "Usage: quillmoor-rill pull <channel> <dir> --server <url> [--token <t>]\n"
               "                           [--verify-key <hex>]\n"
               "       quillmoor-rill pull <channel> <dir> <storage> [--verify-key <hex>]\n"
               "Brings <dir> up to the channel's build, downloading only the chunks it lacks.\n"
               "  --server <url>        ask this server for presigned links\n"
               "  --token <t>           bearer token for the server (else QUILLMOOR_TOKEN)\n"
               "  --verify-key <hex>    require a manifest signed by this public key\n") +
           storage;
  }
  if (command == Command::kKeygen) {
    return "Usage: quillmoor-rill keygen [--secret-file <path>]\n"
           "Makes an Ed25519 key pair: the secret key for publish --sign-key, the public key for\n"
           "pull --verify-key.\n"
           "  --secret-file <path>  write the secret key to a new owner-only file instead of\n"
           "                        printing it\n";
  }
  return "Usage: quillmoor-rill <command> [options]\n"
         "Commands:\n"
         "  publish <dir> --channel <name>   upload a build to a bucket\n"
         "  pull <channel> <dir>             download a channel's build\n"
         "  keygen                           make a signing key pair\n"
         "Run quillmoor-rill <command> --help for the options of each,\n"
         "quillmoor-rill --version for the version.\n";
}

}  // namespace quill::rilltool
