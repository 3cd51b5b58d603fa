// quillmoor-rill in-process: where it takes its storage settings and token from (options, a
// rill.json, the environment, in that order), what it shows a person (its version; sizes, rates,
// time left), and pull --server against error answers, which must fail with a message.

#include <gtest/gtest.h>

#include <fstream>

#include "rill/ops/human_size.h"
#include "rill/ops/progress_line.h"
#include "support/static_provider.h"
#include "support/temp_dir.h"
#include "tool_commands.h"
#include "tool_options.h"

namespace quill::rilltool {
namespace {

using Args = std::vector<std::string>;

TEST(ToolTest, OptionsOverRillJsonOverEnvironment) {
  quill::test::TempDir dir;
  const std::string from = (dir.path() / "rill.json").string();
  std::ofstream(from) << R"({"schema_version": 1, "endpoint": "https://s3.example.com",
    "region": "eu", "bucket": "from-file", "access_key": "FILEKEY", "secret_key": "filesecret"})";
  const Environment env{{"AWS_ACCESS_KEY_ID", "ENVKEY"}, {"AWS_SECRET_ACCESS_KEY", "envsecret"},
                        {"QUILLMOOR_TOKEN", "envtoken"}};
  // What the options resolve to, in few words, or why they are refused.
  for (const auto& [args, expected] : std::vector<std::pair<Args, std::string>>{
           {{"publish", "out", "--channel", "c", "--from", from, "--bucket", "given"},
            "given eu FILEKEY filesecret "},
           {{"pull", "c", "dir", "--endpoint", "http://127.0.0.1:9", "--bucket", "b"},
            "b  ENVKEY envsecret "},
           {{"pull", "c", "dir", "--server", "http://h"}, "    envtoken"},
           {{"pull", "c", "dir", "--server", "http://h", "--token", "t"}, "    t"},
           {{"pull", "--help"}, "    help"},
           {{"--version"}, "    version"}, {{"version"}, "    version"},
           {{"publish", "--version"}, "unknown option --version"},
           {{"keygen", "--force"}, "unknown option --force"},
           {{"publish", "out", "--channel", "c", "--from", "/nope.json"}, "cannot read /nope.json"},
           {{"publish", "out", "--channel", "c", "--bucket", "b"},
            "the storage is required: --endpoint, --bucket, --access-key and --secret-key (or "
            "--from <rill.json>)"}}) {
    const auto o = parseToolOptions(args, env);
    const auto& s = o ? o.value().storage : rill::S3Settings{};
    EXPECT_EQ(!o ? o.error()
                 : s.bucket + " " + s.region + " " + s.accessKey + " " + s.secretKey + " " +
                       o.value().token + (o.value().help ? "help" : "") +
                       (o.value().version ? "version" : ""),
              expected);
  }
}

TEST(ToolTest, SizesRatesDurationsAndProgress) {
  for (const auto& [bytes, text] : std::vector<std::pair<std::uint64_t, std::string>>{
           {0, "0 B"}, {1023, "1023 B"}, {1024, "1.0 KiB"}, {1536, "1.5 KiB"}, {1048575, "1.0 MiB"},
           {UINT64_MAX, "16384.0 PiB"}}) {
    EXPECT_EQ(rill::humanBytes(bytes), text) << bytes;
  }
  EXPECT_EQ(rill::humanRate(35 * 1048576ULL, 1.0) + rill::humanRate(100, 0.0), "35.0 MiB/s0 B/s");
  for (const auto& [seconds, text] : std::vector<std::pair<double, std::string>>{
           {0, "0s"}, {0.2, "1s"}, {59, "59s"}, {65, "1m05s"}, {3599, "59m59s"}, {7620, "2h07m"}}) {
    EXPECT_EQ(rill::humanDuration(seconds), text);
  }
  // Totals show only once the scan knows them.
  rill::PublishProgress scan{.chunksDone = 3, .chunksFound = 9, .bytesFound = 9 << 20,
                             .bytesDone = 3 << 20};
  EXPECT_EQ(rill::progressText(rill::publishCounts(scan), 2.0), "  3.0 MiB, 3 chunk(s), 1.5 MiB/s");
  scan.scanned = true;
  EXPECT_EQ(rill::progressText(rill::publishCounts(scan), 2.0),
            "  3.0 MiB of 9.0 MiB (33%), 3/9 chunk(s), 1.5 MiB/s, 4s left");
  EXPECT_EQ(rill::progressText(rill::pullCounts({.chunksTotal = 4, .bytesTotal = 4096}), 0.0),
            "  0 B of 4.0 KiB (0%), 0/4 chunk(s), 0 B/s");
}

// A hostile descriptor in a 200 answer is the descriptor parser's test; here, error answers.
TEST(ToolTest, ErrorAnswersFailWithAMessage) {
  quill::test::TempDir dir;
  quill::test::StaticProvider server;
  server.serve("/api/rill/sync/deep-error", std::string(60000, '[') + std::string(60000, ']'), 503);
  server.serve("/api/rill/sync/plain-error", R"({"error": "rill: no bucket"})", 503);
  for (const auto& [channel, message] : std::vector<std::pair<std::string, std::string>>{
           {"deep-error", "server answered HTTP 503: [[[["},
           {"plain-error", "server answered HTTP 503: rill: no bucket"}}) {
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(runTool({"pull", channel, dir.path() / "out", "--server", server.origin()}), 1);
    const std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_TRUE(printed.starts_with(message)) << printed.substr(0, 200);
  }
}

}  // namespace
}  // namespace quill::rilltool
