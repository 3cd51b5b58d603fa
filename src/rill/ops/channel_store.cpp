#include "rill/ops/channel_store.h"

#include <unordered_set>

namespace quill::rill {

namespace {

constexpr std::string_view kManifestSuffix = "/manifest.json";

}  // namespace

Result<bool> deleteChannelBuild(StorageProvider& store, const std::string& channel) {
  for (const std::string& key : {manifestKey(channel), signatureKey(channel)}) {
    const auto removed = store.remove(key);
    if (!removed) return removed.failure().prefixed("DELETE failed: ");
  }
  return true;
}

Result<std::vector<Manifest>> readChannelManifests(StorageProvider& store) {
  const auto entries = store.list("channels/");
  if (!entries) return entries.failure().prefixed("LIST failed: ");
  std::vector<Manifest> manifests;
  for (const ObjectEntry& entry : entries.value()) {
    const std::string& key = entry.key;
    if (key.size() <= kManifestSuffix.size() || !key.ends_with(kManifestSuffix)) continue;
    const auto body = store.get(key);
    if (!body) return body.failure().prefixed("GET failed: ");
    auto manifest = parseManifest(body.value());
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
  const auto entries = store.list("chunks/");
  if (!entries) return entries.failure().prefixed("LIST failed: ");
  SweepReport report;
  for (const ObjectEntry& entry : entries.value()) {
    if (wanted.contains(entry.key)) {
      ++report.kept;
      continue;
    }
    if (!dryRun) {
      const auto removed = store.remove(entry.key);
      if (!removed) return removed.failure().prefixed("DELETE failed: ");
    }
    ++report.removed;
    if (entry.size > 0) report.removedBytes += static_cast<std::uint64_t>(entry.size);
  }
  return report;
}

}  // namespace quill::rill
