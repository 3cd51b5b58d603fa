#include "rill/ops/publish.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <semaphore>
#include <thread>
#include <unordered_set>

#include "rill/chunks/chunk_codec.h"
#include "rill/chunks/chunk_reader.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/ops/pull.h"
#include "rill/ops/task_pool.h"

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

  void found(std::uint64_t length) {
    std::lock_guard lock(mutex_);
    ++progress_.chunksFound;
    progress_.bytesFound += length;
  }

  // The scan is over: the totals are known from now on.
  void scanned() {
    std::lock_guard lock(mutex_);
    progress_.scanned = true;
    if (options_.progress) options_.progress(progress_);
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
    const Result<ObjectInfo> info = inListing(key) ? ObjectInfo{true, -1} : store_.exists(key);
    if (!info) return fail("HEAD failed: " + info.error());
    if (info.value().present) return done(length, std::nullopt);
    transfers_.acquire();
    auto stored = transfer(file, offset, length, id, key);
    transfers_.release();
    if (!stored) return fail(stored.error());
    if (!stored.value()) return changed(file, id);
    done(length, stored.value());
  }

  // For a tolerant publish, once the workers are done: stores each chunk that could not be read
  // back from the file it was found in from another file that `tree` says holds it, then leaves
  // out of `tree` every file that changed and every file naming a chunk still not stored, so the
  // manifest names stored chunks only.
  Result<bool> settleChangedFiles(const fs::path& dir, TreeScan& tree) {
    if (unread_.empty()) return true;
    for (const ScannedFile& scanned : tree.files) {
      const fs::path file = dir / scanned.path;
      std::uint64_t offset = 0;
      for (const ChunkRef& chunk : scanned.chunks) {
        const std::uint64_t at = offset;
        offset += chunk.n;
        if (!unread_.contains(chunk.h) || changed_.contains(file.string())) continue;
        auto stored = transfer(file, at, chunk.n, chunk.h, store_.chunkKey(chunk.h));
        if (!stored) return Failure{stored.error()};
        if (!stored.value()) {
          changed(file, chunk.h);
          continue;
        }
        unread_.erase(chunk.h);
        done(chunk.n, stored.value());
      }
    }
    std::erase_if(tree.files, [&](const ScannedFile& scanned) {
      if (changed_.contains((dir / scanned.path).string())) return true;
      return std::any_of(scanned.chunks.begin(), scanned.chunks.end(),
                         [&](const ChunkRef& chunk) { return unread_.contains(chunk.h); });
    });
    tree.stats = statsOf(tree.files);
    return true;
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

  // Reads, checks, encodes and stores one chunk: the stored size, or nullopt when a tolerant
  // publish finds that the file no longer holds the chunk.
  Result<std::optional<std::uint64_t>> transfer(const fs::path& file, std::uint64_t offset,
                                                std::uint64_t length, const std::string& id,
                                                const std::string& key) {
    std::string object;
    slots_.acquire();
    auto bytes = readChunkAt(file, offset, length, id);
    if (bytes) object = encodeChunk(bytes.value(), options_.compress);
    slots_.release();
    if (!bytes && options_.scan.tolerant) return std::optional<std::uint64_t>();
    if (!bytes) return Failure{bytes.error()};
    const auto put = store_.put(key, object);
    if (!put) return put.failure().prefixed("PUT failed: ");
    return std::optional<std::uint64_t>(object.size());
  }

  // Counts a chunk checked: found present (no `stored` size) or uploaded.
  void done(std::uint64_t length, std::optional<std::uint64_t> stored) {
    std::lock_guard lock(mutex_);
    ++progress_.chunksDone;
    progress_.bytesDone += length;
    if (stored) {
      ++progress_.uploaded;
      progress_.storedBytes += *stored;
    }
    if (options_.progress) options_.progress(progress_);
  }

  void changed(const fs::path& file, const std::string& id) {
    std::lock_guard lock(mutex_);
    changed_.insert(file.string());
    unread_.insert(id);
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
  std::unordered_set<std::string> changed_;  // files that no longer held a chunk they were cut into
  std::unordered_set<std::string> unread_;   // ids of the chunks not stored because of that
};

// Lists the store's chunk keys for `uploads`. A listing answers for a thousand chunks per request,
// where a check answers for one: a re-publish of a large tree then costs a few requests instead of
// one per chunk. Chunks checked before the listing is complete, and chunks it does not show, are
// checked one by one; a failed listing only means that every chunk is.
void listChunks(StorageProvider& store, ChunkUploads& uploads) {
  const auto entries = store.list("chunks/");
  if (!entries) return;
  std::unordered_set<std::string> keys;
  for (const ObjectEntry& entry : entries.value()) keys.insert(entry.key);
  uploads.listed(std::move(keys));
}

// Two publishes of one channel at once each write a manifest and then a signature, so the store
// can end up holding one's manifest and the other's signature while both succeed. Each reads both
// back once written: the one that finds another's there says so, and publishing again repairs it.
Result<bool> checkStillOurs(StorageProvider& store, const std::string& channel,
                            const std::string& manifest, const std::string& signature) {
  const Failure raced{"another publish replaced channel '" + channel +
                      "' meanwhile - publish again"};
  const std::uint64_t bound = std::max<std::uint64_t>(manifest.size(), kMaxManifestBytes);
  const auto storedManifest = store.get(manifestKey(channel), bound);
  if (!storedManifest) return storedManifest.failure().prefixed("GET failed: ");
  if (storedManifest.value() != manifest) return raced;
  const auto info = store.exists(signatureKey(channel));
  if (!info) return info.failure().prefixed("HEAD failed: ");
  if (info.value().present == signature.empty()) return raced;
  if (signature.empty()) return true;
  const auto storedSignature = store.get(signatureKey(channel), kMaxSignatureBytes);
  if (!storedSignature) return storedSignature.failure().prefixed("GET failed: ");
  if (storedSignature.value() != signature) return raced;
  return true;
}

}  // namespace

