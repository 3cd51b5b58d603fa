#pragma once
// Where a pull reads a channel's build from: straight from a store, or through the presigned links
// of a sync descriptor that a server handed out.

#include <map>
#include <optional>
#include <string>

#include "rill/result.h"
#include "rill/providers/storage_provider.h"
#include "rill/chunks/tree_scan.h"

namespace quill::rill {

class PullSource {
 public:
  virtual ~PullSource() = default;
  // The manifest's stored bytes (at most kMaxManifestBytes).
  virtual Result<std::string> manifest() = 0;
  // The stored signature text (at most kMaxSignatureBytes), or nothing when the channel has none.
  virtual Result<std::optional<std::string>> signature() = 0;
  // The stored object of chunk `ref.h`, as written (possibly a zstd frame), at most
  // maxChunkObjectSize(ref.n) bytes. Thread-safe.
  virtual Result<std::string> chunk(const ChunkRef& ref) = 0;
};

// Reads a channel's objects through a provider, with the provider's messages.
class StorePullSource final : public PullSource {
 public:
  StorePullSource(StorageProvider& store, std::string channel);
  Result<std::string> manifest() override;
  Result<std::optional<std::string>> signature() override;
  Result<std::string> chunk(const ChunkRef& ref) override;

 private:
  StorageProvider& store_;
  std::string channel_;
};

// The links of a sync descriptor.
struct PresignedLinks {
  std::string manifestUrl;
  std::string signatureUrl;
  std::map<std::string, std::string> chunks;  // chunk id -> URL
};

// Reads through presigned links with plain GETs. Fails with "manifest URL -> HTTP <status>",
// "no presigned URL for chunk <id>", "chunk URL -> HTTP <status>", or the transport's
// "curl: <reason>". A signature link answering 404 means the channel has no signature.
class PresignedPullSource final : public PullSource {
 public:
  explicit PresignedPullSource(PresignedLinks links);
  Result<std::string> manifest() override;
  Result<std::optional<std::string>> signature() override;
  Result<std::string> chunk(const ChunkRef& ref) override;

 private:
  PresignedLinks links_;
};

}  // namespace quill::rill
