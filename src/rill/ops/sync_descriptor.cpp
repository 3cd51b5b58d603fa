#include "rill/ops/sync_descriptor.h"

#include <json/writer.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <vector>

#include "base/json_reader.h"
#include "rill/providers/storage_provider.h"

namespace quill::rill {

namespace {

// A JSON string as the indented writer writes it. Links and chunk ids are plain ASCII and are
// quoted here; anything else goes through the JSON writer itself, so that every string is escaped
// one way.
std::string jsonString(std::string_view text) {
  const bool plain = std::all_of(text.begin(), text.end(), [](char c) {
    return c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
  });
  if (plain) {
    std::string out;
    out.reserve(text.size() + 2);
    out.append(1, '"').append(text).append(1, '"');
    return out;
  }
  Json::StreamWriterBuilder builder;
  builder["emitUTF8"] = true;
  return Json::writeString(builder, Json::Value(std::string(text)));
}

// Counts what goes out and stops at the bound.
class BoundedOutput {
 public:
  BoundedOutput(const TextSink& out, std::uint64_t maxBytes) : out_(out), maxBytes_(maxBytes) {}

  bool put(std::string_view text) {
    if (failure_) return false;
    if (text.size() > maxBytes_ - written_) {
      failure_ = "sync descriptor larger than " + std::to_string(maxBytes_) + " bytes";
      return false;
    }
    written_ += text.size();
    if (!out_(text)) failure_ = "cannot write sync descriptor";
    return !failure_;
  }

  // One line of an object: `"name" : "value"`, indented by `indent`.
  bool line(std::string_view indent, std::string_view name, std::string_view value, bool last) {
    std::string text(indent);
    text.append(jsonString(name)).append(" : ").append(jsonString(value));
    text.append(last ? "\n" : ",\n");
    return put(text);
  }

  bool member(std::string_view name, std::string_view value, bool last = false) {
    return line("  ", name, value, last);
  }

  const std::optional<std::string>& failure() const { return failure_; }
  std::uint64_t written() const { return written_; }

 private:
  const TextSink& out_;
  std::uint64_t maxBytes_;
  std::uint64_t written_ = 0;
  std::optional<std::string> failure_;
};

// Every chunk id of the manifest once, in ascending order.
std::vector<std::string_view> chunkIds(const Manifest& manifest) {
  std::vector<std::string_view> ids;
  for (const ScannedFile& file : manifest.tree.files) {
    for (const ChunkRef& chunk : file.chunks) ids.push_back(chunk.h);
  }
  std::sort(ids.begin(), ids.end());
  ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
  return ids;
}

}  // namespace

Result<std::uint64_t> writeSyncDescriptor(const S3Client& bucket, const std::string& channel,
                                          const Manifest& manifest, std::int64_t ttlSeconds,
                                          const TextSink& out, std::uint64_t maxBytes) {
  const auto now = std::chrono::system_clock::now();
  const std::string key = manifestKey(channel);
  const std::vector<std::string_view> ids = chunkIds(manifest);
  // Every step after a failure writes nothing, so the steps need no checks of their own.
  BoundedOutput o(out, maxBytes);
  o.put("{\n");
  o.member("build", manifest.build);
  o.member("channel", manifest.channel);
  if (ids.empty()) {
    o.put("  \"chunks\" : {},\n");
  } else {
    o.put("  \"chunks\" : \n  {\n");
    for (std::size_t i = 0; i < ids.size() && !o.failure(); ++i) {
      const std::string link = bucket.presignGet(defaultChunkKey(ids[i]), ttlSeconds, now);
      o.line("    ", ids[i], link, i + 1 == ids.size());
    }
    o.put("  },\n");
  }
  o.member("created", manifest.created);
  o.member("manifest_sig_url", bucket.presignGet(key + ".sig", ttlSeconds, now));
  o.member("manifest_url", bucket.presignGet(key, ttlSeconds, now), true);
  o.put("}\n");
  if (o.failure()) return Failure{*o.failure()};
  return o.written();
}

Result<PresignedLinks> parseSyncDescriptor(std::string_view text) {
  std::string reason;
  const auto root = base::parseJsonObject(text, &reason, {.maxBytes = kMaxSyncDescriptorBytes});
  if (!root) return Failure{"sync descriptor: " + reason};
  const Json::Value& chunks = (*root)["chunks"];
  if (!(*root)["manifest_url"].isString() || !chunks.isObject()) {
    return Failure{"sync descriptor: manifest_url and chunks required"};
  }
  PresignedLinks links;
  links.manifestUrl = (*root)["manifest_url"].asString();
  const Json::Value& signature = (*root)["manifest_sig_url"];
  if (signature.isString()) links.signatureUrl = signature.asString();
  for (auto it = chunks.begin(); it != chunks.end(); ++it) {
    if (!it->isString()) return Failure{"sync descriptor: chunk links must be strings"};
    links.chunks.emplace_hint(links.chunks.end(), it.name(), it->asString());
  }
  return links;
}

}  // namespace quill::rill
