// quillmoor-rill in-process: where it takes its storage settings and token from (options, a
// rill.json, the environment, in that order), and pull --server against a server whose answers
// are hostile, which must fail with a message, never with an exception.

#include <gtest/gtest.h>

#include <fstream>

#include "support/static_provider.h"
#include "support/temp_dir_test_base.h"
#include "tool_commands.h"
#include "tool_options.h"

namespace quill::rilltool {
namespace {

class ToolTest : public quill::test::TempDirTest {};

TEST_F(ToolTest, OptionsOverRillJsonOverEnvironment) {
  const auto rillJson = dir() / "rill.json";
  std::ofstream(rillJson) << R"({"schema_version": 1, "endpoint": "https://s3.example.com",
    "region": "eu", "bucket": "from-file", "access_key": "FILEKEY", "secret_key": "filesecret"})";
  const Environment env{{"AWS_ACCESS_KEY_ID", "ENVKEY"},
                        {"AWS_SECRET_ACCESS_KEY", "envsecret"},
                        {"QUILLMOOR_TOKEN", "envtoken"}};
  const auto parsed = [&](std::vector<std::string> args) {
    auto options = parseToolOptions(args, env);
    EXPECT_TRUE(options) << options.error();
    return options ? options.value() : ToolOptions{};
  };
  const auto fromFile = parsed(
      {"publish", "out", "--channel", "c", "--from", rillJson.string(), "--bucket", "given"});
  EXPECT_EQ(fromFile.storage.bucket, "given");
  EXPECT_EQ(fromFile.storage.region, "eu");
  EXPECT_EQ(fromFile.storage.accessKey, "FILEKEY");
  const auto fromEnv = parsed({"pull", "c", "dir", "--endpoint", "http://127.0.0.1:9", "--bucket", "b"});
  EXPECT_EQ(fromEnv.storage.accessKey, "ENVKEY");
  EXPECT_EQ(fromEnv.storage.secretKey, "envsecret");
  EXPECT_EQ(parsed({"pull", "c", "dir", "--server", "http://h"}).token, "envtoken");
  EXPECT_EQ(parsed({"pull", "c", "dir", "--server", "http://h", "--token", "t"}).token, "t");
  EXPECT_TRUE(parsed({"pull", "--help"}).help);
  EXPECT_EQ(parseToolOptions({"publish", "out", "--channel", "c", "--bucket", "b"}, {}).error(),
            "the storage is required: --endpoint, --bucket, --access-key and --secret-key (or "
            "--from <rill.json>)");
  EXPECT_EQ(
      parseToolOptions({"publish", "out", "--channel", "c", "--from", "/nope.json"}, env).error(),
      "cannot read /nope.json");
  EXPECT_EQ(parseToolOptions({"keygen", "--force"}, env).error(), "unknown option --force");
}

TEST_F(ToolTest, HostileDescriptorsAndErrorAnswersFailWithAMessage) {
  quill::test::StaticProvider server;
  const std::string deep = std::string(60000, '[') + std::string(60000, ']');
  server.serve("/api/rill/sync/deep-error", deep, 503);
  server.serve("/api/rill/sync/deep", deep);
  server.serve("/api/rill/sync/plain-error", R"({"error": "rill: no bucket"})", 503);
  for (const auto& [channel, message] : std::vector<std::pair<std::string, std::string>>{
           {"deep-error", "server answered HTTP 503: [[[["},
           {"deep", "sync descriptor: nested too deep"},
           {"plain-error", "server answered HTTP 503: rill: no bucket"}}) {
    ::testing::internal::CaptureStderr();
    const int status =
        runTool({"pull", channel, (dir() / "out").string(), "--server", server.origin()});
    const std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 1) << channel;
    EXPECT_EQ(printed.rfind(message, 0), 0u) << printed.substr(0, 200);
  }
}

}  // namespace
}  // namespace quill::rilltool