Result<PublishReport> publishDirectory(StorageProvider& store, const fs::path& dir,
                                       const PublishOptions& options) {
  if (!options.signingKey.empty()) {
    auto key = publicKeyOf(options.signingKey);
    if (!key) return Failure{key.error()};
  }
  const auto existing = store.exists(manifestKey(options.channel));
  if (!existing) return existing.failure().prefixed("cannot reach store: ");
  if (existing.value().present && !options.force) {
    return Failure{"channel '" + options.channel +
                   "' already published (use --force to overwrite)"};
  }

  // A directory that pulls update keeps their staging area: never part of a build.
  ScanOptions scanOptions = options.scan;
  scanOptions.skip = [skip = options.scan.skip](std::string_view relative, bool directory) {
    return relative == kPullStateDir || (skip && skip(relative, directory));
  };
  ChunkUploads uploads(store, options);
  Result<TreeScan> scan = Failure{""};
  {
    std::jthread lister([&store, &uploads] { listChunks(store, uploads); });
    TaskPool pool(options.checkThreads ? options.checkThreads : defaultCheckThreads());
    std::unordered_set<std::string> queued;
    scan = scanTree(
        dir, options.chunker,
        [&](const fs::path& file, const std::vector<Chunk>& chunks) {
          for (const Chunk& chunk : chunks) {
            if (uploads.failed() || !queued.insert(chunk.hash).second) continue;
            uploads.found(chunk.length);
            pool.submit([&uploads, file, chunk] {
              uploads.upload(file, chunk.offset, chunk.length, chunk.hash);
            });
          }
        },
        scanOptions);
    uploads.scanned();
    pool.wait();
  }
  if (uploads.failed()) return Failure{uploads.failure()};
  if (!scan) return Failure{scan.error()};
  auto settled = uploads.settleChangedFiles(dir, scan.value());
  if (!settled) return Failure{settled.error()};

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
  const auto manifestPut = store.put(manifestKey(options.channel), text);
  if (!manifestPut) return manifestPut.failure().prefixed("PUT failed: ");
  if (!signature.empty()) {
    const auto signaturePut = store.put(signatureKey(options.channel), signature);
    if (!signaturePut) return signaturePut.failure().prefixed("PUT failed: ");
  }
  // A signature left from an earlier signed publish would no longer match: take it away, so a
  // verifying reader is told the build is unsigned rather than tampered with.
  if (signature.empty() && existing.value().present) {
    const auto removed = store.remove(signatureKey(options.channel));
    if (!removed) return removed.failure().prefixed("DELETE failed: ");
  }
  auto settledInStore = checkStillOurs(store, options.channel, text, signature);
  if (!settledInStore) return Failure{settledInStore.error()};
  const PublishProgress done = uploads.progress();
  report.uploaded = done.uploaded;
  report.present = done.chunksDone - done.uploaded;
  report.storedBytes = done.storedBytes;
  return report;
}

}  // namespace quill::rill
