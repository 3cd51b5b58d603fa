// The transport against a bucket that misbehaves: every failure ends, and leaves the thread's
// cached handle fit for the next request.

#include "base/http_client.h"

#include <gtest/gtest.h>

#include "rill/hostile_bucket.h"
#include "support/http_client.h"

namespace quill::base {
namespace {

TEST(HttpTransport, FailedTransfersEndAndLeaveTheHandleFitForTheNext) {
  rill::test::HostileBucket bucket;
  QUILL_REQUIRE_HOSTILE_BUCKET(bucket);
  bucket.plant("good", "payload");
  bucket.plantEndless("endless");
  bucket.plantStall("stall");

  HttpRequest good{"GET", bucket.url("good"), {}, {}};
  HttpRequest endless{"GET", bucket.url("endless"), {}, {}};
  endless.maxBody = 1 << 20;
  HttpRequest small = good;
  small.maxBody = 3;
  HttpRequest stalled{"GET", bucket.url("stall"), {}, {}};
  stalled.stallSeconds = 1;
  stalled.stallBytesPerSecond = 1;
  HttpRequest stalledPut = stalled;
  stalledPut.method = "PUT";
  stalledPut.body = "sent, never answered";
  HttpRequest capped{"GET", bucket.url("stall"), {}, {}};
  capped.totalSeconds = 1;  // the identity provider's limit: the whole answer within the time
  HttpRequest refused{"GET", "http://127.0.0.1:" + std::to_string(quill::test::freePort()), {}, {}};

  const struct {
    const HttpRequest* request;
    std::string error;
  } failures[] = {
      {&endless, "curl: answer larger than 1048576 bytes"},
      {&small, "curl: answer larger than 3 bytes"},
      {&stalled, "curl: transfer stalled (less than 1 bytes/s for 1 s)"},
      {&stalledPut, "curl: transfer stalled (less than 1 bytes/s for 1 s)"},
      {&capped, "curl: no complete answer within 1 s"},
      {&refused, "curl: "},
  };
  // All on one thread: a handle left busy by one failure would fail the request after it.
  for (const auto& f : failures) {
    const HttpResponse failed = performHttp(*f.request);
    EXPECT_EQ(failed.status, 0) << f.error;
    EXPECT_TRUE(failed.error.starts_with(f.error)) << failed.error;
    EXPECT_EQ(failed.body, "");
    const HttpResponse next = performHttp(good);
    EXPECT_EQ(next.status, 200) << "after " << f.error << ": " << next.error;
    EXPECT_EQ(next.body, "payload");
  }
}

}  // namespace
}  // namespace quill::base
