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

bool FaultInjectingProvider::injected(Operation operation, const std::string& key,
                                      std::string* error) {
  std::lock_guard lock(mutex_);
  int& countdown = countdown_[static_cast<std::size_t>(operation)];
  if (countdown == 0 || --countdown > 0) return false;
  fail(error, std::string("injected failure: ") + operationName(operation) + " " + key);
  return true;
}

bool FaultInjectingProvider::put(const std::string& key, std::string_view body,
                                 std::string* error) {
  return !injected(Operation::kPut, key, error) && inner_->put(key, body, error);
}

bool FaultInjectingProvider::get(const std::string& key, std::string& body, std::string* error,
                                     std::uint64_t maxBytes) {
  if (injected(Operation::kGet, key, error) || !inner_->get(key, body, error, maxBytes)) return false;
  std::lock_guard lock(mutex_);
  if (corruptGets_ && !body.empty()) body.back() = static_cast<char>(body.back() ^ 0x01);
  return true;
}

std::optional<ObjectInfo> FaultInjectingProvider::exists(const std::string& key,
                                                         std::string* error) {
  if (injected(Operation::kExists, key, error)) return std::nullopt;
  return inner_->exists(key, error);
}

std::optional<std::vector<ObjectEntry>> FaultInjectingProvider::list(const std::string& prefix,
                                                                     std::string* error) {
  if (injected(Operation::kList, prefix, error)) return std::nullopt;
  auto entries = inner_->list(prefix, error);
  std::lock_guard lock(mutex_);
  if (!entries || dropText_.empty()) return entries;
  std::erase_if(*entries, [&](const ObjectEntry& entry) {
    return entry.key.find(dropText_) != std::string::npos;
  });
  return entries;
}

bool FaultInjectingProvider::remove(const std::string& key, std::string* error) {
  return !injected(Operation::kRemove, key, error) && inner_->remove(key, error);
}

std::string FaultInjectingProvider::chunkKey(const std::string& chunkId) const {
  return inner_->chunkKey(chunkId);
}

}  // namespace quill::rill
