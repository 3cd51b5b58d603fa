#include "rill/pull.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "rill/chunk_codec.h"
#include "rill/chunk_reader.h"
#include "rill/manifest_signature.h"
#include "rill/task_pool.h"

namespace quill::rill {

namespace fs = std::filesystem;

namespace {

// Where a chunk can be copied from in the target directory.
struct LocalChunk {
  fs::path file;
  std::uint64_t offset = 0;
};

struct LocalIndex {
  std::unordered_map<std::string, LocalChunk> chunks;
  std::unordered_map<std::string, std::vector<ChunkRef>> files;  // relative path -> chunks
};

// What the target directory already holds, cut the way the manifest was.
Result<LocalIndex> indexTarget(const fs::path& target, const ChunkerParams& params) {
  LocalIndex index;
  std::error_code ec;
  if (!fs::is_directory(target, ec)) return index;
  auto scan = scanTree(target, params, [&](const fs::path& file, const std::vector<Chunk>& chunks) {
    for (const Chunk& chunk : chunks)
      index.chunks.try_emplace(chunk.hash, LocalChunk{file, chunk.offset});
  });
  if (!scan) return Failure{scan.error()};
  for (ScannedFile& file : scan.value().files) index.files[file.path] = std::move(file.chunks);
  return index;
}

// One file being assembled: its ".part" file, opened by the first chunk that arrives, and how
// many chunks are still to come.
class FileAssembly {
 public:
  FileAssembly(const ScannedFile& file, const fs::path& target)
      : file_(file),
        final_(target / file.path),
        part_(final_.string() + ".part"),
        remaining_(file.chunks.size()) {}
  ~FileAssembly() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileAssembly(const FileAssembly&) = delete;
  FileAssembly& operator=(const FileAssembly&) = delete;

  const ScannedFile& file() const { return file_; }
  const fs::path& finalPath() const { return final_; }
  const fs::path& partPath() const { return part_; }

  Result<bool> write(std::uint64_t offset, std::string_view bytes) {
    {
      std::lock_guard lock(mutex_);
      if (fd_ < 0) {
        std::error_code ec;
        fs::create_directories(final_.parent_path(), ec);
        fd_ = ::open(part_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        if (fd_ < 0) return Failure{"cannot open " + final_.string()};
      }
    }
    std::size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t n = ::pwrite(fd_, bytes.data() + done, bytes.size() - done,
                                 static_cast<off_t>(offset + done));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return Failure{"write failed for " + final_.string()};
      done += static_cast<std::size_t>(n);
    }
    return true;
  }

  // Counts one chunk as written; true for the last one.
  bool chunkWritten() { return remaining_.fetch_sub(1) == 1; }

  // Trims the ".part" file to the file's size, checks it and renames it over the target.
  Result<bool> finish() {
    if (fd_ < 0) {
      fd_ = ::open(part_.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      if (fd_ < 0) return Failure{"cannot open " + final_.string()};
    }
    struct stat st {};
    if (::ftruncate(fd_, static_cast<off_t>(file_.size)) != 0 || ::fstat(fd_, &st) != 0) {
      return Failure{"write failed for " + final_.string()};
    }
    ::close(fd_);
    fd_ = -1;
    if (static_cast<std::uint64_t>(st.st_size) != file_.size) {
      return Failure{"size mismatch for " + final_.string()};
    }
    std::error_code ec;
    fs::rename(part_, final_, ec);
    if (ec) {
      // Appended piece by piece: GCC 12 misreads "'" + std::string as an overlapping copy.
      std::string reason(1, '\'');
      reason.append(final_.string()).append("' is in use - could not replace it (");
      return Failure{reason.append(ec.message()).append(")")};
    }
    return true;
  }

 private:
  const ScannedFile& file_;
  fs::path final_;
  fs::path part_;
  std::mutex mutex_;
  int fd_ = -1;
  std::atomic<std::size_t> remaining_;
};

// The state the chunk workers share.
class ChunkFetches {
 public:
  ChunkFetches(PullSource& source, const LocalIndex& index, const PullOptions& options)
      : source_(source), index_(index), options_(options) {}

  void fetch(FileAssembly& assembly, std::size_t chunkIndex, std::uint64_t offset) {
    if (failed_) return;
    const ChunkRef& ref = assembly.file().chunks[chunkIndex];
    bool reused = false;
    std::uint64_t objectBytes = 0;
    std::string bytes;
    if (auto local = index_.chunks.find(ref.h); local != index_.chunks.end()) {
      auto copied = readChunkAt(local->second.file, local->second.offset, ref.n, ref.h);
      // A file replaced or rewritten since the scan no longer holds the chunk: download it.
      if (copied) {
        bytes = std::move(copied).value();
        reused = true;
      }
    }
    if (!reused) {
      if (auto copied = copyWritten(ref)) {
        bytes = std::move(*copied);
        reused = true;
      }
    }
    if (!reused) {
      auto object = source_.chunk(ref);
      if (!object) return fail(object.error());
      objectBytes = object.value().size();
      auto decoded = decodeChunk(object.value(), ref);
      if (!decoded) return fail(decoded.error());
      bytes = std::move(decoded).value();
    }
    if (auto written = assembly.write(offset, bytes); !written) return fail(written.error());
    {
      std::lock_guard lock(mutex_);
      written_.try_emplace(ref.h, &assembly, offset);
    }
    if (assembly.chunkWritten()) {
      if (auto done = assembly.finish(); !done) return fail(done.error());
    }
    std::lock_guard lock(mutex_);
    ++progress_.chunksDone;
    progress_.bytesDone += ref.n;
    if (reused) {
      ++progress_.reused;
    } else {
      ++progress_.downloaded;
      progress_.downloadedBytes += objectBytes;
    }
    if (options_.progress) options_.progress(progress_);
  }

