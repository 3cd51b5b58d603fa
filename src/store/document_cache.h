#pragma once
// Documents kept in memory between requests, checked against their files before every use.
//
// A lookup costs one `stat` of the path. The copy in memory answers only while the file's inode,
// modification and change times (nanoseconds) and size are those of the bytes that were parsed;
// anything else reads the file again. Every document write renames a fresh temporary into place
// (a new inode) and an edit in place moves the times, so a document written, edited or deleted by
// another process is seen at the very next lookup, exactly as a fresh read would see it.
//
// Thread safety: all members may be called from any thread.

#include <json/value.h>

#include <cstddef>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "store/file_stamp.h"

namespace quill::store {

class DocumentCache {
 public:
  // Holds at most `capacity` documents; past that it starts afresh (memory stays bounded whatever
  // the data directory holds).
  explicit DocumentCache(std::size_t capacity = 4096) : capacity_(capacity) {}
  DocumentCache(const DocumentCache&) = delete;
  DocumentCache& operator=(const DocumentCache&) = delete;

  // As readJsonFile: the JSON object in `path`, or nullopt when the file is missing, unreadable,
  // not a regular file, not JSON or not an object.
  std::optional<Json::Value> read(const std::filesystem::path& path);

 private:
  struct Entry {
    FileStamp stamp;
    std::shared_ptr<const Json::Value> document;  // null: the file does not parse as an object
  };
  // Reads and parses the file, stamping what was read (from the open descriptor, so the stamp
  // belongs to these very bytes).
  static std::optional<Entry> load(const std::filesystem::path& path);

  const std::size_t capacity_;
  std::mutex mutex_;
  std::unordered_map<std::string, Entry> entries_;  // by path
};

}  // namespace quill::store
