#include "app/serve.h"

#include <pthread.h>
#include <sys/resource.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <thread>

#include "app/access_log.h"
#include "app/gate.h"
#include "app/routes.h"
#include "app/scheduler.h"
#include "base/version.h"
#include "backup/background_run.h"
#include "backup/schedule_check.h"
#include "builds/build_store.h"
#include "http/server.h"
#include "store/documents.h"

namespace quill {

namespace {

constexpr std::chrono::seconds kScheduleCheckPeriod{60};
// How long requests in flight (an upload, a download) may take to finish once asked to stop.
constexpr std::chrono::seconds kShutdownGrace{30};

// The scheduled-backup check runs every minute so that a changed schedule takes effect without a
// restart.
void scheduledBackupCheck(Context& ctx) { backup::checkSchedule(ctx, std::time(nullptr)); }

// The access log's entry for an answered request.
AccessEntry accessEntry(const http::Exchange& exchange) {
  const http::Request& req = exchange.request;
  AccessEntry entry;
  entry.client = req.method.empty() ? req.peer : clientKey(req);
  if (entry.client.empty()) entry.client = req.peer;
  entry.user = req.caller;
  entry.method = req.headOnly ? "HEAD" : req.method;
  entry.target = req.target;
  entry.version = req.version;
  entry.status = exchange.status;
  entry.bytes = exchange.bodyBytes;
  entry.userAgent = std::string(req.header("user-agent"));
  entry.took = std::chrono::duration_cast<std::chrono::microseconds>(exchange.took);
  entry.when = std::time(nullptr);
  return entry;
}

http::ServerOptions serverOptions(const ServerSettings& settings, AccessLog& log) {
  http::ServerOptions options;
  if (log.enabled()) {
    options.answered = [&log](const http::Exchange& e) {
      log.write(formatAccessLine(accessEntry(e)));
    };
  }
  options.address = settings.bind;
  options.port = settings.port;
  unsigned cores = std::max(1U, std::thread::hardware_concurrency());
  options.ioThreads = cores;
  options.workerThreads = cores;
  return options;
}

// The signals the server handles itself, on a thread of its own (sigwait): blocked in every
// thread, so they must be blocked before the first thread starts.
sigset_t handledSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGTERM);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGHUP);
  return set;
}

// SIGHUP reopens the access log (after a rotation); SIGTERM or SIGINT drains the server. Returns
// at the first signal after `done` is set; the thread never ends on its own, so a signal sent to
// it to end it always finds it waiting.
void watchSignals(sigset_t set, http::Server& server, AccessLog& log,
                  const std::atomic<bool>& done) {
  for (;;) {
    int signal = 0;
    if (sigwait(&set, &signal) != 0) continue;
    if (done) return;
    if (signal == SIGHUP) {
      log.reopen();
    } else {
      server.drain(kShutdownGrace);
    }
  }
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
  raiseOpenFileLimit();

  AccessLog log;
  if (!ctx.settings.accessLog.empty()) {
    if (auto opened = log.open(ctx.settings.accessLog); !opened) {
      std::fprintf(stderr, "%s\n", opened.error().c_str());
      return 1;
    }
  }
  const sigset_t signals = handledSignals();
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  http::Server server(makeRouter(ctx), serverOptions(ctx.settings, log));

  if (auto prepared = ctx.data.prepare(); !prepared) {
    std::fprintf(stderr, "%s\n", prepared.error().c_str());
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

  if (auto listening = server.listen(); !listening) {
    std::fprintf(stderr, "%s\n", listening.error().c_str());
    return 1;
  }
  Scheduler scheduler;
  scheduler.every(kScheduleCheckPeriod, [&ctx] { scheduledBackupCheck(ctx); });
  scheduler.start();
  std::atomic<bool> servingEnded{false};
  std::thread signalWatcher([&] { watchSignals(signals, server, log, servingEnded); });

  server.run();
  // Serving ended (drained, or stopped): nothing new starts; a backup running now finishes, and
  // its lock on the data directory goes with it.
  servingEnded = true;
  pthread_kill(signalWatcher.native_handle(), SIGHUP);
  signalWatcher.join();
  scheduler.stop();
  backup::finishBackgroundRun(
      ctx.backups, [] { std::fputs("waiting for the running backup to finish\n", stderr); });
  return 0;
}

}  // namespace quill
