// Documents written per second: the store's durable write (own temporary, data flushed before the
// rename, directory flushed after) next to the same write without either flush, on a record the
// size of a channel pointer with launch targets; each thread rewrites a document of its own.
//
//   document_write_bench [--benchmark_...]   in QUILL_BENCH_DIR (default: under /tmp, which must
//                                            not be a tmpfs for the figure to mean anything)

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <json/value.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "base/durable_file.h"
#include "store/documents.h"
#include "store/durable_file.h"

namespace {

namespace fs = std::filesystem;

fs::path benchDir() {
  const char* dir = std::getenv("QUILL_BENCH_DIR");
  fs::path path = dir ? fs::path(dir) : fs::temp_directory_path() / "quill-document-bench";
  fs::create_directories(path / "channels");
  return path / "channels";
}

Json::Value channelDocument() {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["build"] = "ci-1042";
  doc["created_at"] = "2026-05-01T09:30:00Z";
  doc["promoted_at"] = "2026-05-01T09:31:00Z";
  doc["public"] = true;
  Json::Value targets(Json::arrayValue);
  for (int i = 0; i < 4; ++i) {
    Json::Value target(Json::objectValue);
    target["label"] = "Target " + std::to_string(i);
    target["exe"] = "bin/game" + std::to_string(i) + ".exe";
    target["args"] = "--windowed --profile=default";
    target["primary"] = i == 0;
    targets.append(target);
  }
  doc["launch_targets"] = targets;
  return doc;
}

// The durable write as the server does it.
void BM_DurableWrite(benchmark::State& state) {
  const fs::path path = benchDir() / ("durable" + std::to_string(state.thread_index()) + ".json");
  const Json::Value doc = channelDocument();
  for (auto _ : state) {
    if (!quill::store::writeJsonFile(path, doc)) state.SkipWithError("write failed");
  }
  state.SetItemsProcessed(state.iterations());
}

// The same steps without the two flushes: what the write costs when a power cut may lose it.
void BM_UnflushedWrite(benchmark::State& state) {
  const fs::path path = benchDir() / ("unflushed" + std::to_string(state.thread_index()) + ".json");
  const std::string bytes = quill::store::toStyledJson(channelDocument());
  for (auto _ : state) {
    const fs::path tmp = quill::store::temporaryBeside(path);
    const int fd = ::open(tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    const bool written = fd >= 0 && quill::base::writeAll(fd, bytes);
    if (fd >= 0) ::close(fd);
    if (!written || ::rename(tmp.c_str(), path.c_str()) != 0) state.SkipWithError("write failed");
  }
  state.SetItemsProcessed(state.iterations());
}

}  // namespace

// One writer, and four writing four documents at once (as four requests would).
BENCHMARK(BM_DurableWrite)->UseRealTime()->MinTime(3.0)->Threads(1)->Threads(4);
BENCHMARK(BM_UnflushedWrite)->UseRealTime()->MinTime(3.0)->Threads(1)->Threads(4);
BENCHMARK_MAIN();
