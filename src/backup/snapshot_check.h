#pragma once
// `backup check`: whether every snapshot in a backup store could be restored. Each manifest must
// open and parse, and every chunk it names must be in the store; with `readData`, every chunk is
// also fetched, opened and checked against its id, which costs a download of the whole store.

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "rill/result.h"
#include "rill/providers/storage_provider.h"

namespace quill::backup {

struct CheckProgress {
  std::uint64_t chunksDone = 0;
  std::uint64_t chunksTotal = 0;
  std::uint64_t bytesDone = 0;  // chunk bytes (as restored) of the chunks done
  std::uint64_t bytesTotal = 0;
};

struct CheckReport {
  std::uint64_t snapshots = 0;
  std::uint64_t chunks = 0;           // distinct chunks named by the readable manifests
  std::vector<std::string> problems;  // one line each, sorted; empty when all is well
};

// Checks every snapshot of `store`. Problems are reported, not failed: "<snapshot>: <reason>" for a
// manifest that cannot be read, "chunk <id> is missing (<snapshots>)" and, with `readData`,
// "chunk <id>: <reason> (<snapshots>)". Fails only when the store cannot be listed ("list:
// <reason>"). `progress` is called once per chunk, one call at a time.
rill::Result<CheckReport> checkSnapshots(
    rill::StorageProvider& store, bool readData,
    const std::function<void(const CheckProgress&)>& progress = {});

}  // namespace quill::backup
