#include "rill/sync_descriptor.h"

#include <json/reader.h>

#include <memory>

#include "rill/storage_provider.h"

namespace quill::rill {

Json::Value buildSyncDescriptor(const S3Client& bucket, const std::string& channel,
                                const Manifest& manifest, std::int64_t ttlSeconds) {
  const auto now = std::chrono::system_clock::now();
  const std::string key = manifestKey(channel);
  Json::Value out(Json::objectValue);
  out["manifest_url"] = bucket.presignGet(key, ttlSeconds, now);
  out["manifest_sig_url"] = bucket.presignGet(key + ".sig", ttlSeconds, now);
  out["build"] = manifest.build;
  out["created"] = manifest.created;
  out["channel"] = manifest.channel;
  Json::Value& chunks = out["chunks"] = Json::Value(Json::objectValue);
  for (const ScannedFile& file : manifest.tree.files) {
    for (const ChunkRef& chunk : file.chunks) {
      if (chunks.isMember(chunk.h)) continue;
      chunks[chunk.h] = bucket.presignGet(defaultChunkKey(chunk.h), ttlSeconds, now);
    }
  }
  return out;
}

Result<PresignedLinks> parseSyncDescriptor(std::string_view text) {
  Json::CharReaderBuilder builder;
  const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  Json::Value root;
  std::string errors;
  if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors) || !root.isObject()) {
    return Failure{"sync descriptor: not a JSON object"};
  }
  if (!root["manifest_url"].isString() || !root["chunks"].isObject()) {
    return Failure{"sync descriptor: manifest_url and chunks required"};
  }
  PresignedLinks links;
  links.manifestUrl = root["manifest_url"].asString();
  if (root["manifest_sig_url"].isString()) links.signatureUrl = root["manifest_sig_url"].asString();
  for (const std::string& id : root["chunks"].getMemberNames()) {
    if (!root["chunks"][id].isString())
      return Failure{"sync descriptor: chunk links must be strings"};
    links.chunks[id] = root["chunks"][id].asString();
  }
  return links;
}

}  // namespace quill::rill
