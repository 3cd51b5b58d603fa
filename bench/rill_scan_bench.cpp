// Scan throughput of one large file from the page cache: the whole scan (read, cut-point search and
// BLAKE3 of every chunk) against the cut-point search alone and BLAKE3 alone, on the same bytes.
//
//   rill_scan_bench [--benchmark_...]   with QUILL_BENCH_FILE (default /tmp/quill-rill-scan.bin)
//                                       and QUILL_BENCH_MIB (default 1024)
//
// The file is made once, of deterministic pseudo-random bytes, so chunks are cut by content.

#include <benchmark/benchmark.h>
#include <blake3.h>
#include <sys/resource.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "rill/chunks/chunker.h"
#include "rill/chunks/file_chunker.h"

namespace {

namespace fs = std::filesystem;
using quill::rill::ChunkerParams;

fs::path benchFile() {
  const char* path = std::getenv("QUILL_BENCH_FILE");
  return path ? path : "/tmp/quill-rill-scan.bin";
}

std::uint64_t benchBytes() {
  const char* mib = std::getenv("QUILL_BENCH_MIB");
  return (mib ? std::strtoull(mib, nullptr, 10) : 1024) << 20;
}

// Makes the file once, streamed in 1 MiB pieces.
const fs::path& ensureFile() {
  static const fs::path path = [] {
    const fs::path file = benchFile();
    std::error_code ec;
    if (fs::file_size(file, ec) == benchBytes()) return file;
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    std::vector<std::uint64_t> piece(131072);
    std::uint64_t x = 0x9E3779B97F4A7C15ULL;  // xorshift64*
    for (std::uint64_t written = 0; written < benchBytes(); written += piece.size() * 8) {
      for (auto& word : piece) {
        x ^= x >> 12;
        x ^= x << 25;
        x ^= x >> 27;
        word = x * 0x2545F4914F6CDD1DULL;
      }
      out.write(reinterpret_cast<const char*>(piece.data()),
                static_cast<std::streamsize>(piece.size() * 8));
    }
    return file;
  }();
  return path;
}

// The file's bytes in memory, for the stages measured alone; reading them also warms the page
// cache.
const std::vector<std::uint8_t>& content() {
  static const std::vector<std::uint8_t> bytes = [] {
    std::vector<std::uint8_t> data(benchBytes());
    std::ifstream(ensureFile(), std::ios::binary)
        .read(reinterpret_cast<char*>(data.data()), static_cast<std::streamsize>(data.size()));
    return data;
  }();
  return bytes;
}

// Every benchmark reports the same counters (the CSV format needs that). Run alone
// (--benchmark_filter=ScanFile), peak_rss_mib is the memory the scan itself needs; with the others
// it includes the file's bytes held in memory.
void report(benchmark::State& state, std::uint64_t bytes, std::size_t chunks) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
  state.counters["chunks"] = static_cast<double>(chunks);
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  state.counters["peak_rss_mib"] = static_cast<double>(usage.ru_maxrss) / 1024.0;
}

void BM_CutPointSearch(benchmark::State& state) {
  const auto& data = content();
  const ChunkerParams params;
  std::size_t chunks = 0;
  for (auto _ : state) {
    chunks = 0;
    for (std::uint64_t at = 0; at < data.size(); ++chunks) {
      at += quill::rill::findCutPoint(data.data() + at, data.size() - at, params);
    }
    benchmark::DoNotOptimize(chunks);
  }
  report(state, data.size(), chunks);
}

void BM_ScanFile(benchmark::State& state) {
  const fs::path& file = ensureFile();
  std::size_t chunks = 0;
  for (auto _ : state) {
    auto result = quill::rill::chunkFile(file, ChunkerParams{});
    if (!result) {
      state.SkipWithError(result.error().c_str());
      break;
    }
    chunks = result.value().size();
  }
  report(state, fs::file_size(file), chunks);
}

void BM_Blake3OneThread(benchmark::State& state) {
  const auto& data = content();
  for (auto _ : state) {
    blake3_hasher hasher;
    blake3_hasher_init(&hasher);
    blake3_hasher_update(&hasher, data.data(), data.size());
    std::uint8_t digest[BLAKE3_OUT_LEN];
    blake3_hasher_finalize(&hasher, digest, sizeof digest);
    benchmark::DoNotOptimize(digest);
  }
  report(state, data.size(), 1);
}

// Wall-clock time: the scan uses two threads, and that is what a caller waits for.
BENCHMARK(BM_CutPointSearch)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->Repetitions(5);
BENCHMARK(BM_ScanFile)->UseRealTime()->Unit(benchmark::kMillisecond)->Iterations(3)->Repetitions(5);
BENCHMARK(BM_Blake3OneThread)
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->Iterations(3)
    ->Repetitions(5);

}  // namespace

BENCHMARK_MAIN();
