#pragma once
// What the end-to-end tests share: the binary under test, JSON answers, test bytes and an admin
// token made by the offline commands.

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <vector>

#include "support/api_fixture.h"  // parseJson
#include "support/process.h"

namespace quill::test {

inline const std::string kBinary = QUILL_BINARY;

inline std::vector<std::string> bearer(const std::string& token) {
  return {"Authorization: Bearer " + token};
}

inline std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 gen(seed);
  std::string bytes(size, '\0');
  for (auto& b : bytes) b = static_cast<char>(gen() & 0xFF);
  return bytes;
}

// An admin "ci" with a token, made by the offline commands; returns the token.
inline std::string offlineAdminToken(const std::string& dataDir) {
  EXPECT_EQ(runProcess(kBinary, {"user", "create", "ci", "--role", "admin", "--data-dir", dataDir})
                .exitCode,
            0);
  auto minted =
      runProcess(kBinary, {"token", "create", "ci", "--user", "ci", "--data-dir", dataDir});
  std::smatch m;
  EXPECT_TRUE(std::regex_search(minted.out, m, std::regex("\n  ([A-Za-z0-9]{48})\n")))
      << minted.err;
  return m.empty() ? "" : m.str(1);
}

}  // namespace quill::test
