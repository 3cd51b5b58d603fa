#include "store/token_index.h"

#include <sys/stat.h>

#include <chrono>
#include <system_error>

#include "store/documents.h"

namespace quill::store {

namespace fs = std::filesystem;

namespace {

// A directory time this close to "now" may still change within the same clock tick without the
// time moving, so it does not prove the directory unchanged.
constexpr std::int64_t kSettleNs = 1'000'000'000;

struct FileStamp {
  std::uint64_t inode = 0;
  std::int64_t modifiedNs = 0;
};

std::optional<FileStamp> stampOf(const fs::path& path) {
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0) return std::nullopt;
  return FileStamp{
      static_cast<std::uint64_t>(st.st_ino),
      static_cast<std::int64_t>(st.st_mtim.tv_sec) * 1'000'000'000 + st.st_mtim.tv_nsec};
}

std::int64_t wallClockNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// Reads `path` and checks it still holds `hash`.
std::optional<TokenFile> confirm(const fs::path& path, const std::string& hash) {
  TokenFile file{path, {}};
  if (!readJsonFile(path, file.record) || !file.record.isObject()) return std::nullopt;
  const Json::Value& stored = file.record["token_hash"];
  if (!stored.isString() || stored.asString() != hash) return std::nullopt;
  return file;
}

}  // namespace

std::optional<TokenFile> TokenIndex::find(const fs::path& tokensDir, const std::string& hash) {
  std::string name;
  {
    std::lock_guard lock(mutex_);
    if (dir_ != tokensDir) {
      dir_ = tokensDir;
      byName_.clear();
      byHash_.clear();
      dirModifiedNs_.reset();
    }
    auto hit = byHash_.find(hash);
    if (hit != byHash_.end()) {
      name = hit->second;
    } else if (directoryUnchanged(tokensDir)) {
      return std::nullopt;
    }
  }
  if (!name.empty()) {
    if (auto file = confirm(tokensDir / name, hash)) return file;
  }
  {
    std::lock_guard lock(mutex_);
    refresh(tokensDir);
    auto hit = byHash_.find(hash);
    if (hit == byHash_.end()) return std::nullopt;
    name = hit->second;
  }
  return confirm(tokensDir / name, hash);
}

bool TokenIndex::directoryUnchanged(const fs::path& tokensDir) const {
  if (!dirModifiedNs_ || !dirModifiedSettled_) return false;
  auto now = stampOf(tokensDir);
  return now && now->modifiedNs == *dirModifiedNs_;
}

void TokenIndex::refresh(const fs::path& tokensDir) {
  // The directory's time is taken before listing it, so a change made during the listing shows
  // up as a change at the next lookup.
  auto dirStamp = stampOf(tokensDir);
  std::int64_t listedAt = wallClockNs();
  std::map<std::string, Entry> next;
  byHash_.clear();
  std::error_code ec;
  for (fs::directory_iterator it(tokensDir, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& path = it->path();
    if (path.extension() != ".json") continue;
    auto stamp = stampOf(path);
    if (!stamp || !it->is_regular_file(ec)) continue;
    std::string name = path.filename().string();
    Entry entry{"", stamp->inode, stamp->modifiedNs};
    auto known = byName_.find(name);
    if (known != byName_.end() && known->second.inode == entry.inode &&
        known->second.modifiedNs == entry.modifiedNs) {
      entry.hash = known->second.hash;
    } else {
      Json::Value record;
      if (readJsonFile(path, record) && record.isObject() && record["token_hash"].isString()) {
        entry.hash = record["token_hash"].asString();
      }
    }
    if (!entry.hash.empty()) byHash_.emplace(entry.hash, name);
    next.emplace(std::move(name), std::move(entry));
  }
  byName_ = std::move(next);
  dirModifiedNs_ = dirStamp ? std::optional(dirStamp->modifiedNs) : std::nullopt;
  dirModifiedSettled_ = dirStamp && listedAt - dirStamp->modifiedNs > kSettleNs;
}

}  // namespace quill::store
