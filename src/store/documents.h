#pragma once
// JSON documents in the data directory: one object per file, read whole, written whole through a
// temporary file of its own and a rename, so a reader sees either the old document or the new
// one, and an acknowledged write survives a power cut.
//
// Thread safety: no locks. Concurrent read-modify-write of one document is last-writer-wins;
// only the replacement of the whole file is atomic.

#include <json/value.h>

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/result.h"

namespace quill::store {

namespace fs = std::filesystem;

// Parses the whole file into `out`. Returns false when the file is missing, unreadable, not valid
// JSON or not a JSON object (every document is one object); callers treat that as "absent".
bool readJsonFile(const fs::path& path, Json::Value& out);

// Writes `bytes` to a temporary file of its own beside `path` ("<name>.<random>.tmp", creating
// missing parent directories), flushes it to the disk, renames it onto `path` and flushes the
// directory. Succeeds only when all of that succeeded: the document then survives a power cut. A
// failed write removes its temporary, leaves the old document in place and keeps the errno of the
// step that failed. Safe to call from several threads and processes for one `path` at once: each
// reader sees one whole document.
// Files holding secrets are written `kOwnerOnly` (mode 0600 from their first byte on).
enum class FileAccess { kShared, kOwnerOnly };
base::Result<bool> writeFileAtomic(const fs::path& path, std::string_view bytes,
                                   FileAccess access = FileAccess::kShared);

// The styled (multi-line, indented, keys in ascending order) form of `value`, newline-terminated.
std::string toStyledJson(const Json::Value& value);

// writeFileAtomic of toStyledJson(value).
base::Result<bool> writeJsonFile(const fs::path& path, const Json::Value& value,
                                 FileAccess access = FileAccess::kShared);

// Every regular "*.json" file directly in `dir` that reads as a document, in directory order
// (unsorted).
// A missing directory lists as empty. Files that fail to parse, ".tmp" leftovers and
// subdirectories are skipped. Throws fs::filesystem_error only if iterating itself fails.
std::vector<std::pair<fs::path, Json::Value>> listJsonDir(const fs::path& dir);

// Deletes one file. Returns true if it existed and was removed.
bool removeFile(const fs::path& path);

}  // namespace quill::store
