#pragma once
// The data directory: where every document lives, and the fixed names of its parts.

#include <filesystem>
#include <string>

namespace quill::store {

namespace fs = std::filesystem;

// The default location: "%LOCALAPPDATA%/Quillmoor/quillmoord-data" when LOCALAPPDATA is set and
// non-empty, otherwise the relative path "quillmoord-data".
fs::path defaultDataDir();

class DataDir {
 public:
  // `root` is made absolute (against the current directory); it need not exist yet.
  explicit DataDir(const fs::path& root);

  const fs::path& root() const { return root_; }
  fs::path users() const { return root_ / "users"; }
  fs::path tokens() const { return root_ / "tokens"; }
  fs::path channels() const { return root_ / "channels"; }
  fs::path groups() const { return root_ / "groups"; }
  fs::path invites() const { return root_ / "invites"; }
  fs::path accessRequests() const { return root_ / "access-requests"; }
  fs::path builds() const { return root_ / "builds"; }

  // `<dir>/<name>.json` for a record named `name` (which must have passed isValidName).
  static fs::path recordPath(const fs::path& dir, const std::string& name) {
    return dir / (name + ".json");
  }

  // Creates the directory and its seven record subdirectories where missing. Returns false and
  // sets `error` when one cannot be created.
  bool prepare(std::string& error) const;

 private:
  fs::path root_;
};

}  // namespace quill::store
