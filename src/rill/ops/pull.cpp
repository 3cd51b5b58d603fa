#include "rill/ops/pull.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <unordered_map>
#include <unordered_set>

#include "base/byte_budget.h"
#include "base/durable_file.h"
#include "base/file_io.h"
#include "base/unique_fd.h"
#include "rill/chunks/chunk_codec.h"
#include "rill/chunks/chunk_id.h"
#include "rill/chunks/chunk_reader.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/ops/target_tree.h"
#include "rill/ops/task_pool.h"

namespace quill::rill {

namespace fs = std::filesystem;

namespace {

constexpr const char* kPartsDir = "parts";
constexpr const char* kLastManifest = "last-manifest.json";
// Chunks the index of a target may hold (about 150 bytes each); a tree that could be cut into more
// is indexed in part, and what is left out is downloaded instead.
constexpr std::uint64_t kMaxIndexedChunks = 1 << 20;
// Chunk bytes held at once by the fetching threads (each holds the object and the decoded chunk).
constexpr std::uint64_t kBytesInFlight = 256ull * 1024 * 1024;

std::string stateRelative(const char* name) { return std::string(kPullStateDir) + "/" + name; }

// Where a chunk can be copied from: a file of the target, or an assembled part.
struct LocalChunk {
  fs::path file;
  std::uint64_t offset = 0;
};

struct LocalIndex {
  std::unordered_map<std::string, LocalChunk> chunks;
  std::unordered_set<std::string> unchanged;  // paths already holding the manifest's chunks
};

// What the target already holds, cut the way the manifest was: its files (for reuse, and to find
// the files that need no work) and the parts of interrupted pulls (for reuse). Files that cannot
// be read are simply not reused.
LocalIndex indexTarget(const fs::path& root, const Manifest& manifest) {
  std::unordered_map<std::string_view, const ScannedFile*> wanted;
  for (const ScannedFile& file : manifest.tree.files) wanted.emplace(file.path, &file);
  LocalIndex index;
  std::uint64_t budget = kMaxIndexedChunks;
  const auto scan = [&](const fs::path& dir, bool compare) {
    ScanOptions options;
    options.tolerant = true;
    options.collect = false;
    options.maxChunks = budget;
    options.skip = [](std::string_view relative, bool) { return relative == kPullStateDir; };
    scanTree(
        dir, manifest.chunker,
        [&](const fs::path& file, const std::vector<Chunk>& chunks) {
          budget -= std::min<std::uint64_t>(budget, chunks.size());
          for (const Chunk& chunk : chunks)
            index.chunks.try_emplace(chunk.hash, LocalChunk{file, chunk.offset});
          if (!compare) return;
          const std::string relative = file.lexically_relative(dir).generic_string();
          const auto found = wanted.find(relative);
          if (found == wanted.end() || found->second->chunks.size() != chunks.size()) return;
          for (std::size_t i = 0; i < chunks.size(); ++i) {
            if (chunks[i].hash != found->second->chunks[i].h) return;
          }
          index.unchanged.insert(relative);
        },
        options);
  };
  std::error_code ec;
  if (!fs::is_directory(root, ec)) return index;
  scan(root, true);
  const fs::path parts = root / kPullStateDir / kPartsDir;
  if (fs::is_directory(fs::symlink_status(parts, ec))) scan(parts, false);
  return index;
}

// The paths of the manifest this pull installed last time, or none.
std::vector<std::string> previouslyInstalled(const TargetTree& tree) {
  std::string text;
  if (!base::readFileLimited(tree.pathOf(stateRelative(kLastManifest)), kMaxManifestBytes, text))
    return {};
  auto manifest = parseManifest(text);
  if (!manifest) return {};
  std::vector<std::string> paths;
  for (const ScannedFile& file : manifest.value().tree.files) {
    if (isSafeManifestPath(file.path)) paths.push_back(file.path);
  }
  return paths;
}

// One file being assembled in the parts directory under a name derived from its path, so that an
// interrupted pull finds it again. The part is opened by the first chunk that arrives.
class FileAssembly {
 public:
  FileAssembly(const ScannedFile& file, const TargetTree& tree, int partsFd, bool ownerOnly)
      : file_(file),
        tree_(tree),
        partsFd_(partsFd),
        name_(chunkId(file.path).substr(0, 32)),
        ownerOnly_(ownerOnly),
        remaining_(file.chunks.size()) {}

