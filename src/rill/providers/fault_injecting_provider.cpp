#include "rill/providers/fault_injecting_provider.h"

#include <utility>

namespace quill::rill {

namespace {

const char* operationName(FaultInjectingProvider::Operation operation) {
  switch (operation) {
    case FaultInjectingProvider::Operation::kPut:
      return "put";
    case FaultInjectingProvider::Operation::kGet:
      return "get";
    case FaultInjectingProvider::Operation::kExists:
      return "exists";
    case FaultInjectingProvider::Operation::kList:
      return "list";
    case FaultInjectingProvider::Operation::kRemove:
      return "remove";
  }
  return "?";
}

}  // namespace

FaultInjectingProvider::FaultInjectingProvider(StorageProviderPtr inner)
    : inner_(std::move(inner)) {}

void FaultInjectingProvider::failNth(Operation operation, int n) {
  std::lock_guard lock(mutex_);
  countdown_[static_cast<std::size_t>(operation)] = n;
}

void FaultInjectingProvider::corruptGets(bool on) {
  std::lock_guard lock(mutex_);
  corruptGets_ = on;
}

void FaultInjectingProvider::dropListEntriesContaining(std::string text) {
  std::lock_guard lock(mutex_);
  dropText_ = std::move(text);
}

std::optional<Failure> FaultInjectingProvider::injected(Operation operation,
                                                        const std::string& key) {
  std::lock_guard lock(mutex_);
  int& countdown = countdown_[static_cast<std::size_t>(operation)];
  if (countdown == 0 || --countdown > 0) return std::nullopt;
  return Failure(std::string("injected failure: ") + operationName(operation) + " " + key);
}

Result<bool> FaultInjectingProvider::put(const std::string& key, std::string_view body) {
  if (auto failure = injected(Operation::kPut, key)) return *failure;
  return inner_->put(key, body);
}

Result<std::string> FaultInjectingProvider::get(const std::string& key, std::uint64_t maxBytes) {
  if (auto failure = injected(Operation::kGet, key)) return *failure;
  auto body = inner_->get(key, maxBytes);
  std::lock_guard lock(mutex_);
  if (body && corruptGets_ && !body.value().empty()) {
    char& last = body.value().back();
    last = static_cast<char>(last ^ 0x01);
  }
  return body;
}

Result<ObjectInfo> FaultInjectingProvider::exists(const std::string& key) {
  if (auto failure = injected(Operation::kExists, key)) return *failure;
  return inner_->exists(key);
}

Result<std::vector<ObjectEntry>> FaultInjectingProvider::list(const std::string& prefix) {
  if (auto failure = injected(Operation::kList, prefix)) return *failure;
  auto entries = inner_->list(prefix);
  std::lock_guard lock(mutex_);
  if (!entries || dropText_.empty()) return entries;
  std::erase_if(entries.value(), [&](const ObjectEntry& entry) {
    return entry.key.find(dropText_) != std::string::npos;
  });
  return entries;
}

Result<bool> FaultInjectingProvider::remove(const std::string& key) {
  if (auto failure = injected(Operation::kRemove, key)) return *failure;
  return inner_->remove(key);
}

std::string FaultInjectingProvider::chunkKey(const std::string& chunkId) const {
  return inner_->chunkKey(chunkId);
}

}  // namespace quill::rill
