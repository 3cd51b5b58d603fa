#include "rill/publish.h"

#include <atomic>
#include <mutex>
#include <semaphore>
#include <thread>
#include <unordered_set>

#include "rill/chunk_codec.h"
#include "rill/chunk_reader.h"
#include "rill/manifest_signature.h"
#include "rill/task_pool.h"

namespace quill::rill {

namespace fs = std::filesystem;

namespace {

// The state the chunk workers share: the first failure, the progress counters, and the slots
// that limit how many chunks are compressed at once.
class ChunkUploads {
 public:
  ChunkUploads(StorageProvider& store, const PublishOptions& options)
      : store_(store),
        options_(options),
        slots_(static_cast<std::ptrdiff_t>(options.cpuThreads ? options.cpuThreads
                                                              : defaultCpuThreads())),
        transfers_(static_cast<std::ptrdiff_t>(
            options.transferThreads ? options.transferThreads : defaultTransferThreads())) {}

  void found() {
    std::lock_guard lock(mutex_);
    ++progress_.chunksFound;
  }

  // The chunk keys a listing of the store found, once it is complete.
  void listed(std::unordered_set<std::string> keys) {
    std::lock_guard lock(mutex_);
    listed_ = std::move(keys);
    listingDone_ = true;
  }

  // Makes sure the chunk `id` of `length` bytes at `offset` of `file` is in the store.
  void upload(const fs::path& file, std::uint64_t offset, std::uint64_t length,
              const std::string& id) {
    if (failed_) return;
    const std::string key = store_.chunkKey(id);
    std::string error;
    const auto info = inListing(key) ? ObjectInfo{true, -1} : store_.exists(key, &error);
    if (!info) return fail("HEAD failed: " + error);
    std::uint64_t stored = 0;
    if (!info->present) {
      transfers_.acquire();
      const auto put = transfer(file, offset, length, id, key);
      transfers_.release();
      if (!put) return fail(put.error());
      stored = put.value();
    }
    std::lock_guard lock(mutex_);
    ++progress_.chunksDone;
    progress_.bytesDone += length;
    if (!info->present) {
      ++progress_.uploaded;
      progress_.storedBytes += stored;
    }
    if (options_.progress) options_.progress(progress_);
  }

  bool failed() const { return failed_; }
  std::string failure() {
    std::lock_guard lock(mutex_);
    return failure_;
  }
  PublishProgress progress() {
    std::lock_guard lock(mutex_);
    return progress_;
  }

 private:
  bool inListing(const std::string& key) {
    std::lock_guard lock(mutex_);
    return listingDone_ && listed_.contains(key);
  }

  // Reads, checks, encodes and stores one chunk; the stored size.
  Result<std::uint64_t> transfer(const fs::path& file, std::uint64_t offset, std::uint64_t length,
                                 const std::string& id, const std::string& key) {
    std::string object;
    slots_.acquire();
    auto bytes = readChunkAt(file, offset, length, id);
    if (bytes) object = encodeChunk(bytes.value(), options_.compress);
    slots_.release();
    if (!bytes) return Failure{bytes.error()};
    std::string error;
    if (!store_.put(key, object, &error)) return Failure{"PUT failed: " + error};
    return static_cast<std::uint64_t>(object.size());
  }

  void fail(std::string reason) {
    std::lock_guard lock(mutex_);
    if (!failed_.exchange(true)) failure_ = std::move(reason);
  }

  StorageProvider& store_;
  const PublishOptions& options_;
  std::counting_semaphore<> slots_;      // chunks being compressed
  std::counting_semaphore<> transfers_;  // chunks held in memory
  std::mutex mutex_;
  std::atomic<bool> failed_{false};
  std::string failure_;
  PublishProgress progress_;
  bool listingDone_ = false;
  std::unordered_set<std::string> listed_;
};

// Lists the store's chunk keys for `uploads`. A listing answers for a thousand chunks per request,
// where a check answers for one: a re-publish of a large tree then costs a few requests instead of
// one per chunk. Chunks checked before the listing is complete, and chunks it does not show, are
// checked one by one; a failed listing only means that every chunk is.
void listChunks(StorageProvider& store, ChunkUploads& uploads) {
  const auto entries = store.list("chunks/");
  if (!entries) return;
  std::unordered_set<std::string> keys;
  for (const ObjectEntry& entry : *entries) keys.insert(entry.key);
  uploads.listed(std::move(keys));
}

}  // namespace

Result<PublishReport> publishDirectory(StorageProvider& store, const fs::path& dir,
                                       const PublishOptions& options) {
  if (!options.signingKey.empty()) {
    auto key = publicKeyOf(options.signingKey);
    if (!key) return Failure{key.error()};
  }
  std::string error;
  const auto existing = store.exists(manifestKey(options.channel), &error);
  if (!existing) return Failure{"cannot reach store: " + error};
  if (existing->present && !options.force) {
    return Failure{"channel '" + options.channel +
                   "' already published (use --force to overwrite)"};
  }

  ChunkUploads uploads(store, options);
  Result<TreeScan> scan = Failure{""};
  {
    std::jthread lister([&store, &uploads] { listChunks(store, uploads); });
    TaskPool pool(options.checkThreads ? options.checkThreads : defaultCheckThreads());
    std::unordered_set<std::string> queued;
    scan =
        scanTree(dir, options.chunker, [&](const fs::path& file, const std::vector<Chunk>& chunks) {
          for (const Chunk& chunk : chunks) {
            if (uploads.failed() || !queued.insert(chunk.hash).second) continue;
            uploads.found();
            pool.submit([&uploads, file, chunk] {
              uploads.upload(file, chunk.offset, chunk.length, chunk.hash);
            });
          }
        });
    pool.wait();
  }
  if (uploads.failed()) return Failure{uploads.failure()};
  if (!scan) return Failure{scan.error()};

  PublishReport report;
  report.manifest = {options.chunker, options.channel, options.build, options.created,
                     std::move(scan).value()};
  const std::string text = serializeManifest(report.manifest);
  std::string signature;
  if (!options.signingKey.empty()) {
    auto signed_ = signManifest(text, options.signingKey);
    if (!signed_) return Failure{signed_.error()};
    signature = std::move(signed_).value();
  }
  if (!store.put(manifestKey(options.channel), text, &error))
    return Failure{"PUT failed: " + error};
  if (!signature.empty() && !store.put(signatureKey(options.channel), signature, &error)) {
    return Failure{"PUT failed: " + error};
  }
  // A signature left from an earlier signed publish would no longer match: take it away, so a
  // verifying reader is told the build is unsigned rather than tampered with.
  if (signature.empty() && existing->present &&
      !store.remove(signatureKey(options.channel), &error)) {
    return Failure{"DELETE failed: " + error};
  }
  const PublishProgress done = uploads.progress();
  report.uploaded = done.uploaded;
  report.storedBytes = done.storedBytes;
  return report;
}

}  // namespace quill::rill
