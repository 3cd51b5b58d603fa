#pragma once
// The S3 test peers: s3rver behind a signature-verifying front (tests/rill-peers/peers.mjs), both
// on 127.0.0.1, started once per test program on first use and stopped when it exits. The node
// process also exits by itself when this process dies, because its standard input closes.

#include <filesystem>
#include <memory>
#include <string>

#include "rill/transport/s3_client.h"
#include "support/node_peer.h"
#include "support/temp_dir.h"

namespace quill::rill::test {

inline const std::string kPeerBucket = "quill-test";
inline const std::string kPeerAccessKey = "S3RVER";
inline const std::string kPeerSecretKey = "S3RVER";
// Every listing through the front is paged this small, so continuation tokens are always used.
inline constexpr int kPeerPageSize = 2;

class S3Peers {
 public:
  // The running peers, started on the first call. `skipReason` is set instead when node is not
  // installed; a peer that fails to start is reported in `failure`.
  static S3Peers& shared() {
    static S3Peers peers;
    return peers;
  }

  S3Peers(const S3Peers&) = delete;
  S3Peers& operator=(const S3Peers&) = delete;

  const std::string& skipReason() const { return skipReason_; }
  const std::string& failure() const { return failure_; }

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
    const auto peers = std::filesystem::path(QUILL_SOURCE_DIR) / "tests" / "rill-peers";
    if (!std::filesystem::exists(peers / "node_modules" / "s3rver")) {
      failure_ = "s3rver is not installed in " + peers.string() + " (run scripts/install-deps.sh)";
      return;
    }
    peer_ = std::make_unique<quill::test::NodePeer>(
        peers / "peers.mjs",
        std::vector<std::string>{"--dir", data_.path().string(), "--bucket", kPeerBucket,
                                 "--max-keys", std::to_string(kPeerPageSize)},
        std::vector<std::string>{"--openssl-legacy-provider"});
    failure_ = peer_->failure();
  }

  quill::test::TempDir data_;
  std::unique_ptr<quill::test::NodePeer> peer_;
  std::string skipReason_;
  std::string failure_;
};

// Skips the current test when node is missing; fails it when the peers could not start.
#define QUILL_REQUIRE_S3_PEERS()                                               \
  do {                                                                         \
    auto& s3Peers_ = ::quill::rill::test::S3Peers::shared();                   \
    if (!s3Peers_.skipReason().empty()) GTEST_SKIP() << s3Peers_.skipReason(); \
    ASSERT_EQ(s3Peers_.failure(), "");                                         \
  } while (false)

}  // namespace quill::rill::test
