// The manifest's stored form, its signature and the chunk objects: what a reader accepts and
// refuses; and the sync descriptor as written piece by piece and as read back by a client.

#include <gtest/gtest.h>
#include <json/writer.h>
#include <zstd.h>

#include "base/json_reader.h"
#include "rill/chunks/chunk_codec.h"
#include "rill/chunks/chunk_id.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/ops/sync_descriptor.h"
#include "rill/providers/storage_provider.h"
#include "rill_trees.h"

namespace quill::rill {
namespace {

using Rows = std::vector<std::pair<std::string, std::string>>;
const std::string kDeep = std::string(200000, '[') + std::string(200000, ']');
const std::string kMissing = "sync descriptor: manifest_url and chunks required";

Manifest sample(std::vector<ScannedFile> files = {{"dir/x.bin", 4, {{chunkId("aaaa"), 4}}},
                                                  {"empty", 0, {}}}) {
  return {{}, "nightly", "b-1", "2026-01-02T03:04:05Z", {std::move(files), {2, 1, 4, 4}}};
}

// `text` with each `from` replaced by its `to` (out_of_range when it is not there).
std::string edited(std::string text, const Rows& edits) {
  for (const auto& [from, to] : edits) text.replace(text.find(from), from.size(), to);
  return text;
}

TEST(Manifest, StoredFormRoundTripsAndOnlyManifestsAreRead) {
  const std::string good = serializeManifest(sample()), e = "manifest parse error: ";
  EXPECT_NE(good.find("\n  \"build\" : \"b-1\""), std::string::npos) << good;
  EXPECT_NE(good.find("\"algo\" : \"fastcdc-gear\""), std::string::npos);
  const Manifest back = parseManifest(good).value();
  EXPECT_EQ(back.tree.files, sample().tree.files);
  EXPECT_EQ(back.tree.stats, sample().tree.stats);
  EXPECT_EQ(back.created, "2026-01-02T03:04:05Z");
  EXPECT_EQ(serializeManifest(back), good);
  const std::string n = "\"n\" : 4", size = "\"size\" : 4", max = "\"max\" : 16777216";
  for (const auto& [text, error] : Rows{  // the text, the start of the error
           {edited(good, {{"\"schema\" : 1", "\"schema\" : 2"}}), "unsupported manifest schema"},
           {"not json", e}, {"[1]", e + "not a JSON object"},
           {edited(good, {{size, "\"size\" : 5"}}), e + "files[0] chunks"},
           {edited(good, {{n, "\"n\" : \"4\""}}), e + "files[0] has a"},
           {edited(good, {{chunkId("aaaa"), "ABC"}}), e + "files[0] has a"},
           {edited(good, {{"\"channel\" : \"nightly\"", "\"channel\" : 7"}}), e},
           {edited(good, {{"\"min\" : 1048576", "\"min\" : 99999999"}}), e + "chunker"},
           // What a hostile store could use to make a reader allocate or work without bound.
           {edited(good, {{"\"min\" : 1048576", "\"min\" : 1"}, {"\"avg\" : 4194304", "\"avg\" : 1"},
                          {max, "\"max\" : 1"}}),
            e + "chunker: sizes must lie between 1024 and 67108864 bytes"},
           {edited(good, {{max, "\"max\" : 1099511627776"}}), e + "chunker: sizes"},
           {edited(good, {{n, "\"n\" : 1099511627776"}, {size, "\"size\" : 1099511627776"}}),
            e + "files[0] has a chunk longer than the chunker's max"},
           {edited(good, {{n, "\"n\" : 18446744073709551615"}, {size, "\"size\" : 18446744073709551615"}}),
            e + "files[0] has a chunk longer"},
           {"{\"files\":" + kDeep + "}", e + "nested too deep"},
           {std::string(kMaxManifestBytes + 1, ' '), e + "too large"},
           {serializeManifest(sample({{"a", 0, {}}, {"a", 0, {}}})), e + "path a is named twice"},
           {serializeManifest(sample({{"a", 0, {}}, {"a-b", 0, {}}, {"a/b", 0, {}}})),
            e + "path a is both a file and a directory"}})
    EXPECT_TRUE(parseManifest(text).error().starts_with(error)) << parseManifest(text).error();
  Manifest beta = sample();
  beta.channel = "beta";
  EXPECT_EQ(checkManifestChannel(beta, "nightly").error(),
            "manifest is for channel 'beta', not 'nightly'");
  for (const char* path : {"a", "a/b.txt", "dir/.hidden", "x..y", "ab:c"})
    EXPECT_TRUE(isSafeManifestPath(path)) << path;
  for (const char* path :
       {"", "/etc/passwd", "../x", "a/../../x", "a//b", "a/./b", "a/", "C:/x", "a\\..\\x", "."})
    EXPECT_FALSE(isSafeManifestPath(path)) << path;
}

TEST(Manifest, SignaturesCoverTheExactBytes) {
  const SigningKeyPair keys = generateSigningKeyPair();
  EXPECT_EQ(keys.secretKeyHex.size(), 128u);
  EXPECT_EQ(publicKeyOf(keys.secretKeyHex).value(), keys.publicKeyHex);
  const std::string signature = signManifest("bytes", keys.secretKeyHex).value();
  EXPECT_TRUE(verifyManifest("bytes", signature + "\n", keys.publicKeyHex));
  for (const auto& [message, key] : Rows{{"bytes ", keys.publicKeyHex},
                                         {"bytes", generateSigningKeyPair().publicKeyHex}})
    EXPECT_EQ(verifyManifest(message, signature, key).error(), "signature does not verify");
  for (const std::string& bad : {keys.secretKeyHex.substr(2), "zz" + keys.secretKeyHex.substr(2)})
    EXPECT_EQ(signManifest("m", bad).error(), "bad secret key (need 64-byte hex)");
  EXPECT_EQ(verifyManifest("m", signature, keys.secretKeyHex).error(), "bad public key");
  EXPECT_EQ(verifyManifest("m", signature.substr(1), keys.publicKeyHex).error(), "bad signature");
}

TEST(Manifest, EveryStoredChunkFormDecodesAndVerifies) {
  std::string text, noise = test::randomBytes(300 * 1024, 2);
  for (int i = 0; i < 3000; ++i) text += "line " + std::to_string(i) + " of a text file\n";
  const ChunkRef textRef{chunkId(text), text.size()}, noiseRef{chunkId(noise), noise.size()};
  std::string packed = encodeChunk(text, true), raw = encodeChunk(noise, true);
  EXPECT_LT(packed.size(), text.size() / 4);
  // Noise is not worth compressing: raw blocks a few bytes over the chunk, for any zstd decoder.
  EXPECT_LE(raw.size(), noise.size() + 9 + 3 * 3);
  std::string plain(noise.size(), '\0');
  EXPECT_EQ(ZSTD_decompress(plain.data(), plain.size(), raw.data(), raw.size()), noise.size());
  EXPECT_EQ(plain, noise);
  EXPECT_EQ(rawZstdFrame("").size(), 12u);
  for (const auto& [object, ref] :
       {std::pair{packed, textRef}, {raw, noiseRef}, {encodeChunk(text, false), textRef}})
    EXPECT_EQ(chunkId(decodeChunk(object, ref).value()), ref.h);
  raw[raw.size() / 2] ^= 1;
  EXPECT_EQ(decodeChunk(raw, noiseRef).error(),
            "chunk " + noiseRef.h + " failed to decode/verify (corrupt or tampered)");
  EXPECT_EQ(decodeChunk(packed, {textRef.h, text.size() + 1}).error(),
            "chunk size mismatch for " + textRef.h);
  // A frame that claims more than the manifest's length is refused, not decoded into a huge buffer.
  EXPECT_FALSE(decodeChunk(packed, {textRef.h, 10}));
}

TEST(SyncDescriptor, IsWrittenAsTheIndentedWriterWouldWithEachChunkOnceAndBounded) {
  const S3Client bucket({"http://127.0.0.1:9", "", "b", "key", "secret"});
  const auto write = [&](const Manifest& m, std::string& text, std::uint64_t maxBytes) {
    return writeSyncDescriptor(bucket, "ch", m, 300, [&](auto piece) { return text += piece, true; },
                               maxBytes);
  };
  Json::StreamWriterBuilder styled;  // what the JSON writer makes of the same document
  styled["indentation"] = "  ";
  styled["emitUTF8"] = true;
  const auto ref = [](char digit) { return ChunkRef{std::string(64, digit), 1}; };
  for (Manifest m : {sample({}), sample({{"f", 2, {ref('b'), ref('a')}}, {"g", 1, {ref('b')}}})}) {
    m.channel = "ch\"an\\nel\n\x01 \xc3\xa9 \xff";  // every kind of character the writer escapes
    std::string text;
    const auto written = write(m, text, kMaxSyncDescriptorBytes);
    EXPECT_EQ(written.value(), text.size());
    EXPECT_EQ(text, Json::writeString(styled, base::parseJson(text).value_or(0)) + "\n");
    const PresignedLinks links = parseSyncDescriptor(text).value();
    EXPECT_EQ(links.chunks.size(), m.tree.files.empty() ? 0u : 2u);
    for (const auto& [id, url] : links.chunks)
      EXPECT_TRUE(url.starts_with("http://127.0.0.1:9/b/" + defaultChunkKey(id) + "?")) << url;
    EXPECT_TRUE(links.manifestUrl.starts_with("http://127.0.0.1:9/b/channels/ch/manifest.json?"));
    EXPECT_TRUE(links.signatureUrl.starts_with("http://127.0.0.1:9/b/channels/ch/manifest.json.sig?"));
  }
  const Manifest m = sample({{"f", 3, {ref('a'), ref('b'), ref('c')}}});
  std::string whole, cut;
  ASSERT_TRUE(write(m, whole, kMaxSyncDescriptorBytes));
  EXPECT_EQ(write(m, cut, whole.size() - 1).error(),
            "sync descriptor larger than " + std::to_string(whole.size() - 1) + " bytes");
  EXPECT_LT(cut.size(), whole.size());
  int pieces = 0;
  EXPECT_EQ(writeSyncDescriptor(bucket, "ch", m, 300, [&](auto) { return ++pieces < 3; }).error(),
            "cannot write sync descriptor");
  EXPECT_EQ(pieces, 3);
  for (const auto& [text, error] : Rows{  // reading fails with a reason and never throws
           {"", "sync descriptor: "}, {kDeep, "sync descriptor: nested too deep"},
           {"[1]", "sync descriptor: not a JSON object"}, {R"({"chunks": {}})", kMissing},
           {R"({"manifest_url": "u", "chunks": []})", kMissing},
           {R"({"manifest_url": "u", "chunks": {"a": 1}})", "sync descriptor: chunk links must be strings"}})
    EXPECT_TRUE(!parseSyncDescriptor(text) && parseSyncDescriptor(text).error().starts_with(error))
        << text.substr(0, 40);
}

}  // namespace
}  // namespace quill::rill
