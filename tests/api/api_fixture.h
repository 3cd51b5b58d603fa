#pragma once
// In-process API tests: a fresh data directory and context per test, the real route table behind
// the real gate, and helpers to seed records and send requests without a socket.

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/context.h"
#include "app/routes.h"
#include "http/json.h"
#include "http/request.h"
#include "http/response.h"
#include "http/router.h"
#include "store/documents.h"
#include "store/tokens.h"
#include "store/users.h"
#include "support/temp_dir_test_base.h"

namespace quill::test {

// A request head as the server would hand it over; peer 10.0.0.1 unless told otherwise.
class Req {
 public:
  Req(std::string method, std::string path) {
    req_.method = std::move(method);
    req_.path = path;
    req_.target = std::move(path);
    req_.peer = "10.0.0.1";
  }
  Req& q(std::string name, std::string value) {
    req_.query.emplace(std::move(name), std::move(value));
    return *this;
  }
  Req& bearer(const std::string& token) { return header("authorization", "Bearer " + token); }
  Req& header(std::string name, std::string value) {
    req_.headers.add(std::move(name), std::move(value));
    return *this;
  }
  Req& from(std::string peer) {
    req_.peer = std::move(peer);
    return *this;
  }
  http::Request build() const { return req_; }

 private:
  http::Request req_;
};

inline Json::Value parseBody(const http::Response& res) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(res.body.data(), res.body.data() + res.body.size(), &value, &errors)) {
    ADD_FAILURE() << "not JSON: " << res.body;
  }
  return value;
}

inline std::string headerOf(const http::Response& res, const std::string& name) {
  for (const auto& [key, value] : res.headers) {
    if (key == name) return value;
  }
  return "";
}

// The one error shape: exactly {"error": text}, with `status`.
inline ::testing::AssertionResult isError(const http::Response& res, unsigned status,
                                          const std::string& text) {
  Json::Value expected(Json::objectValue);
  expected["error"] = text;
  const std::string body = http::toCompactJson(expected);
  if (res.status == status && res.body == body) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "got " << res.status << " " << res.body << ", expected " << status << " " << body;
}

// The top-level member names of a JSON object body, in the order they were sent.
inline std::vector<std::string> memberOrder(const http::Response& res) {
  std::vector<std::string> keys;
  Json::Value value = parseBody(res);
  if (!value.isObject()) return keys;
  // Compact JSON: each top-level key follows '{' or ',' at depth 1.
  int depth = 0;
  bool inString = false;
  const std::string& s = res.body;
  for (std::size_t i = 0; i < s.size(); ++i) {
    char c = s[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      if (depth == 1 && i > 0 && (s[i - 1] == '{' || s[i - 1] == ',')) {
        std::size_t end = s.find('"', i + 1);
        keys.push_back(s.substr(i + 1, end - i - 1));
      }
      inString = true;
    } else if (c == '{' || c == '[') {
      ++depth;
    } else if (c == '}' || c == ']') {
      --depth;
    }
  }
  return keys;
}

inline Json::Value strings(std::initializer_list<const char*> items) {
  Json::Value array(Json::arrayValue);
  for (const char* item : items) array.append(item);
  return array;
}

class ApiTest : public TempDirTest {
 protected:
  void SetUp() override { start(true); }

  // A fresh context and router over the same data directory.
  void start(bool rateLimit) {
    router_.reset();
    Settings settings;
    settings.dataDir = dir() / "data";
    settings.rateLimit = rateLimit;
    ctx_ = std::make_unique<Context>(settings);
    std::string error;
    ASSERT_TRUE(ctx_->data.prepare(error)) << error;
    router_ = std::make_unique<http::Router>(makeRouter(*ctx_));
  }

  Context& ctx() { return *ctx_; }
  const store::DataDir& data() const { return ctx_->data; }

  http::Response send(const Req& req) {
    http::Request built = req.build();
    return router_->dispatch(built);
  }

  // A user record with a token; returns the token text.
  std::string seedUser(const std::string& name, const std::string& role,
                       std::vector<std::string> channels = {}, bool service = false) {
    store::NewUser user;
    user.name = name;
    user.role = role;
    user.channels = std::move(channels);
    user.service = service;
    EXPECT_TRUE(store::createUser(data(), user).has_value()) << name;
    return mintFor(name, name + "-token");
  }

  std::string mintFor(const std::string& user, const std::string& tokenName) {
    std::string token = store::mintToken(data(), tokenName, user);
    EXPECT_EQ(token.size(), store::kTokenLength);
    return token;
  }

  // The recovery account with a token, the usual caller of admin routes.
  std::string admin() {
    if (adminToken_.empty()) adminToken_ = seedUser("admin", "admin");
    return adminToken_;
  }

  void writeChannel(const std::string& name, bool isPublic, const std::string& build = "") {
    Json::Value doc(Json::objectValue);
    doc["schema_version"] = 1;
    doc["engine"] = "barge";
    doc["build"] = build;
    doc["created_at"] = "2026-01-01T00:00:00Z";
    if (isPublic) doc["public"] = true;
    ASSERT_TRUE(store::writeJsonFile(channelPath(name), doc));
  }

  std::filesystem::path channelPath(const std::string& name) const {
    return store::DataDir::recordPath(data().channels(), name);
  }
  std::filesystem::path userPath(const std::string& name) const {
    return store::DataDir::recordPath(data().users(), name);
  }
  std::filesystem::path tokenPath(const std::string& name) const {
    return store::DataDir::recordPath(data().tokens(), name);
  }
  std::filesystem::path groupPath(const std::string& name) const {
    return store::DataDir::recordPath(data().groups(), name);
  }

  // Makes the next atomic write of `record` fail: its temporary file's name is taken by a
  // directory.
  static void blockWrites(const std::filesystem::path& record) {
    std::filesystem::path tmp = record;
    tmp += ".tmp";
    std::filesystem::create_directories(tmp);
  }

  Json::Value readDoc(const std::filesystem::path& path) {
    Json::Value value;
    EXPECT_TRUE(store::readJsonFile(path, value)) << path;
    return value;
  }

 private:
  std::unique_ptr<Context> ctx_;
  std::unique_ptr<http::Router> router_;
  std::string adminToken_;
};

}  // namespace quill::test
