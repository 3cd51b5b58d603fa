#pragma once
// What the end-to-end tests share: the binaries under test, an admin token made by the offline
// commands, and a started server over a fresh data directory.

#include <gtest/gtest.h>

#include <memory>
#include <regex>
#include <thread>

#include "rill/rill_trees.h"      // randomBytes, readFile, writeFile, treeContent
#include "support/api_fixture.h"  // parseJson
#include "support/http_client.h"
#include "support/process.h"
#include "support/temp_dir.h"

namespace quill::test {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using rill::test::randomBytes, rill::test::readFile, rill::test::writeFile, rill::test::treeContent;
using Args = std::vector<std::string>;
inline const std::string kBinary = QUILL_BINARY, kTool = QUILL_RILL_TOOL;

inline Args bearer(const std::string& token) { return {"Authorization: Bearer " + token}; }

// An admin "ci" with a token, made by the offline commands; returns the token.
inline std::string offlineAdminToken(const std::string& dir) {
  runProcess(kBinary, {"user", "create", "ci", "--role", "admin", "--data-dir", dir});
  auto minted = runProcess(kBinary, {"token", "create", "ci", "--user", "ci", "--data-dir", dir});
  std::smatch m;
  EXPECT_TRUE(std::regex_search(minted.out, m, std::regex("\n  ([A-Za-z0-9]{48})\n")))
      << minted.err;
  return m.empty() ? "" : m.str(1);
}

// The binary serving a fresh data directory (or `dir`) with `flags`, and an admin token for it.
struct Served {
  explicit Served(Args flags = {}, std::string dir = "")
      : data(dir.empty() ? (tmp.path() / "data").string() : dir),
        token(dir.empty() ? offlineAdminToken(data) : "") {
    flags.insert(flags.begin(), {"--data-dir", data});
    server = std::make_unique<ServerProcess>(kBinary, flags);
    up = server->waitUntilListening();
  }
  std::string url(const std::string& path) const { return server->url(path); }
  std::string auth() const { return "Authorization: Bearer " + token + "\r\n"; }
  Fetched admin(const std::string& method, const std::string& path, const std::string& body = "") {
    return client.fetch(method, url(path), body, bearer(token));
  }
  TempDir tmp;
  std::string data, token;
  std::unique_ptr<ServerProcess> server;
  Client client;
  bool up = false;
};

// A raw request head announcing `length` body bytes; `extra`: further header lines.
inline std::string rawHead(const std::string& method, const std::string& target,
                           std::uint64_t length, const std::string& extra = "") {
  return method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extra +
         "Content-Length: " + std::to_string(length) + "\r\n\r\n";
}

// Waits (bounded, 20 s) until `condition` holds.
inline bool eventually(const std::function<bool()>& condition) {
  for (int i = 0; i < 400 && !condition(); ++i) std::this_thread::sleep_for(50ms);
  return condition();
}

// The regular files below `root` (`withBytes`: only those holding bytes), while they come and go.
inline Args filesBelow(const fs::path& root, bool withBytes = false) {
  Args files;
  std::error_code ec;
  for (fs::recursive_directory_iterator it(root, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->is_regular_file(ec) && (!withBytes || it->file_size(ec) > 0))
      files.push_back(it->path().lexically_relative(root).generic_string());
  }
  return files;
}

}  // namespace quill::test
