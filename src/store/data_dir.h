#pragma once
// The data directory: where every document lives, and the fixed names of its parts.

#include <filesystem>
#include <string>
#include <string_view>

#include "base/result.h"

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

  // Creates the directory and its seven record subdirectories where missing. Fails with "cannot
  // create directory <dir>: <reason>" (and its errno) when one cannot be created.
  base::Result<bool> prepare() const;

  // Removes what document writes cut short by a crash left behind: temporaries of the document
  // writer's form (see store/durable_file.h) directly in the root and in the record directories,
  // last changed before `startedAt`. Build files are never looked at. Only for start-up.
  void removeDocumentLeftovers(fs::file_time_type startedAt) const;

  // Where uploads are written while they arrive: `builds/~incoming` (a name no build id can take),
  // or `builds/<id>/incoming` for a build kept on another file system.
  static constexpr std::string_view kSharedUploadStaging = "~incoming";
  static constexpr std::string_view kBuildUploadStaging = "incoming";

  // Whether the entry at `relative` (below the root, forward slashes) holds only work in progress
  // that no document names: an upload staging directory (and the root's `incoming/` of older
  // versions), or a document temporary outside the build files (`builds/<id>/files/`, whose names
  // are the uploaders' to choose).
  static bool isWorkInProgress(std::string_view relative, bool directory);

  // Whether `relative` may be a symbolic link to another volume that the server serves as the
  // directory itself: `builds` and `builds/<id>`.
  static bool isVolumeLink(std::string_view relative);

 private:
  fs::path root_;
};

}  // namespace quill::store
