#pragma once
// A number of bytes shared by the requests that hold data in memory at once: each takes what it
// needs before it reads, waits while the others hold too much, and gives it back when done. Many
// small requests run side by side; the largest runs alone. Takers are served in order of arrival,
// so a large one is never starved by a stream of small ones.
//
// Thread safety: every member may be called from any thread.

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace quill::base {

class ByteBudget {
 public:
  explicit ByteBudget(std::uint64_t total) : total_(total) {}

  // Holds a share of the budget until it is destroyed.
  class Lease {
   public:
    Lease(ByteBudget& owner, std::uint64_t bytes) : owner_(owner), bytes_(bytes) {}
    ~Lease() { owner_.give(bytes_); }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

   private:
    ByteBudget& owner_;
    std::uint64_t bytes_;
  };

  std::uint64_t total() const { return total_; }

  // Blocks until every earlier taker has its share and `bytes` (more than total() counts as
  // total()) are free, then holds them.
  [[nodiscard]] Lease take(std::uint64_t bytes);

 private:
  void give(std::uint64_t bytes);

  const std::uint64_t total_;
  std::uint64_t used_ = 0;
  std::uint64_t nextTicket_ = 0;  // handed to the next taker
  std::uint64_t serving_ = 0;     // the ticket whose turn it is
  std::mutex mutex_;
  std::condition_variable freed_;
};

}  // namespace quill::base
