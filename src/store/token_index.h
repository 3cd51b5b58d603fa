#pragma once
// A cache from token hash to token file, so resolving a token does not read every token file.
//
// It never answers from memory alone. A hit is confirmed against the one file it names (a stat,
// and a read when that file changed). A miss
// is trusted only when the kernel reported no change in the token directory since it was last
// read (an inotify watch: the event is queued by the very call that changes the directory, so a
// change made before a request is always seen by it). Otherwise the directory is re-listed and
// only new or changed files (by inode, modification time and size) are read again. So a token
// minted, deleted or edited by another process is honoured at the very next lookup, exactly as a
// full scan would, while unknown tokens cost no directory scan. Without inotify every miss
// re-lists the directory.
//
// Thread safety: all members may be called from any thread.

#include <json/value.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "base/unique_fd.h"
#include "store/document_cache.h"
#include "store/file_stamp.h"

namespace quill::store {

struct TokenFile {
  std::filesystem::path path;
  Json::Value record;
};

class TokenIndex {
 public:
  TokenIndex() = default;
  ~TokenIndex();
  TokenIndex(const TokenIndex&) = delete;
  TokenIndex& operator=(const TokenIndex&) = delete;

  // The first token file (in directory order) under `tokensDir` whose `token_hash` equals `hash`,
  // as just read, or nullopt when there is none.
  std::optional<TokenFile> find(const std::filesystem::path& tokensDir, const std::string& hash);

 private:
  struct Entry {
    std::string hash;
    FileStamp stamp;
  };
  // Reads `path` (through files_) and checks it holds `hash`.
  std::optional<TokenFile> confirm(const std::filesystem::path& path, const std::string& hash);
  // Re-lists the directory; reads only new or changed files.
  void refresh(const std::filesystem::path& tokensDir);
  // True when the watch proves the directory unchanged since the last refresh. Consumes the
  // pending change events; (re)arms the watch when needed.
  bool provablyUnchanged(const std::filesystem::path& tokensDir);
  void closeWatch();

  DocumentCache files_;  // the token files a hit is confirmed against
  std::mutex mutex_;
  std::filesystem::path dir_;
  std::map<std::string, Entry> byName_;        // file name -> what it held when read
  std::map<std::string, std::string> byHash_;  // hash -> file name (first in directory order)
  base::UniqueFd watchFd_;                     // inotify instance watching dir_, or none
  bool refreshed_ = false;  // byName_ reflects the directory as of the watch's last drain
};

}  // namespace quill::store
