#pragma once
// StorageProvider: the one object-store interface that chunking, publishing, sync and backups talk
// to. Implementations stack by composition (an encrypted store over a prefix over a bucket); a
// decorator owns the provider it wraps.
//
// Failures never throw across this interface: an operation answers a Result whose Failure carries
// the one-line reason and, for a remote store, the status it answered with. Nothing is retried at
// this layer.
// Thread safety: every implementation may be called from several threads at once.

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "rill/result.h"
#include "rill/transport/s3_listing.h"

namespace quill::rill {

// No bound on the size of an object read.
inline constexpr std::uint64_t kAnySize = UINT64_MAX;

// What `exists` learned about one object.
struct ObjectInfo {
  bool present = false;
  std::int64_t size = -1;  // size as stored; -1 when unknown

  bool operator==(const ObjectInfo&) const = default;
};

class StorageProvider {
 public:
  virtual ~StorageProvider() = default;

  // Stores `body` under `key` (UTF-8, forward slashes), replacing any object there.
  virtual Result<bool> put(const std::string& key, std::string_view body) = 0;

  // The whole object at `key`. A missing object is a failure, and so is an object of more than
  // `maxBytes` bytes (as stored), which is never read whole: what a store answers is bounded by
  // what the caller expects.
  virtual Result<std::string> get(const std::string& key, std::uint64_t maxBytes = kAnySize) = 0;

  // Whether an object is at `key`, and its stored size. A missing object is an answer
  // (present = false), not a failure; a failure means the store could not tell.
  virtual Result<ObjectInfo> exists(const std::string& key) = 0;

  // Every object whose key starts with `prefix`, in no particular order (an empty list means
  // there are none).
  virtual Result<std::vector<ObjectEntry>> list(const std::string& prefix) = 0;

  // Deletes the object at `key`. Deleting a missing object succeeds, as it does in S3.
  virtual Result<bool> remove(const std::string& key) = 0;

  // The key under which the chunk with id `chunkId` (64 lower-case hexadecimal characters) is
  // stored. The default is "chunks/" + first two characters + "/" + id.
  virtual std::string chunkKey(const std::string& chunkId) const;
};

using StorageProviderPtr = std::unique_ptr<StorageProvider>;

// The default chunk key of `chunkId`, shared by the implementations that keep ids visible.
std::string defaultChunkKey(std::string_view chunkId);

}  // namespace quill::rill
