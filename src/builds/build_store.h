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

// Where upload bodies are streamed while they arrive: on the same file system as the builds, but
// outside every build, so an upload cut short neither creates a build nor reaches a manifest.
fs::path incomingUploads(const store::DataDir& data);

bool isFinalized(const BuildPaths& build);
// A missing or unreadable state document means "not disabled".
bool isDisabled(const BuildPaths& build);
std::optional<Json::Value> readManifest(const BuildPaths& build);

// Walks `files/` (regular files only) into a manifest document, paths sorted by byte order.
// Throws fs::filesystem_error if the walk fails.
Json::Value makeManifest(const BuildPaths& build, const std::string& id);

// Channel names per build id, each list sorted, from one read of the channel documents.
std::map<std::string, std::vector<std::string>> channelsByBuild(const store::DataDir& data);
// The sorted names of the channels currently pointing at `id`.
std::vector<std::string> channelsPointingAt(const store::DataDir& data, const std::string& id);

}  // namespace quill::builds
