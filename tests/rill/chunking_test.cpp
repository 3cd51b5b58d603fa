// Cut points against their byte-wise definition, files and trees; the manifest, its signature,
// the chunk objects and the sync descriptor as written and as a reader accepts and refuses them.

#include <gtest/gtest.h>
#include <json/writer.h>
#include <zstd.h>

#include "base/json_reader.h"
#include "rill/chunks/chunk_codec.h"
#include "rill/chunks/chunk_id.h"
#include "rill/chunks/gear.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/ops/sync_descriptor.h"
#include "rill/providers/storage_provider.h"
#include "rill_trees.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

namespace fs = std::filesystem;
using Cuts = std::vector<std::uint64_t>;
using Paths = std::vector<std::string>;
using Rows = std::vector<std::pair<std::string, std::string>>;
using ChunkingFiles = quill::test::TempDirTest;
const ChunkerParams kSmall{64, 256, 1024};  // a few KiB make several chunks

const auto* bytesOf(const std::string& s) { return reinterpret_cast<const uint8_t*>(s.data()); }

// The cut-point search exactly as the algorithm defines it, one byte at a time.
std::uint64_t referenceCut(const std::uint8_t* data, std::uint64_t len, const ChunkerParams& p) {
  if (len <= p.min) return len;
  const std::uint64_t limit = std::min(len, p.max), normal = std::min(p.avg, limit);
  const ChunkMasks masks = chunkMasks(p.avg);
  for (std::uint64_t i = p.min, h = 0; i < limit; ++i) {
    h = (h << 1) + gearTable()[data[i]];
    if ((h & (i < normal ? masks.strict : masks.loose)) == 0) return i + 1;
  }
  return limit;
}

// Every cut of `data` by repeated whole-buffer searches.
Cuts cutsOf(const std::string& data, const ChunkerParams& p, bool reference = false) {
  Cuts cuts;
  for (std::uint64_t at = 0; at < data.size(); cuts.push_back(at))
    at += (reference ? referenceCut : findCutPoint)(bytesOf(data) + at, data.size() - at, p);
  return cuts;
}

std::vector<ChunkRef> refsOf(const std::string& data, const ChunkerParams& p) {
  std::vector<ChunkRef> refs;
  for (std::uint64_t at = 0; const std::uint64_t cut : cutsOf(data, p))
    refs.push_back({chunkId(data.substr(at, cut - at)), cut - at}), at = cut;
  return refs;
}

Paths paths(const Result<TreeScan>& scan) {
  Paths out;
  for (const auto& file : scan.value().files) out.push_back(file.path);
  return out;
}

TEST(Chunker, GearTableMasksAndParameters) {
  EXPECT_EQ((Cuts{gearTable()[0], gearTable()[1], gearTable()[255]}),  // SplitMix64, bit for bit
            (Cuts{0x157A3807A48FAA9DULL, 0xD573529B34A1D093ULL, 0x293D194EEE358FF8ULL}));
  const std::uint64_t masks[][3] = {  // avg, strict, loose; an avg not a power of two rounds up
      {4194304, (1ULL << 24) - 1, (1ULL << 20) - 1}, {4194305, (1ULL << 25) - 1, (1ULL << 21) - 1},
      {1, 3, 0}, {0, 3, 0}, {1ULL << 62, ~0ULL, (1ULL << 60) - 1}};
  for (const auto& [avg, strict, loose] : masks)
    EXPECT_EQ((Cuts{chunkMasks(avg).strict, chunkMasks(avg).loose}), (Cuts{strict, loose})) << avg;
  EXPECT_FALSE(checkChunkerParams({}) || checkChunkerParams({4, 4, 4}));
  EXPECT_TRUE(checkChunkerParams({0, 0, 0}) && checkChunkerParams({8, 4, 16}) &&
              checkChunkerParams({1, 32, 16}));
}

TEST(Chunker, CutsMatchTheByteWiseDefinitionWholeOrStreamed) {
  // Small sizes give many cuts in both mask regions, at the forced maximum and in short tails.
  for (const ChunkerParams p : {kSmall, {0, 16, 64}, {100, 100, 100}, {1, 1, 3}, {512, 4096, 4096}})
    for (unsigned seed = 0; seed < 4; ++seed) {
      const std::string data = test::randomBytes(200000 + seed * 37, seed);
      EXPECT_EQ(cutsOf(data, p), cutsOf(data, p, true)) << p.min << " " << p.avg << " " << seed;
    }
  const std::string data = test::randomBytes(300000, 3), big = test::randomBytes(24u << 20, 7);
  for (std::uint64_t len : {0u, 64u}) EXPECT_EQ(findCutPoint(bytesOf(data), len, kSmall), len);
  const Cuts bigCuts = cutsOf(big, {});  // default sizes: cut by content, not only at the maximum
  EXPECT_EQ(bigCuts, cutsOf(big, {}, true));
  EXPECT_GT(bigCuts.size(), 3u);
  std::mt19937 rng(11);
  for (int round = 0; round < 20; ++round) {  // in pieces of 1 byte to several chunks
    CutFinder finder(kSmall);
    Cuts cuts;
    for (std::size_t at = 0, piece = 0; at < data.size(); at += piece) {
      piece = std::min<std::size_t>(data.size() - at, 1 + rng() % 3000);
      for (std::size_t used = 0; used < piece; cuts.push_back(at + used)) {
        const auto cut = finder.next(bytesOf(data) + at + used, piece - used);
        if (!cut) break;
        used += *cut;
      }
    }
    if (finder.finish()) cuts.push_back(data.size());
    ASSERT_EQ(cuts, cutsOf(data, kSmall)) << "round " << round;
    EXPECT_FALSE(finder.finish());
  }
}

