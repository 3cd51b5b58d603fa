#include "rill/chunks/file_chunker.h"

#include <blake3.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <thread>

#include "base/hex.h"
#include "base/unique_fd.h"

namespace quill::rill {

namespace {

constexpr std::size_t kBlockSize = 1048576;
// Blocks in flight between reading, the cut-point search and hashing: enough read-ahead to ride
// out scheduling hiccups, far below one maximal chunk.
constexpr std::size_t kPipelineBlocks = 8;
// Smaller files are chunked on the calling thread alone: a second thread would cost more to start
// than it saves.
constexpr std::uint64_t kPipelineFrom = 8 * kBlockSize;

struct Block {
  std::unique_ptr<std::uint8_t[]> bytes =
      std::make_unique_for_overwrite<std::uint8_t[]>(kBlockSize);
  std::size_t size = 0;
  bool last = false;              // nothing follows this block
  bool failed = false;            // reading failed; `size` bytes before the failure are valid
  std::vector<std::size_t> cuts;  // ends of the chunks that end inside this block, ascending
};

class FileHandle {
 public:
  explicit FileHandle(const std::filesystem::path& path)
      : fd_(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_) ::posix_fadvise(fd_.get(), 0, 0, POSIX_FADV_SEQUENTIAL);  // larger read-ahead
  }

  bool isOpen() const { return fd_.valid(); }

  std::uint64_t sizeHint() const {
    struct stat st {};
    return ::fstat(fd_.get(), &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
  }

  // Fills `block` with the next bytes of the file: a full block unless the file ends or a read
  // fails first.
  void read(Block& block) const {
    block.size = 0;
    block.last = false;
    block.failed = false;
    block.cuts.clear();
    while (block.size < kBlockSize) {
      const ssize_t got =
          ::read(fd_.get(), block.bytes.get() + block.size, kBlockSize - block.size);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        block.last = true;
        block.failed = got < 0;
        return;
      }
      block.size += static_cast<std::size_t>(got);
    }
  }

 private:
  base::UniqueFd fd_;
};

// Records in `block.cuts` where chunks end inside it; at the end of the file the open chunk ends.
void findCuts(CutFinder& finder, Block& block) {
  std::size_t from = 0;
  while (from < block.size) {
    const auto cut = finder.next(block.bytes.get() + from, block.size - from);
    if (!cut) break;
    from += *cut;
    block.cuts.push_back(from);
  }
  if (block.last && finder.finish()) block.cuts.push_back(block.size);
}

// Hashes the bytes of consecutive blocks and turns them into chunk records at the recorded cuts.
class ChunkHasher {
 public:
  explicit ChunkHasher(std::vector<Chunk>& out) : out_(out) { blake3_hasher_init(&hasher_); }

  void consume(const Block& block) {
    std::size_t from = 0;
    for (std::size_t end : block.cuts) {
      add(block.bytes.get() + from, end - from);
      emit();
      from = end;
    }
    add(block.bytes.get() + from, block.size - from);
  }

 private:
  void add(const std::uint8_t* bytes, std::size_t size) {
    blake3_hasher_update(&hasher_, bytes, size);
    length_ += size;
  }

  void emit() {
    std::uint8_t digest[BLAKE3_OUT_LEN];
    blake3_hasher_finalize(&hasher_, digest, sizeof digest);
    out_.push_back({offset_, length_, base::toHex(std::span<const std::uint8_t>(digest))});
    offset_ += length_;
    length_ = 0;
    blake3_hasher_reset(&hasher_);
  }

