#pragma once
// In-process tests of the build and channel routes: a fresh data directory and context per test,
// the real route table behind the real gate, callers seeded as user records with tokens, and
// requests sent without a socket (an upload's body travels in memory).

#include <gtest/gtest.h>
#include <json/reader.h>
#include <json/value.h>
#include <json/writer.h>

#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <memory>
#include <regex>
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

namespace fs = std::filesystem;

// A request head as the server would hand it over, from a non-loopback peer.
class Call {
 public:
  Call(std::string method, std::string path) {
    req_.method = std::move(method);
    req_.path = path;
    req_.target = std::move(path);
    req_.peer = "192.0.2.10";
  }
  Call& q(std::string name, std::string value) {
    req_.query.emplace(std::move(name), std::move(value));
    return *this;
  }
  Call& as(const std::string& token) {
    if (!token.empty()) req_.headers.add("authorization", "Bearer " + token);
    return *this;
  }
  Call& body(std::string bytes) {
    req_.contentLength = bytes.size();
    req_.hasBody = !bytes.empty();
    req_.body = std::move(bytes);
    return *this;
  }
  http::Request build() const { return req_; }

 private:
  http::Request req_;
};

inline Json::Value parseJsonText(const std::string& text) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = true;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!reader->parse(text.data(), text.data() + text.size(), &value, &errors)) {
    ADD_FAILURE() << "not JSON: " << text;
  }
  return value;
}

inline Json::Value bodyOf(const http::Response& res) { return parseJsonText(res.body); }

inline std::string headerOf(const http::Response& res, const std::string& name) {
  for (const auto& [key, value] : res.headers) {
    if (key == name) return value;
  }
  return "";
}

// Exactly the error document {"error": text} with `status`.
inline ::testing::AssertionResult isError(const http::Response& res, unsigned status,
                                          const std::string& text) {
  Json::Value expected(Json::objectValue);
  expected["error"] = text;
  const std::string body = http::toCompactJson(expected);
  if (res.status == status && res.body == body) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "got " << res.status << " " << res.body << ", expected " << status << " " << body;
}

inline ::testing::AssertionResult isOk(const http::Response& res) {
  if (res.status == 200) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "got " << res.status << " " << res.body;
}

// The member names of a JSON object, in ascending order (the writer's order).
inline std::vector<std::string> membersOf(const Json::Value& value) {
  return value.isObject() ? value.getMemberNames() : std::vector<std::string>();
}

inline Json::Value strings(std::initializer_list<const char*> items) {
  Json::Value array(Json::arrayValue);
  for (const char* item : items) array.append(item);
  return array;
}

inline std::string readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

inline bool isUtcStamp(const Json::Value& value) {
  static const std::regex kStamp("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z");
  return value.isString() && std::regex_match(value.asString(), kStamp);
}

class BuildsTest : public TempDirTest {
 protected:
  void SetUp() override { start(false); }

  // A fresh context and router over the same data directory (rate limiting off: the anonymous
  // reads of these tests are about the gate's rules, not its budgets).
  void start(bool rillOnly) {
    router_.reset();
    Settings settings;
    settings.dataDir = dir() / "data";
    settings.rateLimit = false;
    settings.rillOnly = rillOnly;
    ctx_ = std::make_unique<Context>(settings);
    std::string error;
    ASSERT_TRUE(ctx_->data.prepare(error)) << error;
    router_ = std::make_unique<http::Router>(makeRouter(*ctx_));
  }

  const store::DataDir& data() const { return ctx_->data; }

  http::Response send(const Call& call) {
    http::Request req = call.build();
    return router_->dispatch(req);
  }

  // A user record with a token; returns the token.
  std::string seedUser(const std::string& name, const std::string& role,
                       std::vector<std::string> channels = {}) {
    store::NewUser user;
    user.name = name;
    user.role = role;
    user.channels = std::move(channels);
    EXPECT_TRUE(store::createUser(data(), user).has_value()) << name;
    return store::mintToken(data(), name + "-token", name);
  }

  const std::string& admin() {
    if (admin_.empty()) admin_ = seedUser("admin", "admin");
    return admin_;
  }

  // --- the build routes as the admin -------------------------------------------------------

  http::Response upload(const std::string& id, const std::string& path, std::string bytes) {
    return send(Call("PUT", "/api/builds/" + id + "/files")
                    .q("path", path)
                    .body(std::move(bytes))
                    .as(admin()));
  }
  http::Response finalize(const std::string& id) {
    return send(Call("POST", "/api/builds/" + id + "/finalize").as(admin()));
  }
  http::Response readBuild(const std::string& id) {
    return send(Call("GET", "/api/builds/" + id).as(admin()));
  }
  http::Response download(const std::string& id, const std::string& path) {
    return send(Call("GET", "/api/builds/" + id + "/files").q("path", path).as(admin()));
  }
  http::Response listBuilds() { return send(Call("GET", "/api/builds").as(admin())); }

  // A finalized build holding `files` (path, content).
  void makeBuild(const std::string& id,
                 std::vector<std::pair<std::string, std::string>> files = {{"app.bin", "bytes"}}) {
    for (auto& [path, content] : files) ASSERT_TRUE(isOk(upload(id, path, content)));
    ASSERT_TRUE(isOk(finalize(id)));
  }

  // --- the channel routes as the admin -----------------------------------------------------

  http::Response createChannel(const std::string& name, const std::string& engine = "") {
    Call call("POST", "/api/channels/" + name);
    if (!engine.empty()) call.q("engine", engine);
    return send(call.as(admin()));
  }
  http::Response promote(const std::string& channel, const std::string& build) {
    return send(
        Call("POST", "/api/channels/" + channel + "/promote").q("build", build).as(admin()));
  }
  http::Response setPublic(const std::string& channel, const std::string& value) {
    return send(Call("POST", "/api/channels/" + channel + "/public").q("value", value).as(admin()));
  }
  http::Response setLaunch(const std::string& channel, const std::string& body) {
    return send(Call("POST", "/api/channels/" + channel + "/launch").body(body).as(admin()));
  }

  // --- the data directory ------------------------------------------------------------------

  fs::path buildDir(const std::string& id) const { return data().builds() / id; }
  fs::path channelFile(const std::string& name) const {
    return data().channels() / (name + ".json");
  }
  void writeText(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  void writeDoc(const fs::path& path, const Json::Value& doc) {
    ASSERT_TRUE(store::writeJsonFile(path, doc)) << path;
  }
  Json::Value readDoc(const fs::path& path) { return parseJsonText(readBytes(path)); }

  // A channel document written straight to disk.
  void writeChannel(const std::string& name, const std::string& build, bool isPublic = false) {
    Json::Value doc(Json::objectValue);
    doc["schema_version"] = 1;
    doc["engine"] = "barge";
    doc["build"] = build;
    doc["created_at"] = "2026-01-01T00:00:00Z";
    if (isPublic) doc["public"] = true;
    writeDoc(channelFile(name), doc);
  }

 private:
  std::unique_ptr<Context> ctx_;
  std::unique_ptr<http::Router> router_;
  std::string admin_;
};

}  // namespace quill::test
