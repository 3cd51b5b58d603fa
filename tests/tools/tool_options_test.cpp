// Where quillmoor-rill takes its storage settings and token from: options, a rill.json, the
// environment, in that order.

#include "tool_options.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/temp_dir_test_base.h"

namespace quill::rilltool {
namespace {

class ToolOptionsTest : public quill::test::TempDirTest {};

TEST_F(ToolOptionsTest, OptionsOverRillJsonOverEnvironment) {
  const auto rillJson = dir() / "rill.json";
  std::ofstream(rillJson) << R"({"schema_version": 1, "endpoint": "https://s3.example.com",
    "region": "eu", "bucket": "from-file", "access_key": "FILEKEY", "secret_key": "filesecret"})";
  const Environment env{{"AWS_ACCESS_KEY_ID", "ENVKEY"},
                        {"AWS_SECRET_ACCESS_KEY", "envsecret"},
                        {"QUILLMOOR_TOKEN", "envtoken"}};

  auto fromFile = parseToolOptions(
      {"publish", "out", "--channel", "c", "--from", rillJson.string(), "--bucket", "given"}, env);
  ASSERT_TRUE(fromFile) << fromFile.error();
  EXPECT_EQ(fromFile.value().storage.bucket, "given");
  EXPECT_EQ(fromFile.value().storage.region, "eu");
  EXPECT_EQ(fromFile.value().storage.accessKey, "FILEKEY");

  auto fromEnv = parseToolOptions(
      {"pull", "c", "dir", "--endpoint", "http://127.0.0.1:9", "--bucket", "b"}, env);
  ASSERT_TRUE(fromEnv) << fromEnv.error();
  EXPECT_EQ(fromEnv.value().storage.accessKey, "ENVKEY");
  EXPECT_EQ(fromEnv.value().storage.secretKey, "envsecret");

  auto server = parseToolOptions({"pull", "c", "dir", "--server", "http://h"}, env);
  ASSERT_TRUE(server) << server.error();
  EXPECT_EQ(server.value().token, "envtoken");
  EXPECT_EQ(parseToolOptions({"pull", "c", "dir", "--server", "http://h", "--token", "t"}, env)
                .value()
                .token,
            "t");

  EXPECT_EQ(parseToolOptions({"publish", "out", "--channel", "c", "--bucket", "b"}, {}).error(),
            "the storage is required: --endpoint, --bucket, --access-key and --secret-key (or "
            "--from <rill.json>)");
  EXPECT_EQ(
      parseToolOptions({"publish", "out", "--channel", "c", "--from", "/nope.json"}, env).error(),
      "cannot read /nope.json");
  EXPECT_EQ(parseToolOptions({"keygen", "--force"}, env).error(), "unknown option --force");
  EXPECT_TRUE(parseToolOptions({"pull", "--help"}, env).value().help);
}

}  // namespace
}  // namespace quill::rilltool
