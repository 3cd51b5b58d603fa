#include "store/data_dir.h"

#include <array>
#include <cstdlib>
#include <system_error>
#include <vector>

#include "store/durable_file.h"

namespace quill::store {

fs::path defaultDataDir() {
  const char* localAppData = std::getenv("LOCALAPPDATA");
  if (localAppData == nullptr || *localAppData == '\0') return fs::path("quillmoord-data");
  return fs::path(localAppData) / "Quillmoor" / "quillmoord-data";
}

DataDir::DataDir(const fs::path& root) : root_(fs::absolute(root)) {}

base::Result<bool> DataDir::prepare() const {
  const std::array<fs::path, 8> directories = {root_,    users(),   tokens(),         channels(),
                                               groups(), invites(), accessRequests(), builds()};
  for (const fs::path& directory : directories) {
    std::error_code ec;
    // create_directories also makes missing ancestors of the root, and is quiet when the
    // directory already exists.
    fs::create_directories(directory, ec);
    if (ec) {
      return base::Failure::fromErrno(
          "cannot create directory " + directory.string() + ": " + ec.message(), ec.value());
    }
  }
  return true;
}

void DataDir::removeDocumentLeftovers(fs::file_time_type startedAt) const {
  const std::array<fs::path, 7> directories = {root_,    users(),   tokens(),        channels(),
                                               groups(), invites(), accessRequests()};
  for (const fs::path& directory : directories) {
    std::error_code ec;
    for (fs::directory_iterator it(directory, ec), end; !ec && it != end; it.increment(ec)) {
      if (!isTemporaryName(it->path().filename().string())) continue;
      std::error_code entryError;
      const fs::file_status status = it->symlink_status(entryError);
      if (entryError || !fs::is_regular_file(status)) continue;
      // A temporary of an offline command writing right now is younger than the server.
      const fs::file_time_type changed = it->last_write_time(entryError);
      if (entryError || changed >= startedAt) continue;
      fs::remove(it->path(), entryError);
    }
  }
}

namespace {

// `relative` cut at its slashes.
std::vector<std::string_view> segmentsOf(std::string_view relative) {
  std::vector<std::string_view> segments;
  for (std::size_t start = 0;;) {
    const std::size_t slash = relative.find('/', start);
    segments.push_back(relative.substr(start, slash - start));
    if (slash == std::string_view::npos) return segments;
    start = slash + 1;
  }
}

}  // namespace

bool DataDir::isWorkInProgress(std::string_view relative, bool directory) {
  const std::vector<std::string_view> s = segmentsOf(relative);
  const bool inBuilds = s.size() >= 2 && s[0] == "builds";
  if (directory) {
    if (s.size() == 1 && s[0] == kBuildUploadStaging) return true;
    if (inBuilds && s.size() == 2 && s[1] == kSharedUploadStaging) return true;
    return inBuilds && s.size() == 3 && s[2] == kBuildUploadStaging;
  }
  const bool buildFile = inBuilds && s.size() >= 4 && s[2] == "files";
  return !buildFile && isTemporaryName(s.back());
}

bool DataDir::isVolumeLink(std::string_view relative) {
  const std::vector<std::string_view> s = segmentsOf(relative);
  return s[0] == "builds" && s.size() <= 2;
}

}  // namespace quill::store
