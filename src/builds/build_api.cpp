#include "builds/build_api.h"

#include <algorithm>
#include <fstream>

#include "builds/build_files.h"
#include "builds/build_store.h"
#include "builds/content_type.h"
#include "http/file_answer.h"
#include "store/documents.h"
#include "store/durable_file.h"
#include "store/names.h"
#include "store/random.h"

namespace quill::builds {

namespace {

namespace text {
constexpr const char* kRillOnly = "this server is Rill-only: Barge uploads are not accepted";
constexpr const char* kBadId = "invalid build id";
constexpr const char* kBadPath = "missing or invalid ?path= parameter";
constexpr const char* kImmutable = "build is finalized and immutable";
constexpr const char* kStoreFailed = "could not store file";
constexpr const char* kAlreadyFinalized = "build already finalized";
constexpr const char* kNoFiles = "build has no files";
constexpr const char* kManifestFailed = "could not write manifest";
constexpr const char* kNotFound = "build not found";
constexpr const char* kFileNotFound = "file not found";
constexpr const char* kStateFailed = "could not update build state";
constexpr const char* kDeleteFailed = "could not delete build";
}  // namespace text

constexpr std::size_t kUploadNameLength = 16;

// The `path` query parameter when present and safe, else nullopt.
std::optional<std::string> safePath(const Request& req) {
  auto path = req.param("path");
  if (!path || !store::isSafeRelativePath(*path)) return std::nullopt;
  return std::string(*path);
}

std::string joinedNames(const std::vector<std::string>& names) {
  std::string text;
  for (const auto& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

Json::Value stringArray(const std::vector<std::string>& items) {
  Json::Value array(Json::arrayValue);
  for (const auto& item : items) array.append(item);
  return array;
}

// A fresh name for one upload's body while it arrives.
fs::path stagingFile(const store::DataDir& data, const std::string& id) {
  return uploadStaging(data, id) / (store::randomString(kUploadNameLength) + ".tmp");
}

// A body held in memory (an empty one, or an in-process caller) written to a staging file of its
// own, so that every upload is placed the same way. Empty path on failure.
fs::path stageBody(const store::DataDir& data, const std::string& id, std::string_view body) {
  const fs::path file = stagingFile(data, id);
  if (!store::makeDirectories(file.parent_path())) return {};
  std::ofstream out(file, std::ios::binary);
  out.write(body.data(), static_cast<std::streamsize>(body.size()));
  out.close();
  if (out) return file;
  std::error_code ec;
  fs::remove(file, ec);
  return {};
}

// Puts the uploaded bytes at `path` in the build unless it was finalized meanwhile. The finalize
// lock makes the check and the rename one step for finalize: an upload either lands before the
// manifest is written (and is listed in it) or is refused.
std::optional<Response> placeUpload(const Request& req, Context& ctx, const std::string& path) {
  const std::string& id = req.segment();
  const BuildPaths build = buildPaths(ctx.data, id);
  fs::path source = req.bodyFile;
  if (source.empty()) source = stageBody(ctx.data, id, req.body);
  if (source.empty()) return http::errorResponse(500, text::kStoreFailed);
  std::optional<Response> refusal;
  {
    auto guard = ctx.buildLocks.lock(id);
    if (isFinalized(build)) {
      refusal = http::errorResponse(409, text::kImmutable);
    } else if (!placeBuildFile(build.dir, path, source)) {
      refusal = http::errorResponse(500, text::kStoreFailed);
    }
  }
  // A streamed body left behind is the server's to remove; one staged here is ours.
  std::error_code ec;
  if (refusal && req.bodyFile.empty()) fs::remove(source, ec);
  return refusal;
}

}  // namespace

std::optional<Response> uploadCheck(const Request& req, Context& ctx) {
  if (ctx.settings.rillOnly) return http::errorResponse(403, text::kRillOnly);
  const std::string& id = req.segment();
  if (!store::isValidName(id)) return http::errorResponse(400, text::kBadId);
  if (!safePath(req)) return http::errorResponse(400, text::kBadPath);
  if (isFinalized(buildPaths(ctx.data, id))) return http::errorResponse(409, text::kImmutable);
  return std::nullopt;
}

std::filesystem::path uploadBodyFile(const Request& req, Context& ctx) {
  return stagingFile(ctx.data, req.segment());
}

Response uploadFile(const Request& req, Context& ctx) {
  if (auto refusal = uploadCheck(req, ctx)) return *refusal;
  if (req.bodyLost) return http::errorResponse(500, text::kStoreFailed);
  const std::string& id = req.segment();
  const std::string path = *safePath(req);
  std::error_code ec;
  const std::uint64_t size =
      req.bodyFile.empty() ? req.body.size() : fs::file_size(req.bodyFile, ec);
  if (ec) return http::errorResponse(500, text::kStoreFailed);
  if (auto refusal = placeUpload(req, ctx, path)) return *refusal;
  Json::Value receipt(Json::objectValue);
  receipt["build"] = id;
  receipt["path"] = path;
  receipt["size"] = Json::UInt64(size);
  return http::jsonResponse(receipt);
}

Response finalizeBuild(const Request& req, Context& ctx) {
  const std::string& id = req.segment();
  if (!store::isValidName(id)) return http::errorResponse(400, text::kBadId);
  const BuildPaths build = buildPaths(ctx.data, id);
  // Held until the manifest is written: no upload lands between the walk and the manifest.
  auto guard = ctx.buildLocks.lock(id);
  if (isFinalized(build)) return http::errorResponse(409, text::kAlreadyFinalized);
  if (!hasFilesDirectory(build)) return http::errorResponse(404, text::kNoFiles);
  Json::Value manifest = makeManifest(build, id);
  if (!store::writeJsonFile(build.manifest, manifest)) {
    return http::errorResponse(500, text::kManifestFailed);
  }
  return http::jsonResponse(manifest);
}

Response readBuild(const Request& req, Context& ctx) {
  const std::string& id = req.segment();
  if (!store::isValidName(id)) return http::errorResponse(400, text::kBadId);
  const BuildPaths build = buildPaths(ctx.data, id);
  auto manifest = readManifest(build);
  if (!manifest) return http::errorResponse(404, text::kNotFound);
  (*manifest)["disabled"] = isDisabled(build);
  (*manifest)["channels"] = stringArray(channelsPointingAt(ctx.data, id));
  return http::jsonResponse(*manifest);
}

Response downloadFile(const Request& req, Context& ctx) {
  const std::string& id = req.segment();
  if (!store::isValidName(id)) return http::errorResponse(400, text::kBadId);
  auto path = safePath(req);
  if (!path) return http::errorResponse(400, text::kBadPath);
  const BuildPaths build = buildPaths(ctx.data, id);
  const bool finalized = isFinalized(build);
  const int fd = openBuildFile(build.dir, *path);
  if (fd < 0) return http::errorResponse(404, text::kFileNotFound);
  const std::string name = fs::path(*path).filename().string();
  auto whole = http::Response::fromOpenFile(fd, contentTypeFor(name))
                   .withHeader("Content-Disposition", attachmentDisposition(name));
  return http::answerFile(req, std::move(whole), buildFileFacts(fd, finalized));
}

Response setBuildDisabled(const Request& req, Context& ctx) {
  const std::string& id = req.segment();
  if (!store::isValidName(id)) return http::errorResponse(400, text::kBadId);
  const BuildPaths build = buildPaths(ctx.data, id);
  if (!isFinalized(build)) return http::errorResponse(404, text::kNotFound);
  const bool disabled = req.param("value").value_or("true") != "false";
  Json::Value state(Json::objectValue);
  state["schema_version"] = 1;
  state["disabled"] = disabled;
  if (!store::writeJsonFile(build.state, state))
    return http::errorResponse(500, text::kStateFailed);
  Json::Value doc(Json::objectValue);
  doc["build"] = id;
  doc["disabled"] = disabled;
  return http::jsonResponse(doc);
}

Response deleteBuild(const Request& req, Context& ctx) {
  const std::string& id = req.segment();
  if (!store::isValidName(id)) return http::errorResponse(400, text::kBadId);
  const BuildPaths build = buildPaths(ctx.data, id);
  std::error_code ec;
  if (!fs::is_directory(build.dir, ec)) return http::errorResponse(404, text::kNotFound);
  auto channels = channelsPointingAt(ctx.data, id);
  if (!channels.empty()) {
    return http::errorResponse(409, "build is still on channel(s): " + joinedNames(channels) +
                                        " - promote them away first");
  }
  fs::remove_all(build.dir, ec);
  if (ec) return http::errorResponse(500, text::kDeleteFailed);
  Json::Value doc(Json::objectValue);
  doc["deleted"] = id;
  return http::jsonResponse(doc);
}

Response listBuilds(const Request&, Context& ctx) {
  std::vector<std::string> names;
  std::error_code ec;
  for (fs::directory_iterator it(ctx.data.builds(), ec), end; !ec && it != end; it.increment(ec)) {
    std::error_code statusError;
    if (it->is_directory(statusError)) names.push_back(it->path().filename().string());
  }
  std::sort(names.begin(), names.end());
  // One read of the channel documents serves every build of the listing.
  const auto byBuild = channelsByBuild(ctx.data);
  Json::Value summaries(Json::arrayValue);
  for (const auto& name : names) {
    const BuildPaths build = buildPaths(ctx.data, name);
    auto manifest = readManifest(build);
    if (!manifest) continue;
    Json::Value summary(Json::objectValue);
    summary["build"] = name;
    for (const char* member : {"created_at", "file_count", "total_size"}) {
      summary[member] = (*manifest)[member];
    }
    summary["disabled"] = isDisabled(build);
    auto channels = byBuild.find(name);
    summary["channels"] =
        stringArray(channels == byBuild.end() ? std::vector<std::string>() : channels->second);
    summaries.append(std::move(summary));
  }
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["builds"] = std::move(summaries);
  return http::jsonResponse(doc);
}

}  // namespace quill::builds
