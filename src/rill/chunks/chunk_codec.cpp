#include "rill/chunks/chunk_codec.h"

#include <zstd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "rill/chunks/chunk_id.h"

namespace quill::rill {

namespace {

constexpr std::size_t kRawBlockMax = 128 * 1024;  // zstd's largest block
constexpr std::uint8_t kMagic[4] = {0x28, 0xB5, 0x2F, 0xFD};

// The trial: a few slices spread over the chunk, compressed at zstd's fastest level. Data that
// level 1 cannot shrink by this much rarely gains enough at level 12 to pay for its cost.
constexpr std::size_t kSampleSlices = 4;
constexpr std::size_t kSampleSize = 32 * 1024;
constexpr double kWorthwhileRatio = 0.95;

struct CCtxDeleter {
  void operator()(ZSTD_CCtx* c) const { ZSTD_freeCCtx(c); }
};
struct DCtxDeleter {
  void operator()(ZSTD_DCtx* d) const { ZSTD_freeDCtx(d); }
};

// Compression contexts are lent out from a shared pool rather than kept per thread: a level 12
// context for a large chunk holds tens of MiB, and a publish runs many more threads than it
// compresses on at once. The pool grows to the largest number of compressions ever at the same
// time.
class CCtxPool {
 public:
  ZSTD_CCtx* take() {
    {
      std::lock_guard lock(mutex_);
      if (!free_.empty()) {
        ZSTD_CCtx* ctx = free_.back().release();
        free_.pop_back();
        return ctx;
      }
    }
    return ZSTD_createCCtx();
  }
  void give(ZSTD_CCtx* ctx) {
    std::lock_guard lock(mutex_);
    free_.emplace_back(ctx);
  }

 private:
  std::mutex mutex_;
  std::vector<std::unique_ptr<ZSTD_CCtx, CCtxDeleter>> free_;
};

CCtxPool& cctxPool() {
  static CCtxPool pool;
  return pool;
}

// A context borrowed from the pool for one scope.
class BorrowedCCtx {
 public:
  BorrowedCCtx() : ctx_(cctxPool().take()) {}
  ~BorrowedCCtx() { cctxPool().give(ctx_); }
  BorrowedCCtx(const BorrowedCCtx&) = delete;
  BorrowedCCtx& operator=(const BorrowedCCtx&) = delete;
  ZSTD_CCtx* get() const { return ctx_; }

 private:
  ZSTD_CCtx* ctx_;
};

ZSTD_DCtx* threadDCtx() {
  thread_local std::unique_ptr<ZSTD_DCtx, DCtxDeleter> ctx(ZSTD_createDCtx());
  return ctx.get();
}

bool looksCompressible(ZSTD_CCtx* ctx, std::string_view chunk) {
  if (chunk.size() <= kSampleSlices * kSampleSize) {
    const std::size_t bound = ZSTD_compressBound(chunk.size());
    std::string out(bound, '\0');
    const std::size_t n = ZSTD_compressCCtx(ctx, out.data(), bound, chunk.data(), chunk.size(), 1);
    return !ZSTD_isError(n) && static_cast<double>(n) < kWorthwhileRatio * chunk.size();
  }
  std::string out(ZSTD_compressBound(kSampleSize), '\0');
  std::size_t in = 0;
  std::size_t compressed = 0;
  const std::size_t stride = (chunk.size() - kSampleSize) / (kSampleSlices - 1);
  for (std::size_t i = 0; i < kSampleSlices; ++i) {
    const std::size_t n =
        ZSTD_compressCCtx(ctx, out.data(), out.size(), chunk.data() + i * stride, kSampleSize, 1);
    if (ZSTD_isError(n)) return false;
    in += kSampleSize;
    compressed += n;
  }
  return static_cast<double>(compressed) < kWorthwhileRatio * static_cast<double>(in);
}

void appendLittleEndian(std::string& out, std::uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
}

Failure corrupt(const std::string& id) {
  return Failure{"chunk " + id + " failed to decode/verify (corrupt or tampered)"};
}

bool hasZstdMagic(std::string_view object) {
  return object.size() >= 4 &&
         std::equal(kMagic, kMagic + 4, object.begin(),
                    [](std::uint8_t m, char c) { return m == static_cast<std::uint8_t>(c); });
}

}  // namespace

std::uint64_t maxChunkObjectSize(std::uint64_t length) {
  const std::uint64_t blocks = std::max<std::uint64_t>(1, (length + kRawBlockMax - 1) / kRawBlockMax);
  return length + 13 + 3 * blocks;
}

std::string rawZstdFrame(std::string_view chunk) {
  std::string out;
  const std::size_t blocks =
      std::max<std::size_t>(1, (chunk.size() + kRawBlockMax - 1) / kRawBlockMax);
  out.reserve(chunk.size() + 13 + 3 * blocks);
  out.append(reinterpret_cast<const char*>(kMagic), 4);
  // Frame header: single segment (the window is the content), 4- or 8-byte content size.
  const bool large = chunk.size() > 0xFFFFFFFFull;
  out.push_back(static_cast<char>((large ? 0xC0 : 0x80) | 0x20));
  appendLittleEndian(out, chunk.size(), large ? 8 : 4);
  std::size_t at = 0;
  do {
    const std::size_t size = std::min(kRawBlockMax, chunk.size() - at);
    const bool last = at + size == chunk.size();
    // Block header: last-block bit, type 0 (raw), 21-bit size.
    appendLittleEndian(out, (static_cast<std::uint64_t>(size) << 3) | (last ? 1 : 0), 3);
    out.append(chunk.data() + at, size);
    at += size;
  } while (at < chunk.size());
  return out;
}

std::string encodeChunk(std::string_view chunk, bool compress) {
  if (!compress) return std::string(chunk);
  const BorrowedCCtx ctx;
  if (!looksCompressible(ctx.get(), chunk)) return rawZstdFrame(chunk);
  std::string out(ZSTD_compressBound(chunk.size()), '\0');
  const std::size_t n = ZSTD_compressCCtx(ctx.get(), out.data(), out.size(), chunk.data(),
                                          chunk.size(), kChunkCompressionLevel);
  const std::size_t rawSize =
      9 + chunk.size() + 3 * ((chunk.size() + kRawBlockMax - 1) / kRawBlockMax);
  if (ZSTD_isError(n) || n >= rawSize) return rawZstdFrame(chunk);
  out.resize(n);
  return out;
}

Result<std::string> decodeChunk(std::string_view object, const ChunkRef& expected) {
  if (hasZstdMagic(object)) {
    // The declared size comes from the store: never trust it beyond the manifest's length.
    std::string out(expected.n, '\0');
    const std::size_t n =
        ZSTD_decompressDCtx(threadDCtx(), out.data(), out.size(), object.data(), object.size());
    if (!ZSTD_isError(n)) {
      out.resize(n);
      if (chunkId(out) == expected.h) {
        if (n != expected.n) return Failure{"chunk size mismatch for " + expected.h};
        return out;
      }
    }
  }
  if (chunkId(object) != expected.h) return corrupt(expected.h);
  if (object.size() != expected.n) return Failure{"chunk size mismatch for " + expected.h};
  return std::string(object);
}

}  // namespace quill::rill
