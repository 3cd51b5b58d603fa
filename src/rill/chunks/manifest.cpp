#include "rill/chunks/manifest.h"

#include <json/value.h>
#include <json/writer.h>

#include <optional>
#include <sstream>
#include <unordered_set>

#include "base/json_reader.h"
#include "rill/chunks/chunk_id.h"

namespace quill::rill {

namespace {

Json::Value toJson(const Manifest& m) {
  Json::Value root(Json::objectValue);
  root["schema"] = kManifestSchema;
  Json::Value& chunker = root["chunker"];
  chunker["algo"] = kChunkerAlgo;
  chunker["min"] = Json::UInt64(m.chunker.min);
  chunker["avg"] = Json::UInt64(m.chunker.avg);
  chunker["max"] = Json::UInt64(m.chunker.max);
  root["channel"] = m.channel;
  root["build"] = m.build;
  root["created"] = m.created;
  Json::Value& files = root["files"] = Json::Value(Json::arrayValue);
  for (const ScannedFile& file : m.tree.files) {
    Json::Value entry(Json::objectValue);
    entry["path"] = file.path;
    entry["size"] = Json::UInt64(file.size);
    Json::Value& chunks = entry["chunks"] = Json::Value(Json::arrayValue);
    for (const ChunkRef& chunk : file.chunks) {
      Json::Value ref(Json::objectValue);
      ref["h"] = chunk.h;
      ref["n"] = Json::UInt64(chunk.n);
      chunks.append(std::move(ref));
    }
    files.append(std::move(entry));
  }
  Json::Value& stats = root["stats"];
  stats["files"] = Json::UInt64(m.tree.stats.files);
  stats["unique_chunks"] = Json::UInt64(m.tree.stats.unique_chunks);
  stats["total_bytes"] = Json::UInt64(m.tree.stats.total_bytes);
  stats["unique_bytes"] = Json::UInt64(m.tree.stats.unique_bytes);
  return root;
}

Failure parseError(const std::string& reason) { return Failure{"manifest parse error: " + reason}; }

// `object[name]` as an unsigned integer, or nothing.
bool readCount(const Json::Value& object, const char* name, std::uint64_t& out) {
  const Json::Value& v = object[name];
  if (!v.isUInt64()) return false;
  out = v.asUInt64();
  return true;
}

bool readText(const Json::Value& object, const char* name, std::string& out) {
  const Json::Value& v = object[name];
  if (!v.isString()) return false;
  out = v.asString();
  return true;
}

Result<ScannedFile> readFile(const Json::Value& entry, std::size_t index,
                             const ChunkerParams& chunker) {
  const std::string where = "files[" + std::to_string(index) + "]";
  ScannedFile file;
  if (!entry.isObject() || !readText(entry, "path", file.path) ||
      !readCount(entry, "size", file.size) || !entry["chunks"].isArray()) {
    return parseError(where + " needs path, size and chunks");
  }
  std::uint64_t covered = 0;
  for (const Json::Value& ref : entry["chunks"]) {
    ChunkRef chunk;
    if (!ref.isObject() || !readText(ref, "h", chunk.h) || !readCount(ref, "n", chunk.n) ||
        !isChunkId(chunk.h) || chunk.n == 0) {
      return parseError(where + " has a malformed chunk");
    }
    if (chunk.n > chunker.max) return parseError(where + " has a chunk longer than the chunker's max");
    covered += chunk.n;
    file.chunks.push_back(std::move(chunk));
  }
  if (covered != file.size) return parseError(where + " chunks do not add up to its size");
  return file;
}

// A path named twice, or named both as a file and as a directory of another file: no tree holds
// both, and a pull would have to drop one of them.
std::optional<std::string> pathClash(const std::vector<ScannedFile>& files) {
  std::unordered_set<std::string_view> paths;
  for (const ScannedFile& file : files) {
    if (!paths.insert(file.path).second) return "path " + file.path + " is named twice";
  }
  for (const ScannedFile& file : files) {
    for (std::size_t slash = file.path.find('/'); slash != std::string::npos;
         slash = file.path.find('/', slash + 1)) {
      const std::string_view directory = std::string_view(file.path).substr(0, slash);
      if (paths.contains(directory)) {
        return "path " + std::string(directory) + " is both a file and a directory";
      }
    }
  }
  return std::nullopt;
}

}  // namespace

std::string manifestKey(std::string_view channel) {
  return "channels/" + std::string(channel) + "/manifest.json";
}

std::string signatureKey(std::string_view channel) { return manifestKey(channel) + ".sig"; }

std::string serializeManifest(const Manifest& manifest) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, toJson(manifest)) + "\n";
}

Result<Manifest> parseManifest(std::string_view text) {
  std::string reason;
  const auto parsed = base::parseJsonObject(text, &reason, {.maxBytes = kMaxManifestBytes});
  if (!parsed) return parseError(reason);
  const Json::Value& root = *parsed;
  if (!root["schema"].isInt() || root["schema"].asInt() != kManifestSchema) {
    return Failure{"unsupported manifest schema"};
  }
  Manifest m;
  const Json::Value& chunker = root["chunker"];
  if (!chunker.isObject() || !readCount(chunker, "min", m.chunker.min) ||
      !readCount(chunker, "avg", m.chunker.avg) || !readCount(chunker, "max", m.chunker.max)) {
    return parseError("chunker needs min, avg and max");
  }
  if (auto bad = checkChunkerParams(m.chunker)) return parseError("chunker: " + *bad);
  if (m.chunker.min < kMinChunkerSize || m.chunker.max > kMaxChunkerSize) {
    return parseError("chunker: sizes must lie between " + std::to_string(kMinChunkerSize) +
                      " and " + std::to_string(kMaxChunkerSize) + " bytes");
  }
  if (!readText(root, "channel", m.channel) || !readText(root, "build", m.build) ||
      !readText(root, "created", m.created)) {
    return parseError("channel, build and created must be strings");
  }
  if (!root["files"].isArray()) return parseError("files must be an array");
  std::unordered_set<std::string> seen;
  for (Json::ArrayIndex i = 0; i < root["files"].size(); ++i) {
    auto file = readFile(root["files"][i], i, m.chunker);
    if (!file) return Failure{file.error()};
    for (const ChunkRef& chunk : file.value().chunks) {
      if (seen.insert(chunk.h).second) {
        ++m.tree.stats.unique_chunks;
        m.tree.stats.unique_bytes += chunk.n;
      }
    }
    ++m.tree.stats.files;
    m.tree.stats.total_bytes += file.value().size;
    m.tree.files.push_back(std::move(file).value());
  }
  if (auto clash = pathClash(m.tree.files)) return parseError(*clash);
  return m;
}

bool isSafeManifestPath(std::string_view path) {
  if (path.empty() || path.front() == '/' || path.find('\\') != std::string_view::npos ||
      path.find('\0') != std::string_view::npos || (path.size() >= 2 && path[1] == ':')) {
    return false;
  }
  std::size_t start = 0;
  while (start <= path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string_view segment = path.substr(start, end - start);
    if (segment.empty() || segment == "." || segment == "..") return false;
    start = end + 1;
  }
  return true;
}

Result<bool> checkManifestChannel(const Manifest& manifest, std::string_view requested) {
  if (manifest.channel == requested) return true;
  return Failure{"manifest is for channel '" + manifest.channel + "', not '" +
                 std::string(requested) + "'"};
}

}  // namespace quill::rill
