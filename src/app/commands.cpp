#include "app/commands.h"

#include <exception>

#include "app/admin_commands.h"
#include "backup/backup_commands.h"

namespace quill {

namespace {

using Command = int (*)(Context&, std::ostream&, std::ostream&);

struct CommandShape {
  std::vector<std::string> words;  // fixed words; "*" takes any one word
  Command run;
};

// Every subcommand, by the exact shape of its words.
const std::vector<CommandShape>& commandShapes() {
  static const std::vector<CommandShape> shapes = {
      {{"user", "create", "*"}, userCreateCommand},
      {{"user", "list"}, userListCommand},
      {{"token", "create", "*"}, tokenCreateCommand},
      {{"token", "delete", "*"}, tokenDeleteCommand},
      {{"token", "list"}, tokenListCommand},
      {{"invite", "create", "*"}, inviteCreateCommand},
      {{"backup"}, backup::backupRunCommand},
      {{"backup", "init"}, backup::backupInitCommand},
      {{"backup", "list"}, backup::backupListCommand},
      {{"backup", "prune"}, backup::backupPruneCommand},
      {{"backup", "check"}, backup::backupCheckCommand},
      {{"backup", "schedule", "*"}, backup::backupScheduleCommand},
      {{"restore", "*"}, backup::restoreCommand},
  };
  return shapes;
}

bool fits(const CommandShape& shape, const std::vector<std::string>& words) {
  if (shape.words.size() != words.size()) return false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    if (shape.words[i] != "*" && shape.words[i] != words[i]) return false;
  }
  return true;
}

}  // namespace

int runCommand(Context& ctx, std::ostream& out, std::ostream& err) {
  for (const auto& shape : commandShapes()) {
    if (!fits(shape, ctx.settings.words)) continue;
    try {
      return shape.run(ctx, out, err);
    } catch (const std::exception& e) {
      // A data directory that cannot be listed (a record folder that is a file, say).
      err << e.what() << "\n";
      return 1;
    }
  }
  err << "unknown command\n";
  return 1;
}

}  // namespace quill
