#pragma once
// What the end-to-end tests share: the binary under test, test bytes, an admin token made by the
// offline commands, and a started server over a fresh data directory.

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "support/api_fixture.h"  // parseJson
#include "support/http_client.h"
#include "support/process.h"
#include "support/temp_dir.h"

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

// The binary serving a fresh data directory (with `flags`), and an admin token for it.
struct Served {
  explicit Served(std::vector<std::string> flags = {}) : token(offlineAdminToken(data())) {
    flags.insert(flags.begin(), {"--data-dir", data()});
    server = std::make_unique<ServerProcess>(kBinary, flags);
    up = server->waitUntilListening();
  }
  std::string data() const { return (tmp.path() / "data").string(); }
  std::string url(const std::string& path) const { return server->url(path); }
  Fetched admin(const std::string& method, const std::string& path, const std::string& body = "") {
    return client.fetch(method, url(path), body, bearer(token));
  }

  TempDir tmp;
  std::string token;
  std::unique_ptr<ServerProcess> server;
  Client client;
  bool up = false;
};

// Waits (bounded, 20 s) until `condition` holds.
template <typename Condition>
bool eventually(Condition condition) {
  for (int i = 0; i < 400 && !condition(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return condition();
}

// The answer to a PUT head announcing `length` body bytes, of which none is sent.
inline std::string answerToHead(std::uint16_t port, const std::string& target,
                                std::uint64_t length, bool expect, const std::string& token) {
  RawConnection raw(port);
  std::string head = "PUT " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\n";
  if (!token.empty()) head += "Authorization: Bearer " + token + "\r\n";
  head += "Content-Length: " + std::to_string(length) + "\r\n";
  if (expect) head += "Expect: 100-continue\r\n";
  if (!raw.send(head + "\r\n")) return "";
  return raw.readUntil("\"}", std::chrono::seconds(20));
}

}  // namespace quill::test
