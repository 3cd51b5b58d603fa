#include "builds/build_store.h"

#include <sys/stat.h>

#include <algorithm>

#include "store/documents.h"
#include "store/utc_time.h"

namespace quill::builds {

namespace {

constexpr std::string_view kSharedStaging = store::DataDir::kSharedUploadStaging;
constexpr std::string_view kBuildStaging = store::DataDir::kBuildUploadStaging;

// The build's own documents are never read through a link.
bool isLink(const fs::path& path) {
  std::error_code ec;
  return fs::is_symlink(fs::symlink_status(path, ec));
}

// Every parsable channel document, as (channel name, document), in directory order.
std::vector<std::pair<std::string, Json::Value>> channelDocuments(const store::DataDir& data) {
  std::vector<std::pair<std::string, Json::Value>> channels;
  for (auto& [path, doc] : store::listJsonDir(data.channels())) {
    channels.emplace_back(path.stem().string(), std::move(doc));
  }
  return channels;
}

std::string pointedBuild(const Json::Value& channel) {
  const Json::Value& build = channel["build"];
  return build.isString() ? build.asString() : std::string();
}

}  // namespace

BuildPaths buildPaths(const store::DataDir& data, const std::string& id) {
  fs::path dir = data.builds() / id;
  return {dir, dir / "files", dir / "manifest.json", dir / "state.json"};
}

fs::path uploadStaging(const store::DataDir& data, const std::string& id) {
  struct stat builds {};
  struct stat build {};
  const fs::path dir = buildPaths(data, id).dir;
  if (::stat(data.builds().c_str(), &builds) == 0 && ::stat(dir.c_str(), &build) == 0 &&
      builds.st_dev != build.st_dev) {
    return dir / kBuildStaging;
  }
  return data.builds() / kSharedStaging;
}

void removeUploadLeftovers(const store::DataDir& data) {
  std::error_code ec;
  fs::remove_all(data.root() / "incoming", ec);
  fs::remove_all(data.builds() / kSharedStaging, ec);
  for (fs::directory_iterator it(data.builds(), ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code ignored;
    fs::remove_all(it->path() / kBuildStaging, ignored);
  }
}

bool hasFilesDirectory(const BuildPaths& build) {
  std::error_code ec;
  return fs::is_directory(fs::symlink_status(build.files, ec));
}

bool isFinalized(const BuildPaths& build) {
  // Any entry of that name freezes the build, a link included (which then reads as no manifest).
  std::error_code ec;
  return fs::exists(fs::symlink_status(build.manifest, ec));
}

bool isDisabled(const BuildPaths& build) {
  Json::Value state;
  if (isLink(build.state) || !store::readJsonFile(build.state, state)) return false;
  return state["disabled"].isBool() && state["disabled"].asBool();
}

std::optional<Json::Value> readManifest(const BuildPaths& build) {
  Json::Value manifest;
  if (isLink(build.manifest) || !store::readJsonFile(build.manifest, manifest)) {
    return std::nullopt;
  }
  return manifest;
}

Json::Value makeManifest(const BuildPaths& build, const std::string& id) {
  std::vector<std::pair<std::string, std::uint64_t>> entries;
  // The iterator does not descend into linked directories; symlink_status keeps linked files out.
  for (const auto& entry : fs::recursive_directory_iterator(build.files)) {
    if (!fs::is_regular_file(entry.symlink_status())) continue;
    entries.emplace_back(entry.path().lexically_relative(build.files).generic_string(),
                         entry.file_size());
  }
  std::sort(entries.begin(), entries.end());
  Json::Value files(Json::arrayValue);
  std::uint64_t total = 0;
  for (const auto& [path, size] : entries) {
    Json::Value file(Json::objectValue);
    file["path"] = path;
    file["size"] = Json::UInt64(size);
    files.append(std::move(file));
    total += size;
  }
  Json::Value manifest(Json::objectValue);
  manifest["schema_version"] = 1;
  manifest["build"] = id;
  manifest["created_at"] = store::nowUtcText();
  manifest["file_count"] = Json::UInt(entries.size());
  manifest["total_size"] = Json::UInt64(total);
  manifest["files"] = std::move(files);
  return manifest;
}

std::map<std::string, std::vector<std::string>> channelsByBuild(const store::DataDir& data) {
  std::map<std::string, std::vector<std::string>> byBuild;
  for (const auto& [name, doc] : channelDocuments(data)) {
    std::string build = pointedBuild(doc);
    if (!build.empty()) byBuild[build].push_back(name);
  }
  for (auto& [build, names] : byBuild) std::sort(names.begin(), names.end());
  return byBuild;
}

std::vector<std::string> channelsPointingAt(const store::DataDir& data, const std::string& id) {
  auto byBuild = channelsByBuild(data);
  auto found = byBuild.find(id);
  return found == byBuild.end() ? std::vector<std::string>() : found->second;
}

}  // namespace quill::builds
