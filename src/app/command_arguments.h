#pragma once
// What the offline commands take from the command line, beside the data directory.

#include <cstdint>
#include <string>
#include <vector>

#include "backup/backup_commands.h"

namespace quill {

struct CommandArguments {
  std::vector<std::string> words;  // positional words, in order: the command and its operand
  std::string user;                // owner for `token create`
  std::string role = "member";     // for `user create`
  std::string channels;            // comma-separated, for `user create`
  bool service = false;
  bool replace = false;
  std::int32_t days = -1;  // -1: not given
  std::int32_t hours = -1;
  backup::BackupArguments backup;
};

}  // namespace quill
