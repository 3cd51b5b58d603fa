// What a failed storage request says: the store's Code and Message in one short line, never its
// whole error document; a refusal of the credentials says so.

#include <gtest/gtest.h>

#include "rill/providers/bucket_probe.h"
#include "rill/transport/s3_error.h"
#include "rill/providers/s3_provider.h"
#include "s3_peers.h"

namespace quill::rill {
namespace {

TEST(S3Error, TheReasonIsTheCodeAndMessageOnly) {
  const std::string longMessage(500, 'm');
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"<?xml version=\"1.0\"?>\n<Error><Code>SignatureDoesNotMatch</Code><Message>The signature "
       "does not match.</Message><StringToSign>AWS4-HMAC-SHA256\n20260101T000000Z</StringToSign>"
       "<CanonicalRequest>GET\n/b</CanonicalRequest></Error>",
       "SignatureDoesNotMatch: The signature does not match."},
      {"<Error><Code>NoSuchKey</Code></Error>", "NoSuchKey"},
      {"<Error><Code>A</Code><Message>x &amp; &lt;y&gt;\r\nz</Message></Error>", "A: x & <y>  z"},
      {"<Error><Code>Bad Code</Code><Message>m</Message></Error>", ""},
      {"<Error><Code>Open", ""},
      {"<html><body>502 Bad Gateway</body></html>", ""},
      {"", ""},
      {"  Forbidden by policy\r\nsecond line", "Forbidden by policy"},
      {"<Error><Code>Long</Code><Message>" + longMessage + "</Message></Error>",
       "Long: " + longMessage.substr(0, kMaxErrorMessage) + "..."}};
  for (const auto& [body, reason] : rows) EXPECT_EQ(s3ErrorReason(body), reason) << body;

  const auto answer = [](long status, std::string body) {
    base::HttpResponse response;
    response.status = status;
    response.body = std::move(body);
    return response;
  };
  const base::HttpResponse refused = answer(
      403, "<Error><Code>AccessDenied</Code><Message>Access Denied</Message><StringToSign>x"
           "</StringToSign></Error>");
  EXPECT_EQ(describeFailure("GET k", refused),
            "GET k -> HTTP 403 AccessDenied: Access Denied (credentials refused)");
  EXPECT_EQ(describeFailure("HEAD k", answer(403, "")), "HEAD k -> HTTP 403 (credentials refused)");
  EXPECT_EQ(describeFailure("HEAD k", answer(500, "")), "HEAD k -> HTTP 500");
  base::HttpResponse cut;
  cut.error = "curl: refused";
  EXPECT_EQ(describeFailure("GET k", cut), "curl: refused");
}

TEST(S3Error, ThePeersRefusalsReadAsOneLine) {
  QUILL_REQUIRE_S3_PEERS();
  const auto& peers = test::S3Peers::shared();
  S3Provider wrongSecret(peers.settings("wrong-secret"));
  const auto refused = wrongSecret.exists("channels/x/manifest.json");
  EXPECT_EQ(refused.error(), "HEAD channels/x/manifest.json -> HTTP 403 (credentials refused)");
  EXPECT_EQ(refused.failure().httpStatus, 403);
  EXPECT_EQ(probeBucket(peers.settings("wrong-secret")).error(),
            "access denied - check the access key and secret (LIST -> HTTP 403 "
            "SignatureDoesNotMatch: The request signature we calculated does not match the "
            "signature you provided. (credentials refused))");
  S3Provider bucket(peers.settings());
  const std::string error = bucket.get("missing/object").error();
  EXPECT_TRUE(error.starts_with("GET missing/object -> HTTP 404 NoSuchKey: ")) << error;
  EXPECT_EQ(error.find('<'), std::string::npos) << error;
}

}  // namespace
}  // namespace quill::rill
