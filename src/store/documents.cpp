#include "store/documents.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <system_error>

#include "base/durable_file.h"
#include "base/json_reader.h"
#include "base/unique_fd.h"
#include "store/durable_file.h"

namespace quill::store {

namespace {

// A listed entry counts when it is a regular file (after following links) named "*.json".
// An entry that vanished since the directory was read is skipped: concurrent deletes are normal.
bool isJsonRecordFile(const fs::directory_entry& entry) {
  if (entry.path().extension() != ".json") return false;
  std::error_code ec;
  const bool regular = entry.is_regular_file(ec);
  if (!ec) return regular;
  if (ec == std::errc::no_such_file_or_directory) return false;
  throw fs::filesystem_error("directory_entry::status", entry.path(), ec);
}

}  // namespace

bool readJsonFile(const fs::path& path, Json::Value& out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  // istream::read turns a read error (such as EISDIR for a directory named "*.json") into badbit
  // instead of letting the buffer's exception escape.
  std::string text;
  char buffer[8192];
  while (in.read(buffer, sizeof buffer) || in.gcount() > 0) text.append(buffer, in.gcount());
  if (in.bad()) return false;

  // Parse aside so a failed read leaves the caller's value untouched.
  auto parsed = base::parseJsonObject(text);
  if (!parsed) return false;
  out = std::move(*parsed);
  return true;
}

base::Result<bool> writeFileAtomic(const fs::path& path, std::string_view bytes,
                                   FileAccess access) {
  // Record directories come into being with their first record; if this fails, the open fails.
  makeDirectories(path.parent_path());
  const fs::path parent = path.parent_path().empty() ? fs::path(".") : path.parent_path();
  const base::UniqueFd dir(::open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!dir) {
    const int cause = errno;
    return base::Failure::fromErrno("cannot open " + parent.string() + ": " + std::strerror(cause),
                                    cause);
  }
  // A temporary of this write's own: concurrent writers of one document (threads, or an offline
  // command beside the server) never write into each other's file.
  const mode_t mode = access == FileAccess::kOwnerOnly ? 0600 : 0666;
  return base::replaceFileAt(dir.get(), path.filename().string(),
                             temporaryBeside(path).filename().string(), bytes, mode);
}

std::string toStyledJson(const Json::Value& value) { return value.toStyledString(); }

base::Result<bool> writeJsonFile(const fs::path& path, const Json::Value& value,
                                 FileAccess access) {
  return writeFileAtomic(path, toStyledJson(value), access);
}

std::vector<std::pair<fs::path, Json::Value>> listJsonDir(const fs::path& dir) {
  std::vector<std::pair<fs::path, Json::Value>> records;
  std::error_code ec;
  fs::directory_iterator it(dir, ec);
  // A record directory that no write has created yet simply holds no records.
  if (ec == std::errc::no_such_file_or_directory) return records;
  if (ec) throw fs::filesystem_error("directory_iterator::directory_iterator", dir, ec);

  for (const fs::directory_iterator end; it != end;) {
    if (isJsonRecordFile(*it)) {
      Json::Value value;
      if (readJsonFile(it->path(), value)) records.emplace_back(it->path(), std::move(value));
    }
    it.increment(ec);
    if (ec) throw fs::filesystem_error("directory_iterator::operator++", dir, ec);
  }
  return records;
}

bool removeFile(const fs::path& path) {
  std::error_code ec;
  const bool removed = fs::remove(path, ec);
  return removed && !ec;
}

}  // namespace quill::store
