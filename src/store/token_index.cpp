#include "store/token_index.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "store/documents.h"
#include "store/file_stamp.h"

namespace quill::store {

namespace fs = std::filesystem;

namespace {

std::string storedHash(const fs::path& path) {
  Json::Value record;
  if (!readJsonFile(path, record) || !record["token_hash"].isString()) return "";
  return record["token_hash"].asString();
}

}  // namespace

std::optional<TokenFile> TokenIndex::confirm(const fs::path& path, const std::string& hash) {
  auto record = files_.read(path);
  if (!record) return std::nullopt;
  const Json::Value& stored = (*record)["token_hash"];
  if (!stored.isString() || stored.asString() != hash) return std::nullopt;
  return TokenFile{path, std::move(*record)};
}

TokenIndex::~TokenIndex() { closeWatch(); }

void TokenIndex::closeWatch() { watchFd_.reset(); }

bool TokenIndex::provablyUnchanged(const fs::path& tokensDir) {
  if (!watchFd_) {
    // Arm the watch before the next listing, so no change can fall between the two.
    watchFd_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    constexpr std::uint32_t kChanges = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                       IN_MODIFY | IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF |
                                       IN_MOVE_SELF;
    if (watchFd_ && ::inotify_add_watch(watchFd_.get(), tokensDir.c_str(), kChanges) < 0) {
      closeWatch();
    }
    return false;
  }
  bool changed = false;
  alignas(inotify_event) char buffer[16 * 1024];
  while (true) {
    ssize_t n = ::read(watchFd_.get(), buffer, sizeof buffer);
    if (n > 0) {
      changed = true;
      // The directory itself went away or was replaced: watch it afresh next time.
      for (char* p = buffer; p < buffer + n;) {
        auto* event = reinterpret_cast<inotify_event*>(p);
        if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED | IN_Q_OVERFLOW)) {
          closeWatch();
          return false;
        }
        p += sizeof(inotify_event) + event->len;
      }
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && errno == EAGAIN) return !changed;
    closeWatch();
    return false;
  }
}

std::optional<TokenFile> TokenIndex::find(const fs::path& tokensDir, const std::string& hash) {
  std::string name;
  {
    std::lock_guard lock(mutex_);
    if (dir_ != tokensDir) {
      closeWatch();
      dir_ = tokensDir;
      byName_.clear();
      byHash_.clear();
      refreshed_ = false;
    }
    if (auto hit = byHash_.find(hash); hit != byHash_.end()) name = hit->second;
  }
  if (!name.empty()) {
    if (auto file = confirm(tokensDir / name, hash)) return file;
  }
  {
    std::lock_guard lock(mutex_);
    const bool unchanged = provablyUnchanged(tokensDir);
    if (!(unchanged && refreshed_)) {
      refresh(tokensDir);
      refreshed_ = watchFd_.valid();
    }
    auto hit = byHash_.find(hash);
    if (hit == byHash_.end()) return std::nullopt;
    name = hit->second;
  }
  return confirm(tokensDir / name, hash);
}

void TokenIndex::refresh(const fs::path& tokensDir) {
  std::map<std::string, Entry> next;
  byHash_.clear();
  std::error_code ec;
  for (fs::directory_iterator it(tokensDir, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& path = it->path();
    if (path.extension() != ".json") continue;
    auto stamp = stampOf(path);
    if (!stamp || !stamp->regular) continue;
    std::string name = path.filename().string();
    Entry entry{"", *stamp};
    auto known = byName_.find(name);
    if (known != byName_.end() && known->second.stamp == entry.stamp) {
      entry.hash = known->second.hash;
    } else {
      entry.hash = storedHash(path);
    }
    if (!entry.hash.empty()) byHash_.emplace(entry.hash, name);
    next.emplace(std::move(name), std::move(entry));
  }
  byName_ = std::move(next);
}

}  // namespace quill::store
