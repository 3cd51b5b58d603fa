#include "app/serve.h"

#include <curl/curl.h>
#include <sodium.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <thread>

#include "app/routes.h"
#include "app/version.h"
#include "backup/schedule_check.h"
#include "builds/build_store.h"
#include "http/server.h"
#include "store/documents.h"

namespace quill {

namespace {

constexpr std::chrono::seconds kScheduleCheckPeriod{60};

// The scheduled-backup check runs every minute so that a changed schedule takes effect without a
// restart.
void scheduledBackupCheck(Context& ctx) { backup::checkSchedule(ctx, std::time(nullptr)); }

http::ServerOptions serverOptions(const ServerSettings& settings) {
  http::ServerOptions options;
  options.address = settings.bind;
  options.port = settings.port;
  unsigned cores = std::max(1U, std::thread::hardware_concurrency());
  options.ioThreads = cores;
  options.workerThreads = cores;
  return options;
}

// Every open connection holds a descriptor: take all the descriptors the system grants us, since
// the soft limit a shell hands down (often 1,024) is far below what a busy server needs.
void raiseOpenFileLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
  limit.rlim_cur = limit.rlim_max;
  ::setrlimit(RLIMIT_NOFILE, &limit);
}

}  // namespace

std::string startupBanner(const Context& ctx, bool anyTokenExists) {
  const ServerSettings& s = ctx.settings;
  const std::string dir = ctx.data.root().string();
  std::string text = std::string(kProgramName) + " " + kVersion + "\n";
  text += "  listening on http://" + s.bind + ":" + std::to_string(s.port) +
          (s.rillOnly ? "  (Rill-only)" : "") + "\n";
  text += "  data dir: " + dir + "\n";
  if (anyTokenExists) return text;
  text +=
      "\n  No tokens exist yet - every request will be rejected with 401.\n"
      "  Mint your first (admin) token with:\n\n"
      "    quillmoord user create <name> --role admin --data-dir " +
      dir +
      "\n"
      "    quillmoord token create <token-name> --user <name> --data-dir " +
      dir +
      "\n\n"
      "  Configure clients with:  quillmoor config set token <token>\n\n";
  return text;
}

int runServer(Context& ctx) {
  const auto startedAt = std::filesystem::file_time_type::clock::now();
  if (sodium_init() < 0) {
    std::fputs("rill-core: libsodium failed to initialise\n", stderr);
    std::abort();
  }
  curl_global_init(CURL_GLOBAL_ALL);
  raiseOpenFileLimit();

  http::Server server(makeRouter(ctx), serverOptions(ctx.settings));

  std::string error;
  if (!ctx.data.prepare(error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  // Bodies of uploads that a crash or a kill cut short: nothing references them.
  builds::removeUploadLeftovers(ctx.data);
  // Temporaries of document writes that a crash cut short; those of an offline command writing
  // right now are younger than this server.
  ctx.data.removeDocumentLeftovers(startedAt);
  bool anyToken = !store::listJsonDir(ctx.data.tokens()).empty();
  std::fputs(startupBanner(ctx, anyToken).c_str(), stdout);
  std::fflush(stdout);

  server.every(kScheduleCheckPeriod, [&ctx] { scheduledBackupCheck(ctx); });
  if (!server.listen(error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  server.run();
  return 0;
}

}  // namespace quill