TEST_F(ChunkingFiles, FilesAreChunkedAsTheWholeBufferWouldBe) {
  // Below and above the size where hashing moves to a second thread; small chunk sizes put cuts
  // inside blocks, at block edges and across several blocks (all forced at max in the last).
  const ChunkerParams kib{4096, 65536, 1u << 20}, mib{1u << 20, 1u << 20, 1u << 20};
  for (const auto& [p, size] : std::vector<std::pair<ChunkerParams, std::size_t>>{
           {{}, 0}, {{}, 3}, {{}, 3u << 20}, {{}, (20u << 20) + 5}, {kib, 3u << 20},
           {kib, 16u << 20}, {mib, 20u << 20}}) {
    const std::string bytes = test::randomBytes(size, 7);
    std::vector<Chunk> chunks;
    for (std::uint64_t at = 0; const ChunkRef& ref : refsOf(bytes, p))
      chunks.push_back({at, ref.n, ref.h}), at += ref.n;
    test::writeFile(dir() / "f", bytes);
    EXPECT_EQ(chunkFile(dir() / "f", p).value(), chunks) << size << " " << p.avg;
  }
  EXPECT_EQ(chunkFile(dir() / "none", {}).error(), "cannot open " + (dir() / "none").string());
  EXPECT_EQ(chunkFile(dir(), {}).error(), "read error on " + dir().string());
}

TEST_F(ChunkingFiles, TreesListFilesInByteOrderFollowOnlyTheLinksToldAndCountChunksOnce) {
  const fs::path root = dir() / "tree", volume = dir() / "volume";
  for (const fs::path& file : {root / "b.txt", root / "a/z.txt", root / "a/Y.txt", root / "B.txt",
                               root / "a-b", volume / "shelf/b/files/x.bin",
                               volume / "b2/files/sub/y.bin", volume / "stray/z.bin"})
    test::writeFile(file, "x");
  fs::create_directories(root / "empty-dir");
  const std::pair<fs::path, fs::path> links[] = {  // target, link; the last two lead back inside
      {volume / "shelf", root / "builds"}, {volume / "b2", volume / "shelf/b2"},
      {volume / "stray", root / "stray"}, {volume / "stray/z.bin", root / "z.bin"},
      {root, volume / "b2/files/loop"}, {volume / "shelf", volume / "b2/files/up"}};
  for (const auto& [target, link] : links) fs::create_symlink(target, link);
  Paths asked, followed{"B.txt", "a-b", "a/Y.txt", "a/z.txt", "b.txt"};
  EXPECT_EQ(paths(scanTree(root, kSmall)), followed);  // without the option no link is taken
  ScanOptions options;
  options.followLink = [&](std::string_view relative) {
    asked.emplace_back(relative);
    return relative != "stray" && relative != "z.bin";
  };
  followed.insert(followed.end(), {"builds/b/files/x.bin", "builds/b2/files/sub/y.bin"});
  EXPECT_EQ(paths(scanTree(root, kSmall, {}, options)), followed);
  std::sort(asked.begin(), asked.end());
  EXPECT_EQ(asked, (Paths{"builds", "builds/b2", "builds/b2/files/loop", "builds/b2/files/up",
                          "stray", "z.bin"}));
  EXPECT_EQ(scanTree(dir() / "no", kSmall).error(), "path not found: " + (dir() / "no").string());
  // Chunks found twice, in two files or in one, count once; empty files are listed.
  const std::string text = test::textBytes(400, 9), zeros(3000, '\0');  // 2 equal chunks, a tail
  for (const auto& [file, bytes] :
       {std::pair{"one", text}, {"copy/one", text}, {"empty", ""}, {"zeros", zeros}})
    test::writeFile(dir() / "dup" / file, bytes);
  const auto scan = scanTree(dir() / "dup", kSmall);
  const auto textRefs = refsOf(text, kSmall), zeroRefs = refsOf(zeros, kSmall);
  EXPECT_EQ(scan.value().files,
            (std::vector<ScannedFile>{{"copy/one", text.size(), textRefs}, {"empty", 0, {}},
                                      {"one", text.size(), textRefs}, {"zeros", 3000, zeroRefs}}));
  EXPECT_EQ(scan.value().stats,
            (ScanStats{4, textRefs.size() + 2, 2 * text.size() + 3000, text.size() + 1024 + 952}));
}

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

