#pragma once
// A cache from token hash to token file, so resolving a known token reads one file instead of
// every token file.
//
// It never answers from memory alone. A hit is confirmed by reading the one file it names. A miss
// re-lists the token directory and re-reads only the files that are new or changed (by inode and
// modification time) since they were last read; unchanged files are known without reading them.
// So a token minted, deleted or edited by another process is honoured at the very next lookup,
// exactly as a full scan would.
//
// Thread safety: all members may be called from any thread.

#include <json/value.h>

#include <cstdint>
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
  // The first token file (in directory order) under `tokensDir` whose `token_hash` equals `hash`,
  // as just read, or nullopt when there is none.
  std::optional<TokenFile> find(const std::filesystem::path& tokensDir, const std::string& hash);

 private:
  struct Entry {
    std::string hash;
    std::uint64_t inode = 0;
    std::int64_t modifiedNs = 0;
    std::int64_t size = 0;
  };
  // Re-lists the directory; reads only new or changed files.
  void refresh(const std::filesystem::path& tokensDir);

  std::mutex mutex_;
  std::filesystem::path dir_;
  std::map<std::string, Entry> byName_;        // file name -> what it held when read
  std::map<std::string, std::string> byHash_;  // hash -> file name (first in directory order)
};

}  // namespace quill::store