  std::vector<Chunk>& out_;
  blake3_hasher hasher_;
  std::uint64_t offset_ = 0;
  std::uint64_t length_ = 0;
};

// Reads, cuts and hashes one block after the other on the calling thread. Returns false on a read
// failure.
bool chunkInline(const FileHandle& file, CutFinder& finder, ChunkHasher& hasher) {
  Block block;
  do {
    file.read(block);
    if (block.failed) return false;
    findCuts(finder, block);
    hasher.consume(block);
  } while (!block.last);
  return true;
}

// The same on two threads. The calling thread searches the cut points, the one inherently
// sequential stage; a worker hashes the blocks whose cuts are known. Reading (a copy out of the
// page cache) is done by whichever thread would otherwise wait, so neither stage starves: the
// worker reads ahead while hashing leaves it time, the cutter reads for itself when nothing is
// queued for it. A fixed set of blocks circulates: idle -> read -> cut -> hashed -> idle.
class Pipeline {
 public:
  Pipeline(const FileHandle& file, CutFinder& finder, ChunkHasher& hasher)
      : file_(file), finder_(finder), hasher_(hasher), blocks_(kPipelineBlocks) {
    for (Block& block : blocks_) idle_.push_back(&block);
  }

  // Returns false on a read failure.
  bool run() {
    std::thread worker([this] { hashAll(); });
    cutAll();
    worker.join();
    return !failed_;
  }

 private:
  void cutAll() {
    for (;;) {
      Block* block = next(toCut_);
      if (!block) continue;  // read one itself, or woke up: look again
      const bool last = block->last;
      if (!block->failed) findCuts(finder_, *block);
      finished(toHash_, block);
      if (last) return;
    }
  }

  void hashAll() {
    for (;;) {
      Block* block = next(toHash_);
      if (!block) continue;
      const bool last = block->last;
      if (block->failed) {
        failed_ = true;  // read by the calling thread only after join()
      } else {
        hasher_.consume(*block);
      }
      if (last) return;
      finished(idle_, block);
    }
  }

  // The next block of `queue`, or null after this thread has read a block or waited.
  Block* next(std::deque<Block*>& queue) {
    std::unique_lock lock(mutex_);
    if (!queue.empty()) {
      Block* block = queue.front();
      queue.pop_front();
      return block;
    }
    if (canRead()) {
      readOne(lock);
      return nullptr;
    }
    changed_.wait(lock, [&] { return !queue.empty() || canRead(); });
    return nullptr;
  }

  bool canRead() const { return !reading_ && !readDone_ && !idle_.empty(); }

  // Reads into an idle block outside the lock; only one read runs at a time, so blocks are queued
  // for cutting in file order.
  void readOne(std::unique_lock<std::mutex>& lock) {
    Block* block = idle_.back();
    idle_.pop_back();
    reading_ = true;
    lock.unlock();
    file_.read(*block);
    lock.lock();
    reading_ = false;
    readDone_ = block->last;
    toCut_.push_back(block);
    changed_.notify_all();
  }

  void finished(std::deque<Block*>& queue, Block* block) {
    {
      std::lock_guard lock(mutex_);
      queue.push_back(block);
    }
    changed_.notify_all();
  }

  const FileHandle& file_;
  CutFinder& finder_;
  ChunkHasher& hasher_;
  std::vector<Block> blocks_;
  bool failed_ = false;

  std::mutex mutex_;  // guards everything below
  std::condition_variable changed_;
  std::deque<Block*> idle_;
  std::deque<Block*> toCut_;
  std::deque<Block*> toHash_;
  bool reading_ = false;
  bool readDone_ = false;
};

}  // namespace

Result<std::vector<Chunk>> chunkFile(const std::filesystem::path& path,
                                     const ChunkerParams& params) {
  const FileHandle file(path);
  if (!file.isOpen()) return Failure{"cannot open " + path.string()};
  std::vector<Chunk> chunks;
  CutFinder finder(params);
  ChunkHasher hasher(chunks);
  const bool ok = file.sizeHint() >= kPipelineFrom ? Pipeline(file, finder, hasher).run()
                                                   : chunkInline(file, finder, hasher);
  if (!ok) return Failure{"read error on " + path.string()};
  return chunks;
}

}  // namespace quill::rill
