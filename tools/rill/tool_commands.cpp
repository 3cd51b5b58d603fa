#include "tool_commands.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>
#include <memory>

#include "base/http_client.h"
#include "base/json_reader.h"
#include "base/version.h"
#include "rill/ops/human_size.h"
#include "rill/chunks/manifest_signature.h"
#include "rill/providers/prefixed_provider.h"
#include "rill/ops/progress_line.h"
#include "rill/ops/publish.h"
#include "rill/ops/pull.h"
#include "rill/providers/s3_provider.h"
#include "rill/ops/sync_descriptor.h"

namespace quill::rilltool {

namespace {

using base::Failure;
using base::Result;

int failed(const std::string& message) {
  std::fprintf(stderr, "%s\n", message.c_str());
  return 1;
}

std::string utcNow() {
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  ::gmtime_r(&now, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return text;
}

rill::StorageProviderPtr openStore(const rill::S3Settings& storage) {
  auto bucket = std::make_unique<rill::S3Provider>(storage);
  if (storage.prefix.empty()) return bucket;
  return std::make_unique<rill::PrefixedProvider>(storage.prefix, std::move(bucket));
}

// A signing key given as a file holding it, or as the hexadecimal text itself.
std::string signingKeyText(const std::string& argument) {
  std::ifstream file(argument);
  if (!file) return argument;
  std::string text(4096, '\0');
  file.read(text.data(), static_cast<std::streamsize>(text.size()));
  text.resize(static_cast<std::size_t>(file.gcount()));
  while (!text.empty() && std::isspace(static_cast<unsigned char>(text.back()))) text.pop_back();
  return text;
}

// The presigned links the server hands out for `channel`.
Result<rill::PresignedLinks> askServer(const ToolOptions& o) {
  std::string base = o.server;
  while (base.ends_with('/')) base.pop_back();
  base::HttpRequest request{"GET", base + "/api/rill/sync/" + o.channel, {}, {}};
  request.maxBody = rill::kMaxSyncDescriptorBytes;
  if (!o.token.empty()) request.headers.push_back("Authorization: Bearer " + o.token);
  const base::HttpResponse response = base::performHttp(request);
  if (!response.error.empty()) return Failure{"cannot reach server: " + response.error};
  if (response.status != 200) {
    std::string reason = response.body.substr(0, 300);
    const auto doc = base::parseJsonObject(response.body);
    if (doc && (*doc)["error"].isString()) reason = (*doc)["error"].asString();
    return Failure{"server answered HTTP " + std::to_string(response.status) + ": " + reason};
  }
  return rill::parseSyncDescriptor(response.body);
}

}  // namespace

int runKeygen(const ToolOptions& o) {
  const rill::SigningKeyPair keys = rill::generateSigningKeyPair();
  if (o.secretFile.empty()) {
    std::printf("secret key: %s\npublic key: %s\n", keys.secretKeyHex.c_str(),
                keys.publicKeyHex.c_str());
    return 0;
  }
  const int fd = ::open(o.secretFile.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (fd < 0) return failed("cannot create " + o.secretFile + " (it must not exist yet)");
  const std::string line = keys.secretKeyHex + "\n";
  const bool written = ::write(fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  if (::close(fd) != 0 || !written) return failed("write failed for " + o.secretFile);
  std::printf("secret key written to %s\npublic key: %s\n", o.secretFile.c_str(),
              keys.publicKeyHex.c_str());
  return 0;
}

int runPublish(const ToolOptions& o) {
  auto store = openStore(o.storage);
  rill::PublishOptions options;
  options.channel = o.channel;
  options.created = utcNow();
  options.build = o.build.empty() ? options.created : o.build;
  options.force = o.force;
  options.compress = o.compress;
  if (!o.signKey.empty()) options.signingKey = signingKeyText(o.signKey);
  rill::ProgressLine progress(stderr);
  options.progress = [&progress](const rill::PublishProgress& p) {
    progress.update(rill::publishCounts(p));
  };
  auto report = rill::publishDirectory(*store, o.dir, options);
  progress.finish();
  if (!report) return failed(report.error());
  const rill::ScanStats& stats = report.value().manifest.tree.stats;
  const double seconds = progress.seconds();
  std::printf(
      "published %s build %s: files %llu, chunks %llu, new %llu, bytes %s, stored %s, "
      "time %.2f s (%s)\n",
      o.channel.c_str(), options.build.c_str(), static_cast<unsigned long long>(stats.files),
      static_cast<unsigned long long>(stats.unique_chunks),
      static_cast<unsigned long long>(report.value().uploaded),
      rill::humanBytes(stats.total_bytes).c_str(),
      rill::humanBytes(report.value().storedBytes).c_str(), seconds,
      rill::humanRate(stats.total_bytes, seconds).c_str());
  return 0;
}

int runPull(const ToolOptions& o) {
  rill::ProgressLine progress(stderr);
  std::unique_ptr<rill::PullSource> source;
  rill::StorageProviderPtr store;
  if (!o.server.empty()) {
    auto links = askServer(o);
    if (!links) return failed(links.error());
    source = std::make_unique<rill::PresignedPullSource>(std::move(links).value());
  } else {
    store = openStore(o.storage);
    source = std::make_unique<rill::StorePullSource>(*store, o.channel);
  }
  rill::PullOptions options;
  options.channel = o.channel;
  options.verifyKey = o.verifyKey;
  options.progress = [&progress](const rill::PullProgress& p) {
    progress.update(rill::pullCounts(p));
  };
  auto report = rill::pullChannel(*source, o.dir, options);
  progress.finish();
  if (!report) return failed(report.error());
  const rill::ScanStats& stats = report.value().manifest.tree.stats;
  const rill::PullProgress& totals = report.value().totals;
  const double seconds = progress.seconds();
  std::printf(
      "pulled %s build %s: files %llu, chunks %llu, new %llu, reused %llu, unchanged files %llu, "
      "bytes %s, downloaded %s, time %.2f s (%s)\n",
      o.channel.c_str(), report.value().manifest.build.c_str(),
      static_cast<unsigned long long>(stats.files),
      static_cast<unsigned long long>(stats.unique_chunks),
      static_cast<unsigned long long>(totals.downloaded),
      static_cast<unsigned long long>(totals.reused),
      static_cast<unsigned long long>(report.value().unchangedFiles),
      rill::humanBytes(stats.total_bytes).c_str(), rill::humanBytes(totals.downloadedBytes).c_str(),
      seconds, rill::humanRate(totals.downloadedBytes, seconds).c_str());
  return 0;
}

int runTool(const std::vector<std::string>& args) {
  auto options = parseToolOptions(args, processEnvironment());
  if (!options) {
    return failed(options.error());
  }
  const ToolOptions& o = options.value();
  if (o.version) {
    std::printf("quillmoor-rill %s\n", kVersion);
    return 0;
  }
  if (o.help) {
    std::fputs(usageText(o.command).c_str(), stdout);
    return 0;
  }
  switch (o.command) {
    case Command::kPublish:
      return runPublish(o);
    case Command::kPull:
      return runPull(o);
    case Command::kKeygen:
      return runKeygen(o);
    case Command::kNone:
      break;
  }
  return 1;
}

}  // namespace quill::rilltool
