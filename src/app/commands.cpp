#include "app/commands.h"

#include <exception>

#include "app/admin_commands.h"
#include "backup/backup_commands.h"

namespace quill {

namespace {

using Command = int (*)(Context&, const CommandArguments&, std::ostream&, std::ostream&);

// Commands that take no arguments, the backup commands' own arguments, and their operand.
template <int (*run)(Context&, std::ostream&, std::ostream&)>
int withoutArguments(Context& ctx, const CommandArguments&, std::ostream& out, std::ostream& err) {
  return run(ctx, out, err);
}
template <int (*run)(Context&, const backup::BackupArguments&, std::ostream&, std::ostream&)>
int withBackupArguments(Context& ctx, const CommandArguments& args, std::ostream& out,
                        std::ostream& err) {
  return run(ctx, args.backup, out, err);
}
template <int (*run)(Context&, const std::string&, const backup::BackupArguments&, std::ostream&,
                     std::ostream&)>
int withOperand(Context& ctx, const CommandArguments& args, std::ostream& out, std::ostream& err) {
  return run(ctx, args.words.back(), args.backup, out, err);
}

struct CommandShape {
  std::vector<std::string> words;  // fixed words; "*" takes any one word
  Command run;
};

// Every subcommand, by the exact shape of its words.
const std::vector<CommandShape>& commandShapes() {
  static const std::vector<CommandShape> shapes = {
      {{"user", "create", "*"}, userCreateCommand},
      {{"user", "list"}, withoutArguments<userListCommand>},
      {{"token", "create", "*"}, tokenCreateCommand},
      {{"token", "delete", "*"}, tokenDeleteCommand},
      {{"token", "list"}, withoutArguments<tokenListCommand>},
      {{"invite", "create", "*"}, inviteCreateCommand},
      {{"backup"}, withoutArguments<backup::backupRunCommand>},
      {{"backup", "init"}, withBackupArguments<backup::backupInitCommand>},
      {{"backup", "list"}, withoutArguments<backup::backupListCommand>},
      {{"backup", "prune"}, withBackupArguments<backup::backupPruneCommand>},
      {{"backup", "check"}, withBackupArguments<backup::backupCheckCommand>},
      {{"backup", "schedule", "*"}, withOperand<backup::backupScheduleCommand>},
      {{"restore", "*"}, withOperand<backup::restoreCommand>},
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

int runCommand(Context& ctx, const CommandArguments& args, std::ostream& out, std::ostream& err) {
  for (const auto& shape : commandShapes()) {
    if (!fits(shape, args.words)) continue;
    try {
      return shape.run(ctx, args, out, err);
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
