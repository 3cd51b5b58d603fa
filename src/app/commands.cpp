#include "app/commands.h"

#include <cstdio>
#include <functional>

namespace quill {

namespace {

struct CommandShape {
  std::vector<std::string> words;  // fixed words; "*" takes any one word
  const char* name;
};

// Every subcommand, by the exact shape of its words.
const std::vector<CommandShape>& commandShapes() {
  static const std::vector<CommandShape> shapes = {
      {{"user", "create", "*"}, "user create"},  {{"user", "list"}, "user list"},
      {{"token", "create", "*"}, "token create"}, {{"token", "delete", "*"}, "token delete"},
      {{"token", "list"}, "token list"},         {{"invite", "create", "*"}, "invite create"},
      {{"backup"}, "backup"},                    {{"backup", "init"}, "backup init"},
      {{"backup", "list"}, "backup list"},       {{"backup", "prune"}, "backup prune"},
      {{"backup", "schedule", "*"}, "backup schedule"}, {{"restore", "*"}, "restore"},
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

int runCommand(Context& ctx) {
  for (const auto& shape : commandShapes()) {
    if (!fits(shape, ctx.settings.words)) continue;
    std::fprintf(stderr, "%s: not implemented in this version\n", shape.name);
    return 1;
  }
  std::fputs("unknown command\n", stderr);
  return 1;
}

}  // namespace quill