  void plan(std::uint64_t chunks, std::uint64_t bytes) {
    progress_.chunksTotal = chunks;
    progress_.bytesTotal = bytes;
  }
  bool failed() const { return failed_; }
  const std::string& failure() const { return failure_; }
  const PullProgress& progress() const { return progress_; }

 private:
  void fail(std::string reason) {
    std::lock_guard lock(mutex_);
    if (!failed_.exchange(true)) failure_ = std::move(reason);
  }

  // A chunk this pull has already written elsewhere (a file seen twice in one build), read back
  // from its ".part" file or, once that is complete, from the file itself.
  std::optional<std::string> copyWritten(const ChunkRef& ref) {
    std::pair<FileAssembly*, std::uint64_t> where;
    {
      std::lock_guard lock(mutex_);
      const auto found = written_.find(ref.h);
      if (found == written_.end()) return std::nullopt;
      where = found->second;
    }
    for (const fs::path& file : {where.first->partPath(), where.first->finalPath()}) {
      if (auto bytes = readChunkAt(file, where.second, ref.n, ref.h))
        return std::move(bytes).value();
    }
    return std::nullopt;
  }

  PullSource& source_;
  const LocalIndex& index_;
  const PullOptions& options_;
  std::mutex mutex_;
  std::atomic<bool> failed_{false};
  std::string failure_;
  PullProgress progress_;
  std::unordered_map<std::string, std::pair<FileAssembly*, std::uint64_t>> written_;
};

}  // namespace

Result<Manifest> fetchCheckedManifest(PullSource& source, const PullOptions& options) {
  auto bytes = source.manifest();
  if (!bytes) return Failure{bytes.error()};
  auto manifest = parseManifest(bytes.value());
  if (!manifest) return Failure{manifest.error()};
  if (auto right = checkManifestChannel(manifest.value(), options.channel); !right) {
    return Failure{right.error()};
  }
  for (const ScannedFile& file : manifest.value().tree.files) {
    if (!isSafeManifestPath(file.path)) return Failure{"unsafe path in manifest: " + file.path};
  }
  if (options.verifyKey.empty()) return manifest;
  auto signature = source.signature();
  if (!signature) return Failure{signature.error()};
  if (!signature.value()) {
    return Failure{"channel '" + options.channel +
                   "' has no signature but verification is required"};
  }
  if (auto verified = verifyManifest(bytes.value(), *signature.value(), options.verifyKey);
      !verified) {
    return Failure{verified.error()};
  }
  return manifest;
}

Result<PullReport> pullChannel(PullSource& source, const fs::path& target,
                               const PullOptions& options) {
  auto manifest = fetchCheckedManifest(source, options);
  if (!manifest) return Failure{manifest.error()};
  PullReport report;
  report.manifest = std::move(manifest).value();
  auto index = indexTarget(target, report.manifest.chunker);
  if (!index) return Failure{index.error()};
  std::error_code ec;
  fs::create_directories(target, ec);
  if (ec) return Failure{"cannot open " + target.string()};

  std::vector<std::unique_ptr<FileAssembly>> assemblies;
  std::uint64_t chunks = 0;
  std::uint64_t bytes = 0;
  for (const ScannedFile& file : report.manifest.tree.files) {
    const auto held = index.value().files.find(file.path);
    if (held != index.value().files.end() && held->second == file.chunks) {
      ++report.unchangedFiles;
      continue;
    }
    assemblies.push_back(std::make_unique<FileAssembly>(file, target));
    chunks += file.chunks.size();
    bytes += file.size;
  }

  ChunkFetches fetches(source, index.value(), options);
  fetches.plan(chunks, bytes);
  {
    TaskPool pool(options.networkThreads ? options.networkThreads : defaultTransferThreads());
    // A chunk that occurs more than once is fetched once: its repeats wait for a second round,
    // which copies them from where the first round wrote them.
    std::unordered_set<std::string> planned;
    std::vector<std::function<void()>> repeats;
    for (auto& assembly : assemblies) {
      if (assembly->file().chunks.empty()) {
        if (auto done = assembly->finish(); !done) return Failure{done.error()};
        continue;
      }
      std::uint64_t offset = 0;
      for (std::size_t i = 0; i < assembly->file().chunks.size(); ++i) {
        auto task = [&fetches, a = assembly.get(), i, offset] { fetches.fetch(*a, i, offset); };
        if (planned.insert(assembly->file().chunks[i].h).second) {
          pool.submit(std::move(task));
        } else {
          repeats.push_back(std::move(task));
        }
        offset += assembly->file().chunks[i].n;
      }
    }
    pool.wait();
    for (auto& task : repeats) pool.submit(std::move(task));
    pool.wait();
  }
  if (fetches.failed()) return Failure{fetches.failure()};
  report.totals = fetches.progress();
  return report;
}

}  // namespace quill::rill
