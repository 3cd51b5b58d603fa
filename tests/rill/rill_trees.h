#pragma once
// Small trees for publish and pull tests: deterministic noise and text, and a tree's content.

#include <fstream>
#include <map>
#include <random>

#include "rill/chunks/chunker.h"
#include "rill/ops/pull.h"

namespace quill::rill::test {

// Sizes that cut a few hundred KiB into dozens of chunks.
inline const ChunkerParams kSmallChunks{1024, 4096, 16384};

inline std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 rng(seed);
  std::string out(size, '\0');
  for (char& c : out) c = static_cast<char>(rng());
  return out;
}

inline std::string textBytes(std::size_t lines, unsigned seed) {
  std::string out;
  for (std::size_t i = 0; i < lines; ++i)
    out += "line " + std::to_string(i) + " of file " + std::to_string(seed) + "\n";
  return out;
}

inline void writeFile(const std::filesystem::path& path, const std::string& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Every file below `root` and its content, leaving out what a pull keeps for itself.
inline std::map<std::string, std::string> treeContent(const std::filesystem::path& root) {
  std::map<std::string, std::string> out;
  for (auto it = std::filesystem::recursive_directory_iterator(root);
       it != std::filesystem::recursive_directory_iterator(); ++it) {
    if (it->path().filename() == kPullStateDir) {
      it.disable_recursion_pending();
    } else if (it->is_regular_file()) {
      out[it->path().lexically_relative(root).generic_string()] = readFile(it->path());
    }
  }
  return out;
}

// A build: random bytes, text, a nested file, an empty file and a duplicate.
inline void writeBuild(const std::filesystem::path& root) {
  writeFile(root / "bin/app.so", randomBytes(300 * 1024, 1));
  writeFile(root / "data/notes.txt", textBytes(4000, 2));
  writeFile(root / "data/copy.txt", textBytes(4000, 2));
  writeFile(root / "Empty", "");
}

}  // namespace quill::rill::test
