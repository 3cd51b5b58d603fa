#include "store/data_dir.h"

#include <array>
#include <cstdlib>
#include <system_error>

namespace quill::store {

fs::path defaultDataDir() {
  const char* localAppData = std::getenv("LOCALAPPDATA");
  if (localAppData == nullptr || *localAppData == '\0') return fs::path("quillmoord-data");
  return fs::path(localAppData) / "Quillmoor" / "quillmoord-data";
}

DataDir::DataDir(const fs::path& root) : root_(fs::absolute(root)) {}

bool DataDir::prepare(std::string& error) const {
  const std::array<fs::path, 8> directories = {root_,    users(),   tokens(),         channels(),
                                               groups(), invites(), accessRequests(), builds()};
  for (const fs::path& directory : directories) {
    std::error_code ec;
    // create_directories also makes missing ancestors of the root, and is quiet when the
    // directory already exists.
    fs::create_directories(directory, ec);
    if (ec) {
      error = "cannot create directory " + directory.string() + ": " + ec.message();
      return false;
    }
  }
  return true;
}

}  // namespace quill::store
