#pragma once
// Scans a directory tree into per-file chunk lists and statistics: the content of a manifest.

#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "rill/chunks/chunker.h"
#include "rill/chunks/file_chunker.h"
#include "rill/result.h"

namespace quill::rill {

// One chunk of a file as a manifest lists it.
struct ChunkRef {
  std::string h;      // chunk id
  std::uint64_t n{};  // length in bytes

  bool operator==(const ChunkRef&) const = default;
};

struct ScannedFile {
  std::string path;  // relative to the root, forward slashes
  std::uint64_t size = 0;
  std::vector<ChunkRef> chunks;  // in file order; empty for an empty file

  bool operator==(const ScannedFile&) const = default;
};

struct ScanStats {
  std::uint64_t files = 0;
  std::uint64_t unique_chunks = 0;  // distinct chunk ids
  std::uint64_t total_bytes = 0;    // sum of file sizes
  std::uint64_t unique_bytes = 0;   // sum of the lengths of distinct chunks

  bool operator==(const ScanStats&) const = default;
};

struct TreeScan {
  std::vector<ScannedFile> files;  // ascending byte order of `path`
  ScanStats stats;
};

// Chunks every regular file under `root` (recursively; symbolic links are neither taken nor
// followed unless `options.followLink` says so) in ascending byte order of relative path, so the
// same tree always gives the same result. Fails with "path not found: <root>", "walk error under
// <root>: <reason>", "cannot stat <path>", the file chunker's messages, or the consistency guards
// "chunk gap in <path>" and "chunk coverage mismatch in <path>" (a file that changed under us).
// Requires valid `params`.
//
// `onFile`, when given, is called on the calling thread after each file passed its checks, with
// the file's full path and its chunks (with offsets), so that work on them can start while the
// scan goes on.
using ScannedFileCallback =
    std::function<void(const std::filesystem::path& file, const std::vector<Chunk>& chunks)>;

// What a scan leaves out.
struct ScanOptions {
  // Called with each entry's relative path (forward slashes) and whether it is a directory; true
  // leaves it out, with everything below it.
  std::function<bool(std::string_view relative, bool directory)> skip;
  // A file that cannot be read, vanishes or changes size while it is chunked is left out instead
  // of failing the scan: for trees that others write to while they are scanned.
  bool tolerant = false;
  // Without `collect` the result holds no files and no statistics: only `onFile` sees each file's
  // chunks, so memory does not grow with the tree.
  bool collect = true;
  // Files are chunked only while the chunks they can hold (size / min + 1 each) add up to at most
  // this many; the others are left out. Bounds the work that foreign chunker sizes can cause.
  std::uint64_t maxChunks = UINT64_MAX;
  // Called with the relative path of each symbolic link; true walks a link to a directory as if it
  // were that directory (paths below it read as if the link were one). A link back to a directory
  // the walk is already inside is not followed, so a loop ends the walk there.
  std::function<bool(std::string_view relative)> followLink;
};

// The statistics of `files` as a scan counts them (a chunk id found twice counts once).
ScanStats statsOf(const std::vector<ScannedFile>& files);

Result<TreeScan> scanTree(const std::filesystem::path& root, const ChunkerParams& params,
                          const ScannedFileCallback& onFile = {}, const ScanOptions& options = {});

}  // namespace quill::rill
