#pragma once
// A test fixture with a fresh, empty directory per test.

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace quill::test {

class TempDirTest : public ::testing::Test {
 protected:
  const std::filesystem::path& dir() const { return tmp_.path(); }

 private:
  TempDir tmp_;
};

}  // namespace quill::test
