// The reference for publishing speed: how long one core needs to compress every distinct chunk of
// a tree at the store's level (12), with the same chunking as a publish and nothing else; and,
// beside it, a whole publish of the tree into a store held in memory, which is the publisher's own
// cost without any network or store behind it.
//
//   rill_compress_baseline <dir>
//
// Prints "bytes <n> compressed <n> seconds <s>" for the compression alone (the scan is not timed),
// then "memory-publish wall <s> cpu <s>".

#include <sys/resource.h>
#include <zstd.h>

#include <chrono>
#include <cstdio>
#include <unordered_set>

#include "rill/chunks/chunk_reader.h"
#include "rill/providers/memory_provider.h"
#include "rill/ops/publish.h"
#include "rill/chunks/tree_scan.h"

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: rill_compress_baseline <dir>\n");
    return 1;
  }
  struct Piece {
    std::filesystem::path file;
    quill::rill::Chunk chunk;
  };
  std::vector<Piece> pieces;
  std::unordered_set<std::string> seen;
  auto scan = quill::rill::scanTree(
      argv[1], {},
      [&](const std::filesystem::path& file, const std::vector<quill::rill::Chunk>& cs) {
        for (const auto& c : cs) {
          if (seen.insert(c.hash).second) pieces.push_back({file, c});
        }
      });
  if (!scan) {
    std::fprintf(stderr, "%s\n", scan.error().c_str());
    return 1;
  }
  ZSTD_CCtx* ctx = ZSTD_createCCtx();
  std::uint64_t in = 0;
  std::uint64_t out = 0;
  double seconds = 0;
  for (const Piece& p : pieces) {
    auto bytes = quill::rill::readChunkAt(p.file, p.chunk.offset, p.chunk.length, p.chunk.hash);
    if (!bytes) {
      std::fprintf(stderr, "%s\n", bytes.error().c_str());
      return 1;
    }
    std::string packed(ZSTD_compressBound(bytes.value().size()), '\0');
    const auto start = std::chrono::steady_clock::now();
    const std::size_t n = ZSTD_compressCCtx(ctx, packed.data(), packed.size(), bytes.value().data(),
                                            bytes.value().size(), 12);
    seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    in += bytes.value().size();
    out += ZSTD_isError(n) ? bytes.value().size() : n;
  }
  ZSTD_freeCCtx(ctx);
  std::printf("bytes %llu compressed %llu seconds %.2f\n", static_cast<unsigned long long>(in),
              static_cast<unsigned long long>(out), seconds);

  const auto cpu = [] {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  };
  quill::rill::MemoryProvider memory;
  quill::rill::PublishOptions options;
  options.channel = "reference";
  const double cpuBefore = cpu();
  const auto start = std::chrono::steady_clock::now();
  auto published = quill::rill::publishDirectory(memory, argv[1], options);
  const double wall =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  if (!published) {
    std::fprintf(stderr, "%s\n", published.error().c_str());
    return 1;
  }
  std::printf("memory-publish wall %.2f cpu %.2f\n", wall, cpu() - cpuBefore);
  return 0;
}
