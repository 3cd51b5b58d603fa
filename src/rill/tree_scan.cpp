#include "rill/tree_scan.h"

#include <algorithm>
#include <system_error>
#include <unordered_set>
#include <utility>

#include "rill/file_chunker.h"

namespace quill::rill {

namespace fs = std::filesystem;

namespace {

struct FoundFile {
  std::string path;  // relative, forward slashes
  std::uint64_t size = 0;
};

Result<std::vector<FoundFile>> listFiles(const fs::path& root, const ScanOptions& options) {
  const auto walkError = [&](const std::error_code& ec) {
    return Failure{"walk error under " + root.string() + ": " + ec.message()};
  };
  std::vector<FoundFile> found;
  std::error_code ec;
  fs::recursive_directory_iterator it(root, ec);
  if (ec) return walkError(ec);
  for (; it != fs::recursive_directory_iterator(); it.increment(ec)) {
    if (ec) return walkError(ec);
    const fs::file_status status = it->symlink_status(ec);
    if (ec) {
      if (options.tolerant) continue;
      return walkError(ec);
    }
    const bool directory = fs::is_directory(status);
    if (!directory && !fs::is_regular_file(status)) continue;
    std::string relative = it->path().lexically_relative(root).generic_string();
    if (options.skip && options.skip(relative, directory)) {
      if (directory) it.disable_recursion_pending();
      continue;
    }
    if (directory) continue;
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

Result<TreeScan> scanTree(const fs::path& root, const ChunkerParams& params,
                          const ScannedFileCallback& onFile, const ScanOptions& options) {
  std::error_code ec;
  if (!fs::exists(root, ec)) return Failure{"path not found: " + root.string()};
  auto found = listFiles(root, options);
  if (!found) return Failure{found.error()};

  TreeScan scan;
  std::unordered_set<std::string> seen;
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
    for (const ChunkRef& chunk : scanned.chunks) {
      if (seen.insert(chunk.h).second) {
        ++scan.stats.unique_chunks;
        scan.stats.unique_bytes += chunk.n;
      }
    }
    ++scan.stats.files;
    scan.stats.total_bytes += scanned.size;
    scan.files.push_back(std::move(scanned));
  }
  return scan;
}

}  // namespace quill::rill
