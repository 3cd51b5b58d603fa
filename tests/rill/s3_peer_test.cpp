// The S3 client and provider against a real S3-compatible server (s3rver behind a front that
// verifies signatures), on 127.0.0.1.

#include <gtest/gtest.h>

#include <string>

#include "rill/s3_client.h"
#include "rill/s3_provider.h"
#include "rill/s3_signing.h"
#include "s3_peers.h"
#include "support/process.h"

namespace quill::rill {
namespace {

using test::S3Peers;

class S3PeerTest : public ::testing::Test {
 protected:
  void SetUp() override { QUILL_REQUIRE_S3_PEERS(); }

  static S3Client client(const std::string& secret = test::kPeerSecretKey) {
    return S3Client(S3Peers::shared().settings(secret));
  }

  // Downloads `url` with the curl program, as a client given a presigned link would.
  static quill::test::ProcessResult curlGet(const std::string& url) {
    return quill::test::runProcess(quill::test::programOnPath("curl").string(), {"-sS", "-f", url});
  }
};

TEST_F(S3PeerTest, ObjectRoundTripWithAwkwardKeys) {
  const S3Client s3 = client();
  const std::string body("binary\0\xff body", 13);
  for (const char* name : {"peer/plain", "peer/with blank/x+y=z&w", "peer/caf\xC3\xA9~!*'()"}) {
    const std::string key = name;
    ASSERT_EQ(s3.put(key, body).status, 200) << key;
    const base::HttpResponse got = s3.get(key);
    EXPECT_EQ(got.status, 200) << key << " " << got.body;
    EXPECT_EQ(got.body, body) << key;
    const base::HttpResponse head = s3.head(key);
    EXPECT_EQ(head.status, 200);
    EXPECT_EQ(head.contentLength, static_cast<std::int64_t>(body.size()));
  }
  auto listed = s3.list("peer/");
  ASSERT_TRUE(listed) << listed.error();
  EXPECT_EQ(listed.value().size(), 3u);
  EXPECT_EQ(s3.remove("peer/plain").status / 100, 2);
  EXPECT_EQ(s3.head("peer/plain").status, 404);
}

TEST_F(S3PeerTest, WrongSecretIsRefusedAndChangesNothing) {
  const S3Client wrong = client("not-the-secret");
  const base::HttpResponse put = wrong.put("refused/object", "x");
  EXPECT_EQ(put.status, 403);
  EXPECT_NE(put.body.find("SignatureDoesNotMatch"), std::string::npos);
  EXPECT_EQ(client().head("refused/object").status, 404);

  S3Provider provider(S3Peers::shared().settings("not-the-secret"));
  std::string error;
  EXPECT_FALSE(provider.list("refused/", &error));
  EXPECT_TRUE(error.starts_with("LIST -> HTTP 403 ")) << error;
  EXPECT_EQ(error.find("not-the-secret"), std::string::npos);
}

TEST_F(S3PeerTest, BodyNotMatchingItsSignedHashIsRefused) {
  const S3Client s3 = client();
  const base::HttpResponse tampered =
      s3.send("PUT", "tampered/object", "", "other body", sha256Hex("body"));
  EXPECT_EQ(tampered.status, 400);
  EXPECT_NE(tampered.body.find("XAmzContentSHA256Mismatch"), std::string::npos);
  EXPECT_EQ(s3.head("tampered/object").status, 404);
}

TEST_F(S3PeerTest, PresignedUrlDownloadsWithPlainCurlAndOnlyAsSigned) {
  if (quill::test::programOnPath("curl").empty())
    GTEST_SKIP() << "the curl program is not installed";
  const S3Client s3 = client();
  ASSERT_EQ(s3.put("shared/file name.txt", "presigned content").status, 200);
  ASSERT_EQ(s3.put("shared/other.txt", "other").status, 200);

  const std::string url = s3.presignGet("shared/file name.txt", 300);
  const auto ok = curlGet(url);
  EXPECT_EQ(ok.exitCode, 0) << ok.err;
  EXPECT_EQ(ok.out, "presigned content");

  const auto replace = [&](std::string from, std::string to) {
    std::string u = url;
    return u.replace(u.find(from), from.size(), to);
  };
  EXPECT_NE(curlGet(replace("file%20name.txt", "other.txt")).exitCode, 0);  // another object
  EXPECT_NE(curlGet(replace("X-Amz-Expires=300", "X-Amz-Expires=301")).exitCode, 0);
  EXPECT_NE(curlGet(replace("X-Amz-Signature=", "X-Amz-Signature=0")).exitCode, 0);

  const std::string expired = s3.presignGet(
      "shared/file name.txt", 60, std::chrono::system_clock::now() - std::chrono::hours(2));
  EXPECT_NE(curlGet(expired).exitCode, 0);
  const std::string wrongSecret = client("not-the-secret").presignGet("shared/file name.txt", 300);
  EXPECT_NE(curlGet(wrongSecret).exitCode, 0);
}

TEST_F(S3PeerTest, ProviderReportsFailuresWithMethodKeyStatusAndBody) {
  S3Provider provider(S3Peers::shared().settings());
  std::string body;
  std::string error;
  EXPECT_FALSE(provider.get("missing/object", body, &error));
  EXPECT_TRUE(error.starts_with("GET missing/object -> HTTP 404 ")) << error;
  EXPECT_NE(error.find("NoSuchKey"), std::string::npos);
}

TEST(S3Transport, UnreachableEndpointIsACurlError) {
  // Port 1 on loopback: nothing listens there.
  S3Provider provider({"http://127.0.0.1:1", "", "b", "k", "secret-never-shown"});
  std::string error;
  EXPECT_FALSE(provider.put("k", "x", &error));
  EXPECT_TRUE(error.starts_with("curl: ")) << error;
  EXPECT_FALSE(provider.exists("k", &error));
  EXPECT_TRUE(error.starts_with("curl: ")) << error;
  EXPECT_EQ(error.find("secret-never-shown"), std::string::npos);
}

}  // namespace
}  // namespace quill::rill
