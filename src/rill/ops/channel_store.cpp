#include "rill/ops/channel_store.h"

#include <unordered_set>

namespace quill::rill {

namespace {

constexpr std::string_view kManifestSuffix = "/manifest.json";

}  // namespace

Result<bool> deleteChannelBuild(StorageProvider& store, const std::string& channel) {
  std::string error;
  for (const std::string& key : {manifestKey(channel), signatureKey(channel)}) {
    if (!store.remove(key, &error)) return Failure{"DELETE failed: " + error};
  }
  return true;
}

Result<std::vector<Manifest>> readChannelManifests(StorageProvider& store) {
  std::string error;
  const auto entries = store.list("channels/", &error);
  if (!entries) return Failure{"LIST failed: " + error};
  std::vector<Manifest> manifests;
  for (const ObjectEntry& entry : *entries) {
    const std::string& key = entry.key;
    if (key.size() <= kManifestSuffix.size() || !key.ends_with(kManifestSuffix)) continue;
    std::string body;
    if (!store.get(key, body, &error)) return Failure{"GET failed: " + error};
    auto manifest = parseManifest(body);
    if (!manifest) return Failure{key + ": " + manifest.error()};
    manifests.push_back(std::move(manifest).value());
  }
  return manifests;
}

Result<SweepReport> sweepChunks(StorageProvider& store, const std::vector<Manifest>& live,
                                bool dryRun) {
  std::unordered_set<std::string> wanted;
  for (const Manifest& manifest : live) {
    for (const ScannedFile& file : manifest.tree.files) {
      for (const ChunkRef& chunk : file.chunks) wanted.insert(store.chunkKey(chunk.h));
    }
  }
  std::string error;
  const auto entries = store.list("chunks/", &error);
  if (!entries) return Failure{"LIST failed: " + error};
  SweepReport report;
  for (const ObjectEntry& entry : *entries) {
    if (wanted.contains(entry.key)) {
      ++report.kept;
      continue;
    }
    if (!dryRun && !store.remove(entry.key, &error)) return Failure{"DELETE failed: " + error};
    ++report.removed;
    if (entry.size > 0) report.removedBytes += static_cast<std::uint64_t>(entry.size);
  }
  return report;
}

}  // namespace quill::rill
