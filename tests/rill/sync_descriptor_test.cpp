// The sync descriptor as written piece by piece and as read back by a client.

#include "rill/sync_descriptor.h"

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>

namespace quill::rill {
namespace {

const S3Client kBucket({"http://127.0.0.1:9", "", "b", "key", "secret"});

ChunkRef ref(char digit) { return {std::string(64, digit), 1}; }

Manifest manifestWith(std::vector<std::vector<ChunkRef>> files) {
  Manifest m;
  m.channel = "ch\"an\\nel\n\x01 \xc3\xa9 \xff";  // every kind of character the writer escapes
  m.build = "b7";
  m.created = "2026-02-03T04:05:06Z";
  for (auto& chunks : files) m.tree.files.push_back({"f", chunks.size(), std::move(chunks)});
  return m;
}

Result<std::uint64_t> write(const Manifest& m, std::string& text,
                            std::uint64_t maxBytes = kMaxSyncDescriptorBytes) {
  return writeSyncDescriptor(
      kBucket, "ch", m, 300,
      [&](std::string_view piece) {
        text += piece;
        return true;
      },
      maxBytes);
}

// Exactly what the JSON writer makes of the same document, indented by two spaces.
std::string styled(const std::string& text) {
  Json::Value value;
  std::string errors;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, &errors)) << errors;
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "  ";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value) + "\n";
}

TEST(SyncDescriptor, IsWrittenAsTheIndentedWriterWouldWithEachChunkOnce) {
  for (const Manifest& m : {manifestWith({}), manifestWith({{ref('b'), ref('a')}, {ref('b')}})}) {
    std::string text;
    const auto written = write(m, text);
    ASSERT_TRUE(written) << written.error();
    EXPECT_EQ(written.value(), text.size());
    EXPECT_EQ(text, styled(text));
    const auto links = parseSyncDescriptor(text);
    ASSERT_TRUE(links) << links.error();
    EXPECT_EQ(links.value().chunks.size(), m.tree.files.empty() ? 0u : 2u);
    for (const auto& [id, url] : links.value().chunks) {
      EXPECT_NE(url.find("/b/chunks/"), std::string::npos) << url;
      EXPECT_NE(url.find(id), std::string::npos) << url;
    }
    EXPECT_NE(links.value().manifestUrl.find("/b/channels/ch/manifest.json?"), std::string::npos);
    EXPECT_NE(links.value().signatureUrl.find("/b/channels/ch/manifest.json.sig?"),
              std::string::npos);
  }
}

TEST(SyncDescriptor, WritingStopsAtTheBoundOrWhenRefused) {
  const Manifest m = manifestWith({{ref('a'), ref('b'), ref('c')}});
  std::string whole;
  ASSERT_TRUE(write(m, whole));
  std::string cut;
  const auto bounded = write(m, cut, whole.size() - 1);
  EXPECT_EQ(bounded.error(),
            "sync descriptor larger than " + std::to_string(whole.size() - 1) + " bytes");
  EXPECT_LT(cut.size(), whole.size());
  int pieces = 0;
  const auto refused =
      writeSyncDescriptor(kBucket, "ch", m, 300, [&](std::string_view) { return ++pieces < 3; });
  EXPECT_EQ(refused.error(), "cannot write sync descriptor");
  EXPECT_EQ(pieces, 3);
}

TEST(SyncDescriptor, ReadingFailsWithAReasonAndNeverThrows) {
  const std::string deep = std::string(200000, '[') + std::string(200000, ']');
  const struct {
    std::string text;
    std::string error;
  } cases[] = {
      {"", "sync descriptor: "},
      {deep, "sync descriptor: nested too deep"},
      {"[1]", "sync descriptor: not a JSON object"},
      {R"({"chunks": {}})", "sync descriptor: manifest_url and chunks required"},
      {R"({"manifest_url": "u", "chunks": []})",
       "sync descriptor: manifest_url and chunks required"},
      {R"({"manifest_url": "u", "chunks": {"a": 1}})",
       "sync descriptor: chunk links must be strings"},
  };
  for (const auto& c : cases) {
    const auto links = parseSyncDescriptor(c.text);
    EXPECT_TRUE(links.error().starts_with(c.error))
        << c.text.substr(0, 40) << ": " << links.error();
    EXPECT_FALSE(links);
  }
}

}  // namespace
}  // namespace quill::rill
