#pragma once
// The file-by-file build store: `builds/<id>/files/...` filled by uploads, frozen by
// `manifest.json` at finalize, with the disabled flag in `state.json`.

#include <json/value.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "store/data_dir.h"

namespace quill::builds {

namespace fs = std::filesystem;

struct BuildPaths {
  fs::path dir;       // builds/<id>
  fs::path files;     // builds/<id>/files
  fs::path manifest;  // builds/<id>/manifest.json
  fs::path state;     // builds/<id>/state.json
};

// `id` must have passed the name rule.
BuildPaths buildPaths(const store::DataDir& data, const std::string& id);

// The directory an upload to build `id` is written into while it arrives: on the file system of
// the build (so the finished file is renamed into place, never copied) and outside every `files/`
// (so finalize never sees a partial upload). That is `builds/~incoming` (a name no build id can
// take), unless `builds/<id>` exists on another file system than `builds/`: then
// `builds/<id>/incoming`. An upload to a new build creates no build directory before it is whole.
fs::path uploadStaging(const store::DataDir& data, const std::string& id);

// Removes what uploads cut short by a crash left in the staging directories (and in the data
// directory's old `incoming/`). Only for start-up: it would break uploads in progress.
void removeUploadLeftovers(const store::DataDir& data);

// Whether `manifest.json` exists (as any entry: a link there freezes the build too).
bool isFinalized(const BuildPaths& build);
// Whether `files/` is a directory of its own (not a link).
bool hasFilesDirectory(const BuildPaths& build);
// A missing or unreadable state document means "not disabled". Neither document is read through a
// link.
bool isDisabled(const BuildPaths& build);
std::optional<Json::Value> readManifest(const BuildPaths& build);

// Walks `files/` into a manifest document, paths sorted by byte order. Lists regular files only:
// links are neither listed nor followed. Requires hasFilesDirectory. Throws fs::filesystem_error if
// the walk fails.
Json::Value makeManifest(const BuildPaths& build, const std::string& id);

// Channel names per build id, each list sorted, from one read of the channel documents.
std::map<std::string, std::vector<std::string>> channelsByBuild(const store::DataDir& data);
// The sorted names of the channels currently pointing at `id`.
std::vector<std::string> channelsPointingAt(const store::DataDir& data, const std::string& id);

}  // namespace quill::builds