TEST(Manifest, StoredFormRoundTripsAndOnlyManifestsAndSyncDescriptorsAreRead) {
  const std::string good = serializeManifest(sample()), e = "manifest parse error: ";
  EXPECT_NE(good.find("\n  \"build\" : \"b-1\""), std::string::npos) << good;
  EXPECT_NE(good.find("\"algo\" : \"fastcdc-gear\""), std::string::npos);
  EXPECT_EQ(serializeManifest(parseManifest(good).value()), good);
  const std::string n = "\"n\" : 4", size = "\"size\" : 4", huge = "18446744073709551615",
                   min = "\"min\" : 1048576", avg = "\"avg\" : 4194304", max = "\"max\" : 16777216";
  for (const auto& [text, error] : Rows{  // the text, the start of the error
           {edited(good, {{"\"schema\" : 1", "\"schema\" : 2"}}), "unsupported manifest schema"},
           {"not json", e}, {"[1]", e + "not a JSON object"},
           {edited(good, {{size, "\"size\" : 5"}}), e + "files[0] chunks"},
           {edited(good, {{n, "\"n\" : \"4\""}}), e + "files[0] has a"},
           {edited(good, {{chunkId("aaaa"), "ABC"}}), e + "files[0] has a"},
           {edited(good, {{"\"channel\" : \"nightly\"", "\"channel\" : 7"}}), e},
           {edited(good, {{min, "\"min\" : 99999999"}}), e + "chunker"},
           // What a hostile store could use to make a reader allocate or work without bound.
           {edited(good, {{min, "\"min\" : 1"}, {avg, "\"avg\" : 1"}, {max, "\"max\" : 1"}}),
            e + "chunker: sizes must lie between 1024 and 67108864 bytes"},
           {edited(good, {{max, "\"max\" : 1099511627776"}}), e + "chunker: sizes"},
           {edited(good, {{n, "\"n\" : 1099511627776"}, {size, "\"size\" : 1099511627776"}}),
            e + "files[0] has a chunk longer than the chunker's max"},
           {edited(good, {{n, "\"n\" : " + huge}, {size, "\"size\" : " + huge}}),
            e + "files[0] has a chunk longer"},
           {"{\"files\":" + kDeep + "}", e + "nested too deep"},
           {std::string(kMaxManifestBytes + 1, ' '), e + "too large"},
           {serializeManifest(sample({{"a", 0, {}}, {"a", 0, {}}})), e + "path a is named twice"},
           {serializeManifest(sample({{"a", 0, {}}, {"a-b", 0, {}}, {"a/b", 0, {}}})),
            e + "path a is both a file and a directory"},
           // A sync descriptor, as a server answered it, fails as cleanly.
           {"", "sync descriptor: "}, {"[1]", "sync descriptor: not a JSON object"},
           {R"({"chunks": {}})", kMissing},
           {R"({"manifest_url": "u", "chunks": []})", kMissing},
           {R"({"manifest_url": "u", "chunks": {"a": 1}})",
            "sync descriptor: chunk links must be strings"}}) {
    const bool sync = error.starts_with("sync");
    const std::string got = sync ? parseSyncDescriptor(text).error() : parseManifest(text).error();
    EXPECT_TRUE(got.starts_with(error)) << text.substr(0, 40) << ": " << got;
  }
  for (const char* path : {"a", "a/b.txt", "dir/.hidden", "x..y", "ab:c"})
    EXPECT_TRUE(isSafeManifestPath(path)) << path;
  for (const char* path :
       {"", "/etc/passwd", "../x", "a/../../x", "a//b", "a/./b", "a/", "C:/x", "a\\..\\x", "."})
    EXPECT_FALSE(isSafeManifestPath(path)) << path;
}

TEST(Manifest, SignaturesCoverTheExactBytes) {
  const SigningKeyPair keys = generateSigningKeyPair();
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
  std::string text = test::textBytes(3000, 1), noise = test::randomBytes(300 * 1024, 2);
  const ChunkRef textRef{chunkId(text), text.size()}, noiseRef{chunkId(noise), noise.size()};
  std::string packed = encodeChunk(text, true), raw = encodeChunk(noise, true);
  EXPECT_LT(packed.size(), text.size() / 4);
  // Noise is not worth compressing: raw blocks a few bytes over the chunk, for any zstd decoder.
  EXPECT_LE(raw.size(), noise.size() + 9 + 3 * 3);
  std::string plain(noise.size() + 1, '\0');
  plain.resize(ZSTD_decompress(plain.data(), plain.size(), raw.data(), raw.size()));
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
    const auto sink = [&](std::string_view piece) { return text += piece, true; };
    return writeSyncDescriptor(bucket, "ch", m, 300, sink, maxBytes);
  };
  Json::StreamWriterBuilder styled;  // what the JSON writer makes of the same document
  styled["indentation"] = "  ", styled["emitUTF8"] = true;
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
    const std::string manifest = "http://127.0.0.1:9/b/channels/ch/manifest.json";
    EXPECT_TRUE(links.manifestUrl.starts_with(manifest + "?") &&
                links.signatureUrl.starts_with(manifest + ".sig?")) << links.signatureUrl;
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
}

}  // namespace
}  // namespace quill::rill
