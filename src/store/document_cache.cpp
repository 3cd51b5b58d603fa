#include "store/document_cache.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/json_reader.h"
#include "base/unique_fd.h"

namespace quill::store {

namespace {

bool readAll(int fd, std::string& out) {
  char buffer[8192];
  while (true) {
    const ssize_t n = ::read(fd, buffer, sizeof buffer);
    if (n > 0) {
      out.append(buffer, static_cast<std::size_t>(n));
      continue;
    }
    if (n == 0) return true;
    if (errno != EINTR) return false;
  }
}

}  // namespace

std::optional<DocumentCache::Entry> DocumentCache::load(const std::filesystem::path& path) {
  base::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd) return std::nullopt;
  auto stamp = stampOfFd(fd.get());
  if (!stamp || !stamp->regular) return std::nullopt;
  std::string text;
  if (!readAll(fd.get(), text)) return std::nullopt;
  Entry entry{*stamp, nullptr};
  if (auto parsed = base::parseJsonObject(text)) {
    entry.document = std::make_shared<const Json::Value>(std::move(*parsed));
  }
  return entry;
}

std::optional<Json::Value> DocumentCache::read(const std::filesystem::path& path) {
  const std::string key = path.string();
  const auto stamp = stampOf(path);
  std::shared_ptr<const Json::Value> document;
  {
    std::lock_guard lock(mutex_);
    auto found = entries_.find(key);
    if (!stamp || !stamp->regular) {
      if (found != entries_.end()) entries_.erase(found);
      return std::nullopt;
    }
    if (found != entries_.end() && found->second.stamp == *stamp) {
      if (!found->second.document) return std::nullopt;
      document = found->second.document;
    }
  }
  if (document) return *document;

  auto loaded = load(path);
  if (!loaded) return std::nullopt;
  document = loaded->document;
  {
    std::lock_guard lock(mutex_);
    if (entries_.size() >= capacity_ && !entries_.contains(key)) entries_.clear();
    entries_.insert_or_assign(key, std::move(*loaded));
  }
  if (!document) return std::nullopt;
  return *document;
}

}  // namespace quill::store
