#pragma once
// The manifest of a Rill build: which files, cut into which chunks, published to which channel.
// It is what a store holds at "channels/<channel>/manifest.json", with the chunks it names beside
// it and, when signed, a detached signature at the manifest key + ".sig".

#include <string>
#include <string_view>

#include "rill/chunks/chunker.h"
#include "rill/result.h"
#include "rill/chunks/tree_scan.h"

namespace quill::rill {

inline constexpr int kManifestSchema = 1;
inline constexpr const char* kChunkerAlgo = "fastcdc-gear";
// A manifest longer than this is refused unread: some 300,000 chunks, over a terabyte of build at
// the default chunk sizes, while parsing it stays far below a few hundred MiB.
inline constexpr std::uint64_t kMaxManifestBytes = 32 * 1024 * 1024;
// The chunker sizes a reader accepts: beyond them a store could make a reader cut an existing
// directory into millions of chunks, or hold gigabytes per chunk.
inline constexpr std::uint64_t kMinChunkerSize = 1024;
inline constexpr std::uint64_t kMaxChunkerSize = 64 * 1024 * 1024;
// A signature object is 128 hexadecimal characters; anything much longer is not one.
inline constexpr std::uint64_t kMaxSignatureBytes = 4096;

struct Manifest {
  ChunkerParams chunker;
  std::string channel;
  std::string build;
  std::string created;  // UTC publication time
  TreeScan tree;        // files in path order, and their statistics
};

// "channels/" + channel + "/manifest.json", and the signature beside it.
std::string manifestKey(std::string_view channel);
std::string signatureKey(std::string_view channel);

// The stored form: JSON with two-space indentation, members in ascending order, a final newline.
std::string serializeManifest(const Manifest& manifest);

// Reads the stored form. Fails with "manifest parse error: <reason>" when the text is not a
// manifest (longer than kMaxManifestBytes, not JSON or nested too deep, a member missing or of the
// wrong type, chunker sizes outside kMinChunkerSize..kMaxChunkerSize, a chunk id that is not 64
// lower-case hexadecimal characters, a chunk of 0 bytes or longer than the chunker's `max`, chunk
// lengths that do not add up to the file size) and with "unsupported manifest schema" when
// `schema` is not 1. Never throws; memory stays proportional to the text. File paths are not judged here (see
// isSafeManifestPath).
Result<Manifest> parseManifest(std::string_view text);

// True for a relative path of forward-slash segments, none empty, "." or "..", without a drive or
// backslash: the only paths a pull writes.
bool isSafeManifestPath(std::string_view path);

// The channel a manifest must be for; fails with
// "manifest is for channel '<found>', not '<requested>'".
Result<bool> checkManifestChannel(const Manifest& manifest, std::string_view requested);

}  // namespace quill::rill
