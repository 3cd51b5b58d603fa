#include "backup/snapshot_check.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <unordered_set>

#include "backup/snapshots.h"
#include "rill/chunks/chunk_codec.h"
#include "rill/ops/pull_source.h"
#include "rill/ops/task_pool.h"

namespace quill::backup {

namespace {

// Chunks fetched at once with --read-data: the work is round trips, not CPU.
constexpr std::size_t kReadThreads = 8;

struct NamedChunk {
  rill::ChunkRef ref;
  std::vector<std::string> snapshots;  // those that name it, oldest first
};

std::string namedBy(const NamedChunk& chunk) {
  std::string text = "(";
  for (const std::string& name : chunk.snapshots) {
    if (text.size() > 1) text += ", ";
    text += name;
  }
  return text + ")";
}

// Fetches, opens and verifies every chunk in `chunks`, adding a problem for each that fails.
void readEveryChunk(rill::StorageProvider& store, const std::vector<const NamedChunk*>& chunks,
                    CheckReport& report, CheckProgress& done,
                    const std::function<void(const CheckProgress&)>& progress) {
  std::mutex mutex;
  rill::TaskPool pool(kReadThreads);
  for (const NamedChunk* chunk : chunks) {
    pool.submit([&, chunk] {
      rill::StorePullSource source(store, "");
      auto object = source.chunk(chunk->ref);
      auto decoded = object ? rill::decodeChunk(object.value(), chunk->ref)
                            : rill::Result<std::string>(rill::Failure{object.error()});
      std::lock_guard lock(mutex);
      if (!decoded) {
        report.problems.push_back("chunk " + chunk->ref.h + ": " + decoded.error() + " " +
                                  namedBy(*chunk));
      }
      ++done.chunksDone;
      done.bytesDone += chunk->ref.n;
      if (progress) progress(done);
    });
  }
  pool.wait();
}

}  // namespace

rill::Result<CheckReport> checkSnapshots(
    rill::StorageProvider& store, bool readData,
    const std::function<void(const CheckProgress&)>& progress) {
  auto names = listSnapshots(store);
  if (!names) return rill::Failure{"list: " + names.error()};
  CheckReport report;
  report.snapshots = names.value().size();
  std::map<std::string, NamedChunk> chunks;  // by chunk key
  for (const std::string& name : names.value()) {
    auto manifest = readSnapshotManifest(store, name);
    if (!manifest) {
      report.problems.push_back(name + ": " + manifest.error());
      continue;
    }
    for (const rill::ScannedFile& file : manifest.value().tree.files) {
      for (const rill::ChunkRef& ref : file.chunks) {
        NamedChunk& entry = chunks[store.chunkKey(ref.h)];
        entry.ref = ref;
        if (entry.snapshots.empty() || entry.snapshots.back() != name) {
          entry.snapshots.push_back(name);
        }
      }
    }
  }
  report.chunks = chunks.size();

  const auto stored = store.list("chunks/");
  if (!stored) return stored.failure().prefixed("list: ");
  std::unordered_set<std::string> present;
  for (const rill::ObjectEntry& entry : stored.value()) present.insert(entry.key);

  CheckProgress done;
  std::vector<const NamedChunk*> toRead;
  for (const auto& [key, chunk] : chunks) {
    if (!present.contains(key)) {
      report.problems.push_back("chunk " + chunk.ref.h + " is missing " + namedBy(chunk));
    } else if (readData) {
      toRead.push_back(&chunk);
      done.chunksTotal += 1;
      done.bytesTotal += chunk.ref.n;
    }
  }
  if (readData) {
    readEveryChunk(store, toRead, report, done, progress);
  }
  std::sort(report.problems.begin(), report.problems.end());
  return report;
}

}  // namespace quill::backup
