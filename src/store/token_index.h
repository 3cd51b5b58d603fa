#pragma once
// A cache from token hash to token file, so resolving a token does not read every token file.
//
// It never answers from memory alone: a hit is confirmed by reading the one file it names, and a
// miss is trusted only while the token directory is unchanged since it was last read (same
// modification time, and that time old enough that a same-tick change cannot hide behind it).
// Anything else re-reads the directory, re-parsing only entries that are new or replaced. So a
// token minted or deleted by another process is honoured at the very next lookup.
//
// Thread safety: all members may be called from any thread.

#include <json/value.h>

#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

namespace quill::store {

struct TokenFile {
  std::filesystem::path path;
  Json::Value record;
};

class TokenIndex {
 public:
  // A token file under `tokensDir` whose `token_hash` equals `hash`, as just read, or nullopt
  // when there is none.
  std::optional<TokenFile> find(const std::filesystem::path& tokensDir, const std::string& hash);

 private:
  struct Entry {
    std::string hash;
    std::uint64_t inode = 0;
    std::int64_t modifiedNs = 0;
  };
  // Re-reads the directory listing; parses only new or replaced files.
  void refresh(const std::filesystem::path& tokensDir);
  bool directoryUnchanged(const std::filesystem::path& tokensDir) const;

  std::mutex mutex_;
  std::filesystem::path dir_;
  std::map<std::string, Entry> byName_;        // file name -> what it held when read
  std::map<std::string, std::string> byHash_;  // hash -> file name (first in directory order)
  std::optional<std::int64_t> dirModifiedNs_;
  bool dirModifiedSettled_ = false;
};

}  // namespace quill::store
