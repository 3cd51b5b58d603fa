#include "app/command_line.h"

#include <charconv>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>

namespace quill {

namespace {

template <typename Int>
bool parseDecimal(const std::string& text, Int& out) {
  long long value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  if (ec != std::errc() || ptr != end || text.empty()) return false;
  if (value < std::numeric_limits<Int>::min() || value > std::numeric_limits<Int>::max()) {
    return false;
  }
  out = static_cast<Int>(value);
  return true;
}

// An option that takes a value stores it; false means the value is unacceptable.
using ValueSetter = std::function<bool(CommandLine&, const std::string&)>;

// The part of the line an option belongs to.
ServerSettings& server(CommandLine& line) { return line.server; }
CommandArguments& command(CommandLine& line) { return line.command; }
backup::BackupArguments& backupPart(CommandLine& line) { return line.command.backup; }
rill::S3Settings& bucket(CommandLine& line) { return line.command.backup.bucket; }

template <class Part>
ValueSetter text(Part& (*part)(CommandLine&), std::string Part::*member) {
  return [part, member](CommandLine& line, const std::string& v) {
    part(line).*member = v;
    return true;
  };
}

template <class Part>
ValueSetter number(Part& (*part)(CommandLine&), std::int32_t Part::*member) {
  return [part, member](CommandLine& line, const std::string& v) {
    return parseDecimal(v, part(line).*member);
  };
}

const std::map<std::string, ValueSetter, std::less<>>& valueOptions() {
  static const std::map<std::string, ValueSetter, std::less<>> options = {
      {"--port",
       [](CommandLine& line, const std::string& v) {
         return parseDecimal(v, line.server.port) && line.server.port != 0;
       }},
      {"--bind", text(server, &ServerSettings::bind)},
      {"--data-dir",
       [](CommandLine& line, const std::string& v) {
         line.server.dataDir = v;
         return true;
       }},
      {"--rate-limit",
       [](CommandLine& line, const std::string& v) {
         line.server.rateLimit = v != "off";
         return true;
       }},
      {"--claimpin", text(server, &ServerSettings::claimPin)},
      {"--access-log", text(server, &ServerSettings::accessLog)},
      {"--user", text(command, &CommandArguments::user)},
      {"--role", text(command, &CommandArguments::role)},
      {"--channels", text(command, &CommandArguments::channels)},
      {"--days", number(command, &CommandArguments::days)},
      {"--hours", number(command, &CommandArguments::hours)},
      {"--keep", number(backupPart, &backup::BackupArguments::keep)},
      {"--endpoint", text(bucket, &rill::S3Settings::endpoint)},
      {"--region", text(bucket, &rill::S3Settings::region)},
      {"--bucket", text(bucket, &rill::S3Settings::bucket)},
      {"--access-key", text(bucket, &rill::S3Settings::accessKey)},
      {"--secret-key", text(bucket, &rill::S3Settings::secretKey)},
      {"--prefix", text(bucket, &rill::S3Settings::prefix)},
      {"--key", text(backupPart, &backup::BackupArguments::key)},
      {"--from", text(backupPart, &backup::BackupArguments::from)},
  };
  return options;
}

const std::map<std::string, std::function<void(CommandLine&)>, std::less<>>& flagOptions() {
  static const std::map<std::string, std::function<void(CommandLine&)>, std::less<>> flags = {
      {"--rill-only", [](CommandLine& line) { line.server.rillOnly = true; }},
      {"--claimable", [](CommandLine& line) { line.server.claimable = true; }},
      {"--service", [](CommandLine& line) { line.command.service = true; }},
      {"--replace", [](CommandLine& line) { line.command.replace = true; }},
      {"--dry-run", [](CommandLine& line) { line.command.backup.dryRun = true; }},
      {"--read-data", [](CommandLine& line) { line.command.backup.readData = true; }},
  };
  return flags;
}

}  // namespace

ParseOutcome parseCommandLine(const std::vector<std::string>& args, CommandLine& line) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (auto value = valueOptions().find(arg);
        value != valueOptions().end() && i + 1 < args.size()) {
      if (!value->second(line, args[++i])) return ParseOutcome::Usage;
      continue;
    }
    if (auto flag = flagOptions().find(arg); flag != flagOptions().end()) {
      flag->second(line);
      continue;
    }
    if (arg == "--version" || arg == "version") return ParseOutcome::ShowVersion;
    if (arg == "--dump-routes") return ParseOutcome::DumpRoutes;
    if (arg.empty() || arg.front() == '-') return ParseOutcome::Usage;
    line.command.words.push_back(arg);
  }
  return ParseOutcome::Proceed;
}

const std::string& usageText() {
  static const std::string text =
      "Usage: quillmoord [--port <port>] [--bind <address>] [--data-dir <path>] [--rill-only] "
      "[--rate-limit off] [--version] [--dump-routes]\n"
      "       quillmoord token create <name> [--user <user>] [--data-dir <path>]\n"
      "       quillmoord token list [--data-dir <path>]\n"
      "       quillmoord token delete <name> [--data-dir <path>]\n"
      "       quillmoord user create <name> [--role admin|member|publisher] [--channels <a,b>] "
      "[--service] [--data-dir <path>]\n"
      "       quillmoord user list [--data-dir <path>]\n"
      "       quillmoord invite create <user> [--days <N>] [--hours <N>] [--replace] "
      "[--data-dir <path>]\n"
      "       quillmoord backup init --endpoint <url> --bucket <name> --access-key <k> "
      "--secret-key <s> [--region <r>] [--key <key-file>] [--data-dir <path>]\n"
      "       quillmoord backup [--data-dir <path>]              encrypted snapshot -> bucket\n"
      "       quillmoord backup list [--data-dir <path>]\n"
      "       quillmoord backup prune --keep <N> [--data-dir <path>]\n"
      "       quillmoord backup schedule <HH:MM|off> [--keep <N>] [--data-dir <path>]\n"
      "       quillmoord restore <snapshot> --data-dir <empty-dir> --key <key-file|hex> "
      "(--from <backup.json> | --endpoint ... --bucket ... --access-key ... --secret-key ... "
      "[--prefix backups/])\n";
  return text;
}

}  // namespace quill
