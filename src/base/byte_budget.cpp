#include "base/byte_budget.h"

#include <algorithm>

namespace quill::base {

ByteBudget::Lease ByteBudget::take(std::uint64_t bytes) {
  bytes = std::min(bytes, total_);
  std::unique_lock lock(mutex_);
  const std::uint64_t ticket = nextTicket_++;
  freed_.wait(lock, [&] { return ticket == serving_ && total_ - used_ >= bytes; });
  used_ += bytes;
  ++serving_;
  lock.unlock();
  freed_.notify_all();  // the next in line may fit beside us
  return Lease(*this, bytes);
}

void ByteBudget::give(std::uint64_t bytes) {
  {
    std::lock_guard lock(mutex_);
    used_ -= bytes;
  }
  freed_.notify_all();
}

}  // namespace quill::base
