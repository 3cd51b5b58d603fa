#include "storage/sync_api.h"

#include <malloc.h>

#include <cstdlib>

#include "rill/chunks/manifest.h"
#include "rill/providers/s3_provider.h"
#include "rill/transport/s3_settings.h"
#include "rill/ops/sync_descriptor.h"
#include "store/documents.h"
#include "store/scratch_file.h"

namespace quill::storage {

namespace {

namespace text {
constexpr const char* kBadName = "invalid channel name";
constexpr const char* kNoRillChannel = "no such Rill channel";
constexpr const char* kNoScratch = "cannot write sync descriptor";
}  // namespace text

constexpr std::int64_t kDefaultLifetime = 300;

bool isRillChannel(const Context& ctx, const std::string& name) {
  Json::Value doc;
  if (!store::readJsonFile(store::DataDir::recordPath(ctx.data.channels(), name), doc))
    return false;
  return doc["engine"].isString() && doc["engine"].asString() == "rill";
}

Response unavailable(const std::string& reason) {
  return http::errorResponse(503, "rill: " + reason);
}

// "manifest larger than <n> bytes"
std::string manifestTooLarge(std::uint64_t bound) {
  std::string text = "manifest larger than ";
  return text.append(std::to_string(bound)).append(" bytes");
}

}  // namespace

std::int64_t syncLinkLifetime(const Request& req) {
  const auto ttl = req.param("ttl");
  if (!ttl) return kDefaultLifetime;
  const std::string digits(*ttl);
  const long long value = std::strtoll(digits.c_str(), nullptr, 10);
  return value < 1 ? kDefaultLifetime : value;
}

namespace {

// The descriptor of `channel` from its manifest in `bucket`, sent from a file.
Response describe(Context& ctx, rill::S3Provider& bucket, const std::string& channel,
                  std::int64_t lifetime) {
  // The manifest's size, asked first, is what its download and parse take from the budget and
  // all that its download may bring: a bucket that stalls holds none of the budget, and one that
  // lies about the size is cut off there (as is, rarely, a manifest replaced in between; the
  // client asks again). A size not told may take the whole budget. An error answer reads as
  // size 0, and the download then reports the error as the bucket gives it.
  const std::uint64_t bound = ctx.syncManifestBytes.total();
  const std::string key = rill::manifestKey(channel);
  const base::HttpResponse head = bucket.client().head(key);
  if (!head.error.empty()) return unavailable(head.error);  // asking again would wait again
  std::uint64_t size = 0;
  if (head.isSuccess()) {
    size = head.contentLength >= 0 ? static_cast<std::uint64_t>(head.contentLength) : bound;
  }
  if (size > bound) return unavailable(manifestTooLarge(bound));
  const auto lease = ctx.syncManifestBytes.take(size);
  auto body = bucket.get(key, size);
  if (!body) return unavailable(body.error());
  auto manifest = rill::parseManifest(body.value());
  body = std::string();
  if (!manifest) return unavailable(manifest.error());

  // Written to an unnamed file and sent from there: the descriptor is several times the size of
  // the manifest, and a slow client must not keep that in memory.
  store::ScratchFile file(ctx.data.root());
  if (!file.ok()) return unavailable(text::kNoScratch);
  const auto written =
      rill::writeSyncDescriptor(bucket.client(), channel, manifest.value(), lifetime,
                                [&file](std::string_view piece) { return file.write(piece); });
  if (!written) return unavailable(written.error());
  if (!file.flush()) return unavailable(text::kNoScratch);
  return Response::fromOpenFile(file.release(), http::kJsonType);
}

}  // namespace

Response rillSync(const Request& req, Context& ctx) {
  const std::string& channel = req.segment();
  if (auto refused = handler::refuseInvalidName(channel, text::kBadName)) return *refused;
  if (!isRillChannel(ctx, channel)) return http::errorResponse(404, text::kNoRillChannel);

  const auto settings = rill::readRillJson(ctx.data.root());
  if (!settings) return unavailable(settings.error());
  rill::S3Provider bucket(settings.value());
  Response answer = describe(ctx, bucket, channel, syncLinkLifetime(req));
  // A parsed manifest leaves hundreds of MiB of small blocks free in this thread's heap, which
  // the allocator keeps; handed back, they do not add up over the pool's threads.
  ::malloc_trim(0);
  return answer;
}

}  // namespace quill::storage
