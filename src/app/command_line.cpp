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
using ValueSetter = std::function<bool(Settings&, const std::string&)>;

ValueSetter text(std::string Settings::*member) {
  return [member](Settings& s, const std::string& v) {
    s.*member = v;
    return true;
  };
}

ValueSetter backupText(std::string BackupOptions::*member) {
  return [member](Settings& s, const std::string& v) {
    s.backup.*member = v;
    return true;
  };
}

ValueSetter number(std::int32_t Settings::*member) {
  return [member](Settings& s, const std::string& v) { return parseDecimal(v, s.*member); };
}

const std::map<std::string, ValueSetter, std::less<>>& valueOptions() {
  static const std::map<std::string, ValueSetter, std::less<>> options = {
      {"--port",
       [](Settings& s, const std::string& v) { return parseDecimal(v, s.port) && s.port != 0; }},
      {"--bind", text(&Settings::bind)},
      {"--data-dir",
       [](Settings& s, const std::string& v) {
         s.dataDir = v;
         return true;
       }},
      {"--rate-limit",
       [](Settings& s, const std::string& v) {
         s.rateLimit = v != "off";
         return true;
       }},
      {"--claimpin", text(&Settings::claimPin)},
      {"--access-log", text(&Settings::accessLog)},
      {"--user", text(&Settings::user)},
      {"--role", text(&Settings::role)},
      {"--channels", text(&Settings::channels)},
      {"--days", number(&Settings::days)},
      {"--hours", number(&Settings::hours)},
      {"--keep", number(&Settings::keep)},
      {"--endpoint", backupText(&BackupOptions::endpoint)},
      {"--region", backupText(&BackupOptions::region)},
      {"--bucket", backupText(&BackupOptions::bucket)},
      {"--access-key", backupText(&BackupOptions::accessKey)},
      {"--secret-key", backupText(&BackupOptions::secretKey)},
      {"--prefix", backupText(&BackupOptions::prefix)},
      {"--key", backupText(&BackupOptions::key)},
      {"--from", backupText(&BackupOptions::from)},
  };
  return options;
}

const std::map<std::string, bool Settings::*, std::less<>>& flagOptions() {
  static const std::map<std::string, bool Settings::*, std::less<>> flags = {
      {"--rill-only", &Settings::rillOnly},
      {"--claimable", &Settings::claimable},
      {"--service", &Settings::service},
      {"--replace", &Settings::replace},
      {"--dry-run", &Settings::dryRun},
      {"--read-data", &Settings::readData},
  };
  return flags;
}

}  // namespace

ParseOutcome parseCommandLine(const std::vector<std::string>& args, Settings& settings) {
  for (std::size_t i = 0; i < args.size(); ++i) {
    const std::string& arg = args[i];
    if (auto value = valueOptions().find(arg);
        value != valueOptions().end() && i + 1 < args.size()) {
      if (!value->second(settings, args[++i])) return ParseOutcome::Usage;
      continue;
    }
    if (auto flag = flagOptions().find(arg); flag != flagOptions().end()) {
      settings.*(flag->second) = true;
      continue;
    }
    if (arg == "--version" || arg == "version") return ParseOutcome::ShowVersion;
    if (arg == "--dump-routes") return ParseOutcome::DumpRoutes;
    if (arg.empty() || arg.front() == '-') return ParseOutcome::Usage;
    settings.words.push_back(arg);
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
