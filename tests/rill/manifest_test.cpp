// The manifest's stored form, its signature and the chunk objects: what a reader accepts and
// refuses; and the sync descriptor as written piece by piece and as read back by a client.

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/writer.h>
#include <zstd.h>

#include "rill/chunks/chunk_codec.h"
#include "rill/chunks/chunk_id.h"
#include "rill/chunks/manifest.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/ops/sync_descriptor.h"
#include "rill_trees.h"

namespace quill::rill {
namespace {

Manifest sample() {
  Manifest m;
  m.channel = "nightly";
  m.build = "b-1";
  m.created = "2026-01-02T03:04:05Z";
  const std::string a = chunkId("aaaa");
  m.tree.files = {{"dir/x.bin", 4, {{a, 4}}}, {"empty", 0, {}}};
  m.tree.stats = {2, 1, 4, 4};
  return m;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  EXPECT_NE(at, std::string::npos) << from;
  return text.replace(at, from.size(), to);
}

TEST(ManifestTest, StoredFormRoundTrips) {
  const std::string text = serializeManifest(sample());
  EXPECT_NE(text.find("\n  \"build\" : \"b-1\""), std::string::npos) << text;
  EXPECT_NE(text.find("\"algo\" : \"fastcdc-gear\""), std::string::npos);
  auto back = parseManifest(text);
  ASSERT_TRUE(back) << back.error();
  EXPECT_EQ(back.value().tree.files, sample().tree.files);
  EXPECT_EQ(back.value().tree.stats, sample().tree.stats);
  EXPECT_EQ(back.value().created, "2026-01-02T03:04:05Z");
  EXPECT_EQ(serializeManifest(back.value()), text);
}

// The sample with one empty file per path.
Manifest withPaths(std::initializer_list<const char*> paths) {
  Manifest m = sample();
  m.tree.files.clear();
  for (const char* path : paths) m.tree.files.push_back({path, 0, {}});
  return m;
}

TEST(ManifestTest, RefusesWhatIsNotAManifest) {
  const std::string good = serializeManifest(sample());
  EXPECT_EQ(parseManifest(replaced(good, "\"schema\" : 1", "\"schema\" : 2")).error(),
            "unsupported manifest schema");
  const struct {
    std::string text;
    std::string starts;
  } cases[] = {
      {"not json", "manifest parse error: "},
      {"[1]", "manifest parse error: not a JSON object"},
      {replaced(good, "\"size\" : 4", "\"size\" : 5"), "manifest parse error: files[0] chunks"},
      {replaced(good, "\"n\" : 4", "\"n\" : \"4\""), "manifest parse error: files[0] has a"},
      {replaced(good, chunkId("aaaa"), "ABC"), "manifest parse error: files[0] has a"},
      {replaced(good, "\"channel\" : \"nightly\"", "\"channel\" : 7"), "manifest parse error: "},
      {replaced(good, "\"min\" : 1048576", "\"min\" : 99999999"), "manifest parse error: chunker"},
      // What a hostile store could use to make a reader allocate or work without bound.
      {replaced(replaced(replaced(good, "\"min\" : 1048576", "\"min\" : 1"), "\"avg\" : 4194304",
                         "\"avg\" : 1"),
                "\"max\" : 16777216", "\"max\" : 1"),
       "manifest parse error: chunker: sizes must lie between 1024 and 67108864 bytes"},
      {replaced(good, "\"max\" : 16777216", "\"max\" : 1099511627776"),
       "manifest parse error: chunker: sizes"},
      {replaced(replaced(good, "\"n\" : 4", "\"n\" : 1099511627776"), "\"size\" : 4",
                "\"size\" : 1099511627776"),
       "manifest parse error: files[0] has a chunk longer than the chunker's max"},
      {replaced(replaced(good, "\"n\" : 4", "\"n\" : 18446744073709551615"), "\"size\" : 4",
                "\"size\" : 18446744073709551615"),
       "manifest parse error: files[0] has a chunk longer"},
      {"{\"files\":" + std::string(200000, '[') + std::string(200000, ']') + "}",
       "manifest parse error: nested too deep"},
      {std::string(kMaxManifestBytes + 1, ' '), "manifest parse error: too large"},
      {serializeManifest(withPaths({"a", "a"})), "manifest parse error: path a is named twice"},
      {serializeManifest(withPaths({"a", "a-b", "a/b"})),
       "manifest parse error: path a is both a file and a directory"},
  };
  for (const auto& c : cases) {
    auto parsed = parseManifest(c.text);
    ASSERT_FALSE(parsed) << c.text;
    EXPECT_EQ(parsed.error().rfind(c.starts, 0), 0u) << parsed.error();
  }
  Manifest beta = sample();
  beta.channel = "beta";
  EXPECT_EQ(checkManifestChannel(beta, "nightly").error(),
            "manifest is for channel 'beta', not 'nightly'");
}

TEST(ManifestTest, OnlySafeRelativePathsArePulled) {
  for (const char* path : {"a", "a/b.txt", "dir/.hidden", "x..y", "ab:c"}) {
    EXPECT_TRUE(isSafeManifestPath(path)) << path;
  }
  for (const char* path :
       {"", "/etc/passwd", "../x", "a/../../x", "a//b", "a/./b", "a/", "C:/x", "a\\..\\x", "."}) {
    EXPECT_FALSE(isSafeManifestPath(path)) << path;
  }
}

TEST(ManifestSignatureTest, SignsAndVerifiesExactBytes) {
  const SigningKeyPair keys = generateSigningKeyPair();
  EXPECT_EQ(keys.secretKeyHex.size(), 128u);
  EXPECT_EQ(publicKeyOf(keys.secretKeyHex).value(), keys.publicKeyHex);
  auto signature = signManifest("manifest bytes", keys.secretKeyHex);
  ASSERT_TRUE(signature) << signature.error();
  EXPECT_TRUE(verifyManifest("manifest bytes", signature.value() + "\n", keys.publicKeyHex));
  EXPECT_EQ(verifyManifest("manifest bytes ", signature.value(), keys.publicKeyHex).error(),
            "signature does not verify");
  EXPECT_EQ(
      verifyManifest("manifest bytes", signature.value(), generateSigningKeyPair().publicKeyHex)
          .error(),
      "signature does not verify");

  const std::string badSecret = "bad secret key (need 64-byte hex)";
  EXPECT_EQ(signManifest("m", keys.secretKeyHex.substr(2)).error(), badSecret);
  EXPECT_EQ(signManifest("m", "zz" + keys.secretKeyHex.substr(2)).error(), badSecret);
  EXPECT_EQ(verifyManifest("m", signature.value(), keys.secretKeyHex).error(), "bad public key");
  EXPECT_EQ(verifyManifest("m", signature.value().substr(1), keys.publicKeyHex).error(),
            "bad signature");
}

TEST(ChunkCodecTest, EveryStoredFormDecodesAndVerifies) {
  const std::string text = test::textBytes(3000, 1);
  const std::string noise = test::randomBytes(300 * 1024, 2);
  const ChunkRef textRef{chunkId(text), text.size()};
  const ChunkRef noiseRef{chunkId(noise), noise.size()};

  const std::string packed = encodeChunk(text, true);
  EXPECT_LT(packed.size(), text.size() / 4);
  // Noise is not worth level 12: stored as raw blocks, a few bytes over the chunk, readable by any
  // zstd decoder.
  const std::string raw = encodeChunk(noise, true);
  EXPECT_LE(raw.size(), noise.size() + 9 + 3 * 3);
  std::string plain(noise.size(), '\0');
  EXPECT_EQ(ZSTD_decompress(plain.data(), plain.size(), raw.data(), raw.size()), noise.size());
  EXPECT_EQ(plain, noise);
  EXPECT_EQ(rawZstdFrame("").size(), 12u);

  for (const auto& [object, ref] :
       {std::pair{packed, textRef}, {raw, noiseRef}, {encodeChunk(text, false), textRef}}) {
    auto decoded = decodeChunk(object, ref);
    ASSERT_TRUE(decoded) << decoded.error();
    EXPECT_EQ(chunkId(decoded.value()), ref.h);
  }

  std::string tampered = raw;
  tampered[tampered.size() / 2] ^= 1;
  EXPECT_EQ(decodeChunk(tampered, noiseRef).error(),
            "chunk " + noiseRef.h + " failed to decode/verify (corrupt or tampered)");
  EXPECT_EQ(decodeChunk(packed, {textRef.h, text.size() + 1}).error(),
            "chunk size mismatch for " + textRef.h);
  // A frame that claims more than the manifest's length is refused, not decoded into a huge buffer.
  EXPECT_FALSE(decodeChunk(packed, {textRef.h, 10}));
}

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