  const ScannedFile& file() const { return file_; }
  const std::string& partName() const { return name_; }
  fs::path partPath() const { return tree_.pathOf(stateRelative(kPartsDir)) / name_; }

  Result<bool> write(std::uint64_t offset, std::string_view bytes) {
    {
      std::lock_guard lock(mutex_);
      if (auto opened = openPart(); !opened) return opened;
    }
    if (!base::writeAllAt(fd_.get(), bytes, offset)) return Failure{"write failed for " + target()};
    return true;
  }

  // Counts one chunk as written; true for the last one.
  bool chunkWritten() { return remaining_.fetch_sub(1) == 1; }

  // Trims the part to the file's size, checks it and flushes it to the disk.
  Result<bool> finish() {
    if (auto opened = openPart(); !opened) return opened;
    struct stat st {};
    if (::ftruncate(fd_.get(), static_cast<off_t>(file_.size)) != 0 ||
        ::fstat(fd_.get(), &st) != 0 || ::fdatasync(fd_.get()) != 0 || !fd_.close()) {
      return Failure{"write failed for " + target()};
    }
    if (static_cast<std::uint64_t>(st.st_size) != file_.size) {
      return Failure{"size mismatch for " + target()};
    }
    return true;
  }

 private:
  std::string target() const { return tree_.pathOf(file_.path).string(); }

  Result<bool> openPart() {
    if (fd_) return true;
    const mode_t mode = ownerOnly_ ? 0600 : 0644;
    const int flags = O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC;
    fd_.reset(::openat(partsFd_, name_.c_str(), flags, mode));
    // Something planted a link under the part's name: it goes, unfollowed.
    if (!fd_ && errno == ELOOP && ::unlinkat(partsFd_, name_.c_str(), 0) == 0) {
      fd_.reset(::openat(partsFd_, name_.c_str(), flags | O_EXCL, mode));
    }
    // A part left by an earlier pull keeps the mode it was made with.
    if (!fd_ || (ownerOnly_ && ::fchmod(fd_.get(), 0600) != 0)) {
      fd_.reset();
      return Failure{"cannot open " + target()};
    }
    return true;
  }

  const ScannedFile& file_;
  const TargetTree& tree_;
  int partsFd_;
  std::string name_;
  bool ownerOnly_;
  std::mutex mutex_;
  base::UniqueFd fd_;
  std::atomic<std::size_t> remaining_;
};

// The state the chunk workers share.
class ChunkFetches {
 public:
  ChunkFetches(PullSource& source, const LocalIndex& index, const PullOptions& options)
      : source_(source), index_(index), options_(options), budget_(kBytesInFlight) {}

  void fetch(FileAssembly& assembly, std::size_t chunkIndex, std::uint64_t offset) {
    if (failed_) return;
    const ChunkRef& ref = assembly.file().chunks[chunkIndex];
    const auto held = budget_.take(ref.n + maxChunkObjectSize(ref.n));
    fetchHeld(assembly, ref, offset);
  }

  void plan(std::uint64_t chunks, std::uint64_t bytes) {
    progress_.chunksTotal = chunks;
    progress_.bytesTotal = bytes;
  }
  bool failed() const { return failed_; }
  const std::string& failure() const { return failure_; }
  const PullProgress& progress() const { return progress_; }

