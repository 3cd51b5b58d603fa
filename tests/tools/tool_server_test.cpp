// quillmoor-rill pull --server against a server whose answers are hostile: it fails with a
// message, never with an exception.

#include <gtest/gtest.h>

#include "support/static_provider.h"
#include "support/temp_dir_test_base.h"
#include "tool_commands.h"

namespace quill::rilltool {
namespace {

class ToolServerTest : public quill::test::TempDirTest {};

TEST_F(ToolServerTest, HostileDescriptorsAndErrorAnswersFailWithAMessage) {
  quill::test::StaticProvider server;
  const std::string deep = std::string(60000, '[') + std::string(60000, ']');
  server.serve("/api/rill/sync/deep-error", deep, 503);
  server.serve("/api/rill/sync/deep", deep);
  server.serve("/api/rill/sync/plain-error", R"({"error": "rill: no bucket"})", 503);
  const struct {
    std::string channel;
    std::string message;
  } cases[] = {
      {"deep-error", "server answered HTTP 503: [[[["},
      {"deep", "sync descriptor: nested too deep"},
      {"plain-error", "server answered HTTP 503: rill: no bucket"},
  };
  for (const auto& c : cases) {
    ::testing::internal::CaptureStderr();
    const int status =
        runTool({"pull", c.channel, (dir() / "out").string(), "--server", server.origin()});
    const std::string printed = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(status, 1) << c.channel;
    EXPECT_EQ(printed.rfind(c.message, 0), 0u) << printed.substr(0, 200);
  }
}

}  // namespace
}  // namespace quill::rilltool
