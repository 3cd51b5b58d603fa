#pragma once
// Everything a handler or a command needs beyond its request: the settings, the data directory
// and the process-wide caches. Built once in main (or per test case) and passed down.

#include "handler/settings.h"
#include "store/data_dir.h"
#include "store/token_index.h"

namespace quill {

struct Context {
  explicit Context(Settings s) : settings(std::move(s)), data(settings.dataDir) {}

  Settings settings;
  store::DataDir data;
  store::TokenIndex tokens;
};

}  // namespace quill