 private:
  void fetchHeld(FileAssembly& assembly, const ChunkRef& ref, std::uint64_t offset) {
    std::uint64_t objectBytes = 0;
    std::optional<std::string> bytes = copyLocal(ref);
    const bool reused = bytes.has_value();
    if (!reused) {
      auto object = source_.chunk(ref);
      if (!object) return fail(object.error());
      objectBytes = object.value().size();
      auto decoded = decodeChunk(object.value(), ref);
      if (!decoded) return fail(decoded.error());
      bytes = std::move(decoded).value();
    }
    if (auto written = assembly.write(offset, *bytes); !written) return fail(written.error());
    {
      std::lock_guard lock(mutex_);
      written_.try_emplace(ref.h, assembly.partPath(), offset);
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

  // The chunk from a file the target held, or from a part this pull already wrote it to (a chunk
  // that occurs twice in one build); re-hashed, so a file changed since it was read is no source.
  std::optional<std::string> copyLocal(const ChunkRef& ref) {
    if (auto local = index_.chunks.find(ref.h); local != index_.chunks.end()) {
      if (auto copied = readChunkAt(local->second.file, local->second.offset, ref.n, ref.h))
        return std::move(copied).value();
    }
    std::pair<fs::path, std::uint64_t> where;
    {
      std::lock_guard lock(mutex_);
      const auto found = written_.find(ref.h);
      if (found == written_.end()) return std::nullopt;
      where = found->second;
    }
    if (auto copied = readChunkAt(where.first, where.second, ref.n, ref.h))
      return std::move(copied).value();
    return std::nullopt;
  }

  void fail(std::string reason) {
    std::lock_guard lock(mutex_);
    if (!failed_.exchange(true)) failure_ = std::move(reason);
  }

  PullSource& source_;
  const LocalIndex& index_;
  const PullOptions& options_;
  base::ByteBudget budget_;
  std::mutex mutex_;
  std::atomic<bool> failed_{false};
  std::string failure_;
  PullProgress progress_;
  std::unordered_map<std::string, std::pair<fs::path, std::uint64_t>> written_;
};

// Assembles `assemblies` on a pool of fetching threads. A chunk that occurs more than once is
// fetched once: its repeats wait for a second round, which copies them from where the first round
// wrote them.
Result<PullProgress> assemble(std::vector<std::unique_ptr<FileAssembly>>& assemblies,
                              ChunkFetches& fetches, const PullOptions& options) {
  TaskPool pool(options.networkThreads ? options.networkThreads : defaultTransferThreads());
  std::unordered_set<std::string_view> planned;
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
  if (fetches.failed()) return Failure{fetches.failure()};
  return fetches.progress();
}

// A source whose manifest is bytes already fetched; everything else comes from `inner`.
class ProvidedManifest final : public PullSource {
 public:
  ProvidedManifest(PullSource& inner, std::string text) : inner_(inner), text_(std::move(text)) {}
  Result<std::string> manifest() override { return text_; }
  Result<std::optional<std::string>> signature() override { return inner_.signature(); }
  Result<std::string> chunk(const ChunkRef& ref) override { return inner_.chunk(ref); }
  const std::string& text() const { return text_; }

 private:
  PullSource& inner_;
  std::string text_;
};

// Replaces `name` in the directory `dirFd` with `text`, flushed before and after the rename. The
// temporary of a pull that was cut short is dropped first.
bool writeFileDurably(int dirFd, const std::string& name, std::string_view text) {
  const std::string tmp = name + ".tmp";
  ::unlinkat(dirFd, tmp.c_str(), 0);
  return base::replaceFileAt(dirFd, name, tmp, text, 0644).ok();
}

std::string parentOf(std::string_view path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string_view::npos ? std::string() : std::string(path.substr(0, slash));
}

// Steps 2 and 3: the dropped files go, the assembled ones take their places, and the manifest is
// remembered for the next pull.
Result<bool> install(const TargetTree& tree, int partsFd,
                     const std::vector<std::unique_ptr<FileAssembly>>& assemblies,
                     const Manifest& manifest, std::string_view manifestText) {
  std::unordered_set<std::string_view> paths;
  for (const ScannedFile& file : manifest.tree.files) paths.insert(file.path);
  for (const std::string& old : previouslyInstalled(tree)) {
    if (!paths.contains(old)) tree.removeFile(old);
  }
  std::set<std::string> touched;
  for (const auto& assembly : assemblies) {
    auto placed = tree.install(partsFd, assembly->partName(), assembly->file().path);
    if (!placed) return placed;
    touched.insert(parentOf(assembly->file().path));
  }
  for (const std::string& dir : touched) tree.syncDirectory(dir);
  auto state = tree.directory(kPullStateDir);
  if (!state || !writeFileDurably(state.value().get(), kLastManifest, manifestText)) {
    return Failure{"write failed for " + tree.pathOf(stateRelative(kLastManifest)).string()};
  }
  return true;
}

}  // namespace

Result<Manifest> fetchCheckedManifest(PullSource& source, const PullOptions& options) {
  auto bytes = source.manifest();
  if (!bytes) return Failure{bytes.error()};
  if (!options.verifyKey.empty()) {
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
  }
  auto manifest = parseManifest(bytes.value());
  if (!manifest) return Failure{manifest.error()};
  if (auto right = checkManifestChannel(manifest.value(), options.channel); !right) {
    return Failure{right.error()};
  }
  for (const ScannedFile& file : manifest.value().tree.files) {
    const std::string_view first = std::string_view(file.path).substr(0, file.path.find('/'));
    if (!isSafeManifestPath(file.path) || first == kPullStateDir) {
      return Failure{"unsafe path in manifest: " + file.path};
    }
  }
  return manifest;
}

Result<PullReport> pullChannel(PullSource& source, const fs::path& target,
                               const PullOptions& options) {
  auto bytes = source.manifest();
  if (!bytes) return Failure{bytes.error()};
  // The same bytes are checked and remembered: a source that answers twice cannot swap them.
  ProvidedManifest provided(source, std::move(bytes).value());
  auto manifest = fetchCheckedManifest(provided, options);
  if (!manifest) return Failure{manifest.error()};
  PullReport report;
  report.manifest = std::move(manifest).value();
  const LocalIndex index = indexTarget(target, report.manifest);

  auto tree = TargetTree::open(target);
  if (!tree) return Failure{tree.error()};
  auto parts = tree.value().directory(stateRelative(kPartsDir));
  if (!parts) return Failure{parts.error()};

  std::vector<std::unique_ptr<FileAssembly>> assemblies;
  std::uint64_t chunks = 0;
  std::uint64_t bytesTotal = 0;
  for (const ScannedFile& file : report.manifest.tree.files) {
    if (index.unchanged.contains(file.path)) {
      ++report.unchangedFiles;
      continue;
    }
    const bool ownerOnly = options.ownerOnly && options.ownerOnly(file.path);
    assemblies.push_back(
        std::make_unique<FileAssembly>(file, tree.value(), parts.value().get(), ownerOnly));
    chunks += file.chunks.size();
    bytesTotal += file.size;
  }

  ChunkFetches fetches(source, index, options);
  fetches.plan(chunks, bytesTotal);
  auto assembled = assemble(assemblies, fetches, options);
  if (!assembled) return Failure{assembled.error()};
  report.totals = assembled.value();
  auto installed =
      install(tree.value(), parts.value().get(), assemblies, report.manifest, provided.text());
  if (!installed) return Failure{installed.error()};
  // Parts of files that later builds no longer hold would otherwise stay for good.
  std::error_code ec;
  for (const auto& entry : fs::directory_iterator(tree.value().pathOf(stateRelative(kPartsDir)), ec))
    fs::remove(entry.path(), ec);
  return report;
}

void removePullState(const fs::path& target) {
  std::error_code ec;
  fs::remove_all(target / kPullStateDir, ec);
}

}  // namespace quill::rill
