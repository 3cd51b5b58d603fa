#pragma once
// The S3 test peers (tests/rill-peers/peers.mjs, installed by scripts/install-deps.sh): s3rver
// behind a front that verifies signatures, on 127.0.0.1, started once per test program on first
// use. They exit with it, as their standard input closes.

#include <memory>

#include "rill/transport/s3_client.h"
#include "support/node_peer.h"
#include "support/temp_dir.h"

namespace quill::rill::test {

inline const std::string kPeerBucket = "quill-test", kPeerAccessKey = "S3RVER",
                         kPeerSecretKey = "S3RVER";
inline constexpr int kPeerPageSize = 2;  // every listing is paged this small: tokens are used

class S3Peers {
 public:
  // `skipReason` is set when node is missing, `failure` when the peers did not start.
  static S3Peers& shared() {
    static S3Peers peers;
    return peers;
  }
  const std::string& skipReason() const { return skipReason_; }
  const std::string& failure() const { return peer_ ? peer_->failure() : skipReason_; }
  std::string endpoint() const { return peer_ ? peer_->origin() : ""; }
  S3Settings settings(const std::string& secretKey = kPeerSecretKey) const {
    return {endpoint(), "", kPeerBucket, kPeerAccessKey, secretKey};
  }

 private:
  S3Peers() {
    if (quill::test::programOnPath("node").empty()) {
      skipReason_ = "node is not installed; the S3 tests need it (scripts/install-deps.sh)";
      return;
    }
    peer_ = std::make_unique<quill::test::NodePeer>(
        std::filesystem::path(QUILL_SOURCE_DIR) / "tests/rill-peers/peers.mjs",
        std::vector<std::string>{"--dir", data_.path().string(), "--bucket", kPeerBucket,
                                 "--max-keys", std::to_string(kPeerPageSize)},
        std::vector<std::string>{"--openssl-legacy-provider"});
  }

  quill::test::TempDir data_;
  std::unique_ptr<quill::test::NodePeer> peer_;
  std::string skipReason_;
};

// Skips the current test when node is missing; fails it when the peers could not start.
#define QUILL_REQUIRE_S3_PEERS()                                               \
  do {                                                                         \
    auto& s3Peers_ = ::quill::rill::test::S3Peers::shared();                   \
    if (!s3Peers_.skipReason().empty()) GTEST_SKIP() << s3Peers_.skipReason(); \
    ASSERT_EQ(s3Peers_.failure(), "");                                         \
  } while (false)

}  // namespace quill::rill::test
