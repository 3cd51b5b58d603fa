// The bottom floor: the shared byte budget, file replacement and the HTTP transport.

#include <fcntl.h>
#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "base/byte_budget.h"
#include "base/durable_file.h"
#include "base/http_client.h"
#include "base/unique_fd.h"
#include "rill/hostile_bucket.h"
#include "support/api_fixture.h"
#include "support/http_client.h"

namespace quill::base {
namespace {

using namespace std::chrono_literals;

TEST(ByteBudget, TakersShareWhatFitsAndWaitInTheirTurn) {
  ByteBudget budget(100);
  std::atomic<int> in{0};
  std::atomic<bool> release{false};
  const auto holder = [&](std::uint64_t bytes) {
    return std::thread([&, bytes] {
      const auto lease = budget.take(bytes);
      ++in;
      while (!release) std::this_thread::sleep_for(1ms);
    });
  };
  std::thread big = holder(60);
  for (int i = 0; i < 5000 && in == 0; ++i) std::this_thread::sleep_for(1ms);
  std::thread mid = holder(50);  // does not fit beside the 60
  std::this_thread::sleep_for(100ms);
  std::thread small = holder(10);  // fits, but comes after the 50
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(in, 1);
  release = true;
  for (std::thread* t : {&big, &mid, &small}) t->join();
  const auto whole = budget.take(1000);  // more than all counts as all
}

TEST(DurableFile, FailuresKeepTheirErrnoAndLeaveTheOldFile) {
  const test::TempDir tmp;
  const auto dir = tmp.path();
  const UniqueFd dirFd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(replaceFileAt(dirFd.get(), "doc", "doc.1.tmp", "old", 0644));
  std::ofstream(dir / "leftover.tmp") << "x";
  std::filesystem::create_directories(dir / "folder" / "inside");
  const std::tuple<const char*, const char*, int, std::string> failures[] = {
      {"doc", "leftover.tmp", EEXIST, "create failed for leftover.tmp: "},  // never overwritten
      {"folder", "doc.2.tmp", EISDIR, "rename failed for doc.2.tmp: "}};    // a full directory
  for (const auto& [name, temporary, errnoValue, reason] : failures) {
    const auto replaced = replaceFileAt(dirFd.get(), name, temporary, "new", 0644);
    ASSERT_FALSE(replaced) << name;
    EXPECT_EQ(replaced.failure().sysErrno, errnoValue) << replaced.error();
    EXPECT_TRUE(replaced.error().starts_with(reason)) << replaced.error();
  }
  EXPECT_EQ(test::readBytes(dir / "doc") + test::readBytes(dir / "leftover.tmp"), "oldx");
  EXPECT_FALSE(std::filesystem::exists(dir / "doc.2.tmp"));
}

// Every failure against a bucket that misbehaves ends, and leaves the thread's cached handle fit
// for the next request: all run on one thread, each followed by a good one.
TEST(HttpTransport, FailedTransfersEndAndLeaveTheHandleFitForTheNext) {
  rill::test::HostileBucket bucket;
  QUILL_REQUIRE_HOSTILE_BUCKET(bucket);
  bucket.plant("good", "payload"), bucket.plantEndless("endless"), bucket.plantStall("stall");
  const std::string stalled = "curl: transfer stalled (less than 1 bytes/s for 1 s)";
  const std::tuple<const char*, std::string, std::uint64_t, long, long, std::string> failures[] = {
      // method, URL, body cap, stall seconds (at 1 byte/s), total seconds, error
      {"GET", bucket.url("endless"), 1 << 20, 60, 0, "curl: answer larger than 1048576 bytes"},
      {"GET", bucket.url("good"), 3, 60, 0, "curl: answer larger than 3 bytes"},
      {"GET", bucket.url("stall"), UINT64_MAX, 1, 0, stalled},
      {"PUT", bucket.url("stall"), UINT64_MAX, 1, 0, stalled},  // sent, never answered
      // The identity provider's limit: the whole answer within the time.
      {"GET", bucket.url("stall"), UINT64_MAX, 60, 1, "curl: no complete answer within 1 s"},
      {"GET", "http://127.0.0.1:" + std::to_string(test::freePort()), UINT64_MAX, 60, 0, "curl: "}};
  for (const auto& [method, url, maxBody, stallSeconds, totalSeconds, error] : failures) {
    HttpRequest request{method, url, {}, "body"};
    request.maxBody = maxBody, request.stallSeconds = stallSeconds, request.stallBytesPerSecond = 1;
    request.totalSeconds = totalSeconds;
    const HttpResponse failed = performHttp(request);
    EXPECT_EQ(std::tie(failed.status, failed.body), std::tuple(0, "")) << error;
    EXPECT_TRUE(failed.error.starts_with(error)) << failed.error;
    const HttpResponse next = performHttp({"GET", bucket.url("good"), {}, {}});
    EXPECT_EQ(std::tie(next.status, next.body), std::tuple(200, "payload")) << "after " << error;
  }
}

}  // namespace
}  // namespace quill::base
