#include "rill/chunks/tree_scan.h"

#include <sys/stat.h>

#include <algorithm>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "rill/chunks/file_chunker.h"

namespace quill::rill {

namespace fs = std::filesystem;

namespace {

struct FoundFile {
  std::string path;  // relative, forward slashes
  std::uint64_t size = 0;
};

// The directories from the root down to the entry being looked at, by identity, so that a
// followed link leading back into one of them is not walked in circles.
class Ancestors {
 public:
  explicit Ancestors(const fs::path& root) { enter(-1, root); }

  // Records `dir`, an entry at `depth` (the root's own entries are at 0) about to be walked into;
  // false when it is one of its own ancestors.
  bool enter(int depth, const fs::path& dir) {
    struct stat st {};
    // What cannot be looked at here fails the walk, or not, where the walk opens it.
    if (::stat(dir.c_str(), &st) != 0) return true;
    chain_.resize(static_cast<std::size_t>(depth + 1));
    const std::pair id{st.st_dev, st.st_ino};
    if (std::find(chain_.begin(), chain_.end(), id) != chain_.end()) return false;
    chain_.push_back(id);
    return true;
  }

 private:
  std::vector<std::pair<dev_t, ino_t>> chain_;
};

Result<std::vector<FoundFile>> listFiles(const fs::path& root, const ScanOptions& options) {
  const auto walkError = [&](const std::error_code& ec) {
    return Failure{"walk error under " + root.string() + ": " + ec.message()};
  };
  const bool follows = static_cast<bool>(options.followLink);
  std::vector<FoundFile> found;
  std::error_code ec;
  // With links to follow, the walk enters every link to a directory unless told not to: each
  // entry that is not to be walked into says so.
  fs::recursive_directory_iterator it(
      root, follows ? fs::directory_options::follow_directory_symlink : fs::directory_options::none,
      ec);
  if (ec) return walkError(ec);
  Ancestors ancestors(root);
  for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) return walkError(ec);
    const fs::file_status status = it->symlink_status(ec);
    if (ec) {
      it.disable_recursion_pending();
      if (options.tolerant) continue;
      return walkError(ec);
    }
    std::string relative = it->path().lexically_relative(root).generic_string();
    bool directory = fs::is_directory(status);
    if (fs::is_symlink(status)) {
      std::error_code targetError;
      directory =
          follows && options.followLink(relative) && fs::is_directory(it->path(), targetError);
      if (!directory) {
        it.disable_recursion_pending();
        continue;
      }
    }
    if (!directory && !fs::is_regular_file(status)) continue;
    if (options.skip && options.skip(relative, directory)) {
      if (directory) it.disable_recursion_pending();
      continue;
    }
    if (directory) {
      if (follows && !ancestors.enter(it.depth(), it->path())) it.disable_recursion_pending();
      continue;
    }
    const std::uintmax_t size = it->file_size(ec);
    if (ec) {
      if (options.tolerant) continue;
      return Failure{"cannot stat " + it->path().string()};
    }
    found.push_back({std::move(relative), size});
  }
  if (ec) return walkError(ec);
  // std::string compares as unsigned bytes: upper-case before lower-case, UTF-8 in code point
  // order.
  std::sort(found.begin(), found.end(),
            [](const FoundFile& a, const FoundFile& b) { return a.path < b.path; });
  return found;
}

}  // namespace

ScanStats statsOf(const std::vector<ScannedFile>& files) {
  ScanStats stats;
  std::unordered_set<std::string_view> seen;
  for (const ScannedFile& file : files) {
    ++stats.files;
    stats.total_bytes += file.size;
    for (const ChunkRef& chunk : file.chunks) {
      if (!seen.insert(chunk.h).second) continue;
      ++stats.unique_chunks;
      stats.unique_bytes += chunk.n;
    }
  }
  return stats;
}

Result<TreeScan> scanTree(const fs::path& root, const ChunkerParams& params,
                          const ScannedFileCallback& onFile, const ScanOptions& options) {
  std::error_code ec;
  if (!fs::exists(root, ec)) return Failure{"path not found: " + root.string()};
  auto found = listFiles(root, options);
  if (!found) return Failure{found.error()};

  TreeScan scan;
  std::uint64_t chunkBudget = options.maxChunks;
  for (FoundFile& file : found.value()) {
    const std::uint64_t mostChunks = file.size / std::max<std::uint64_t>(params.min, 1) + 1;
    if (mostChunks > chunkBudget) continue;
    chunkBudget -= mostChunks;
    const fs::path full = root / file.path;
    auto chunks = chunkFile(full, params);
    if (!chunks) {
      if (options.tolerant) continue;
      return Failure{chunks.error()};
    }

    ScannedFile scanned{std::move(file.path), file.size, {}};
    scanned.chunks.reserve(chunks.value().size());
    std::uint64_t position = 0;
    bool gap = false;
    for (const Chunk& chunk : chunks.value()) {
      gap = gap || chunk.offset != position;
      position += chunk.length;
      scanned.chunks.push_back({chunk.hash, chunk.length});
    }
    // A file that grew or shrank since it was listed: its chunks describe neither size.
    if (options.tolerant && (gap || position != scanned.size)) continue;
    if (gap) return Failure{"chunk gap in " + full.string()};
    if (position != scanned.size) return Failure{"chunk coverage mismatch in " + full.string()};
    if (onFile) onFile(full, chunks.value());
    if (!options.collect) continue;
    scan.files.push_back(std::move(scanned));
  }
  scan.stats = statsOf(scan.files);
  return scan;
}

}  // namespace quill::rill
