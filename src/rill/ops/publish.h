#pragma once
// Publishing a directory as a Rill build: scan, upload the chunks the store lacks, then the
// manifest, then (with a signing key) its signature.

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>

#include "rill/chunks/chunker.h"
#include "rill/chunks/manifest.h"
#include "rill/result.h"
#include "rill/providers/storage_provider.h"
#include "rill/chunks/tree_scan.h"

namespace quill::rill {

// Where a running publish stands; handed to the progress callback.
struct PublishProgress {
  std::uint64_t chunksDone = 0;   // distinct chunks checked (present, or uploaded)
  std::uint64_t chunksFound = 0;  // distinct chunks the scan has found so far
  std::uint64_t bytesFound = 0;   // their bytes (uncompressed)
  bool scanned = false;           // the scan is over: chunksFound and bytesFound are the totals
  std::uint64_t bytesDone = 0;    // chunk bytes (uncompressed) of the chunks done
  std::uint64_t uploaded = 0;     // chunks uploaded
  std::uint64_t storedBytes = 0;  // object bytes uploaded
};

struct PublishOptions {
  std::string channel;
  std::string build;
  std::string created;
  bool force = false;      // replace an existing manifest of the channel
  std::string signingKey;  // hexadecimal secret key; empty: no signature
  bool compress = true;    // store chunks as zstd frames
  ChunkerParams chunker;
  // What the scan leaves out and which links it follows. With `scan.tolerant`, a file whose chunks
  // no longer read back as scanned (rewritten or removed meanwhile) is left out of the manifest
  // too, instead of failing the publish.
  ScanOptions scan;
  std::size_t cpuThreads = 0;       // chunks compressed at once; 0: the number of cores
  std::size_t checkThreads = 0;     // existence checks at once; 0: 64
  std::size_t transferThreads = 0;  // chunks read, compressed or uploaded at once; 0: 4 per core
  // Called from worker threads after each chunk, one call at a time.
  std::function<void(const PublishProgress&)> progress;
};

struct PublishReport {
  Manifest manifest;
  std::uint64_t uploaded = 0;     // chunks the store lacked
  std::uint64_t present = 0;      // chunks found in the store already
  std::uint64_t storedBytes = 0;  // object bytes of those uploaded
};

// Publishes `dir` to `options.channel` in `store`, in this order, stopping at the first failure:
// the signing key is checked ("bad secret key (need 64-byte hex)"); the store is asked for the
// channel's manifest ("cannot reach store: <reason>"); an existing one stops the publish unless
// forced ("channel '<channel>' already published (use --force to overwrite)"); the tree is scanned
// (the scan's messages) while each distinct chunk, as soon as it is found, is checked with
// `exists` ("HEAD failed: <reason>"), unless a listing of "chunks/" made meanwhile already showed
// it, and, when absent, re-read and re-hashed from its file (the
// messages of readChunkAt, unless the scan is tolerant), encoded and stored under its chunk key
// ("PUT failed: <reason>"); then the manifest and the signature are put ("PUT failed: <reason>"),
// and read back ("GET failed: <reason>", "HEAD failed: <reason>"): when they are no longer the ones
// just written, another publish of the channel ran at the same time ("another publish replaced
// channel '<channel>' meanwhile - publish again"). Checks run on a pool of `checkThreads` workers;
// a chunk found missing is read, compressed and uploaded by one of them once it holds one of
// `transferThreads` slots, so at most that many chunks are in memory, and at most `cpuThreads` are
// compressed at once. Nothing is rolled back on failure: chunks are content-addressed, so a later
// publish reuses them.
Result<PublishReport> publishDirectory(StorageProvider& store, const std::filesystem::path& dir,
                                       const PublishOptions& options);

}  // namespace quill::rill
