#pragma once
// Everything a handler or a command needs beyond its request: the settings and the data
// directory. Built once in main (or per test case) and passed down; there are no other globals.

#include "app/settings.h"
#include "store/data_dir.h"

namespace quill {

struct Context {
  explicit Context(Settings s) : settings(std::move(s)), data(settings.dataDir) {}

  Settings settings;
  store::DataDir data;
};

}  // namespace quill
