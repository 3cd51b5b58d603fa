#pragma once
// The data directory's side of a write that survives a power cut (the flushes and the rename are
// base/durable_file.h): a temporary name of its own beside the target, and directories created
// durably.

#include <filesystem>
#include <string_view>

namespace quill::store {

namespace fs = std::filesystem;

// A fresh name in `target`'s directory: "<target name>.<random>.tmp". No two writers (threads or
// processes) draw the same one, and listings skip it by its extension.
fs::path temporaryBeside(const fs::path& target);

// Whether `fileName` has the form temporaryBeside gives: "<name>.<random>.tmp".
bool isTemporaryName(std::string_view fileName);

// Creates `dir` and its missing ancestors, flushing each parent that gained an entry. True when
// `dir` is a directory afterwards (an empty `dir` is the current one).
bool makeDirectories(const fs::path& dir);

}  // namespace quill::store
