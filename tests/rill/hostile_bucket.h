#pragma once
// The hostile bucket peer (tests/rill-peers/hostile-bucket.mjs) over a directory of its own, on
// 127.0.0.1: objects planted here are served, and keys marked endless or stalled misbehave.

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include "rill/transport/s3_client.h"
#include "support/node_peer.h"
#include "support/temp_dir.h"

namespace quill::rill::test {

class HostileBucket {
 public:
  const std::string& failure() const { return peer_.failure(); }
  S3Settings settings() const { return {peer_.origin(), "", "b", "x", "y"}; }
  std::string url(const std::string& key) const { return peer_.origin() + "/b/" + key; }

  void plant(const std::string& key, const std::string& bytes) {
    std::filesystem::create_directories((dir_.path() / key).parent_path());
    std::ofstream(dir_.path() / key, std::ios::binary) << bytes;
  }
  void plantSparse(const std::string& key, std::uintmax_t size) {  // zero bytes, no room on disk
    plant(key, "");
    std::filesystem::resize_file(dir_.path() / key, size);
  }
  // GET answers a body that never ends (HEAD tells no length); a stalled key is never answered.
  void plantEndless(const std::string& key) { plant(key + ".endless", ""); }
  void plantStall(const std::string& key) { plant(key + ".stall", ""); }

 private:
  quill::test::TempDir dir_;
  quill::test::NodePeer peer_{
      std::filesystem::path(QUILL_SOURCE_DIR) / "tests" / "rill-peers" / "hostile-bucket.mjs",
      std::vector<std::string>{"--dir", dir_.path().string()}};
};

// Skips the current test when node is missing; fails it when the peer could not start.
#define QUILL_REQUIRE_HOSTILE_BUCKET(bucket)                                                 \
  do {                                                                                       \
    if (quill::test::programOnPath("node").empty()) GTEST_SKIP() << "node is not installed"; \
    ASSERT_EQ((bucket).failure(), "");                                                       \
  } while (false)

}  // namespace quill::rill::test
