#include "support/api_fixture.h"

#include <fcntl.h>
#include <json/reader.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <regex>

#include "app/routes.h"
#include "http/json.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/invites.h"
#include "store/tokens.h"
#include "store/users.h"

namespace quill::test {

Req::Req(std::string method, std::string path) {
  req_.method = std::move(method);
  req_.path = path;
  req_.target = std::move(path);
  req_.peer = "10.0.0.1";
}
Req& Req::q(std::string name, std::string value) {
  req_.query.emplace(std::move(name), std::move(value));
  return *this;
}
Req& Req::header(std::string name, std::string value) {
  req_.headers.add(std::move(name), std::move(value));
  return *this;
}
Req& Req::from(std::string peer) {
  req_.peer = std::move(peer);
  return *this;
}
Req& Req::body(std::string bytes) {
  req_.contentLength = bytes.size();
  req_.hasBody = !bytes.empty();
  req_.body = std::move(bytes);
  return *this;
}

Json::Value parseJson(const std::string& text) {
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

Json::Value bodyOf(const http::Response& res) { return parseJson(res.body); }

std::string headerOf(const http::Response& res, const std::string& name) {
  for (const auto& [key, value] : res.headers) {
    if (key == name) return value;
  }
  return "";
}

::testing::AssertionResult isError(const http::Response& res, unsigned status,
                                   const std::string& text) {
  Json::Value expected(Json::objectValue);
  expected["error"] = text;
  const std::string body = http::toCompactJson(expected);
  if (res.status == status && res.body == body) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << "got " << res.status << " " << res.body << ", expected " << status << " " << body;
}

::testing::AssertionResult isOk(const http::Response& res) {
  if (res.status == 200) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << "got " << res.status << " " << res.body;
}

std::vector<std::string> memberOrder(const http::Response& res) {
  std::vector<std::string> keys;
  if (!bodyOf(res).isObject()) return keys;
  // Compact JSON: each top-level key follows '{' or ',' at depth 1.
  int depth = 0;
  bool inString = false;
  const std::string& s = res.body;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (inString) {
      if (c == '\\') ++i;
      if (c == '"') inString = false;
      continue;
    }
    if (c == '"') {
      if (depth == 1 && (s[i - 1] == '{' || s[i - 1] == ',')) {
        keys.push_back(s.substr(i + 1, s.find('"', i + 1) - i - 1));
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

Json::Value strings(std::initializer_list<const char*> items) {
  Json::Value array(Json::arrayValue);
  for (const char* item : items) array.append(item);
  return array;
}

std::string readBytes(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string fileBody(const http::Response& res) {
  if (!res.openedFile) return readBytes(res.file);
  if (res.fileOffset != 0 || res.fileLength) {  // the slice a range answer sends
    std::string slice(res.fileLength.value_or(0), '\0');
    const ssize_t n = ::pread(res.openedFile->fd(), slice.data(), slice.size(),
                              static_cast<off_t>(res.fileOffset));
    slice.resize(n < 0 ? 0 : static_cast<std::size_t>(n));
    return slice;
  }
  std::string bytes;
  char buffer[65536];
  off_t offset = 0;
  for (ssize_t n; (n = ::pread(res.openedFile->fd(), buffer, sizeof buffer, offset)) > 0; offset += n) {
    bytes.append(buffer, static_cast<std::size_t>(n));
  }
  return bytes;
}

bool isUtcStamp(const Json::Value& value) {
  static const std::regex kStamp("[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}Z");
  return value.isString() && std::regex_match(value.asString(), kStamp);
}

bool isRandomText(const Json::Value& value, std::size_t length) {
  return value.isString() &&
         std::regex_match(value.asString(),
                          std::regex("[A-Za-z0-9]{" + std::to_string(length) + "}"));
}

std::size_t filesIn(const fs::path& dir) {
  std::error_code ec;
  std::size_t n = 0;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) ++n;
  return n;
}

void ApiTest::start(bool rateLimit, bool rillOnly) {
  router_.reset();
  ServerSettings settings;
  settings.dataDir = dir() / "data";
  settings.rateLimit = rateLimit;
  settings.rillOnly = rillOnly;
  ctx_ = std::make_unique<Context>(settings);
  const auto prepared = ctx_->data.prepare();
  ASSERT_TRUE(prepared) << prepared.error();
  router_ = std::make_unique<http::Router>(makeRouter(*ctx_));
}

http::Response ApiTest::send(const Req& req) {
  http::Request built = req.build();
  return router_->dispatch(built);
}

std::string ApiTest::seedUser(const std::string& name, const std::string& role,
                              std::vector<std::string> channels, bool service) {
  store::NewUser user;
  user.name = name;
  user.role = role;
  user.channels = std::move(channels);
  user.service = service;
  EXPECT_TRUE(store::createUser(data(), user).has_value()) << name;
  return vars_[name] = mintFor(name, name + "-token");
}

std::string ApiTest::mintFor(const std::string& user, const std::string& tokenName) {
  std::string token = store::mintToken(data(), tokenName, user);
  EXPECT_EQ(token.size(), store::kTokenLength);
  return token;
}

const std::string& ApiTest::admin() {
  if (!vars_.contains("admin")) seedUser("admin", "admin");
  return vars_["admin"];
}

void ApiTest::seedGroup(const std::string& name, const std::vector<std::string>& channels) {
  Json::Value group = store::newGroupRecord(name);
  for (const auto& channel : channels) group["channels"].append(channel);
  ASSERT_TRUE(store::saveGroup(data(), group));
}

void ApiTest::writeChannel(const std::string& name, const std::string& build, bool isPublic) {
  Json::Value doc(Json::objectValue);
  doc["schema_version"] = 1;
  doc["engine"] = "barge";
  doc["build"] = build;
  doc["created_at"] = "2026-01-01T00:00:00Z";
  if (isPublic) doc["public"] = true;
  writeDoc(store::DataDir::recordPath(data().channels(), name), doc);
}

void ApiTest::setMember(const fs::path& record, const char* member, const Json::Value& value) {
  Json::Value doc = readDoc(record);
  doc[member] = value;
  writeDoc(record, doc);
}

std::string ApiTest::freshPeer() {
  ++peers_;
  return "10.9." + std::to_string(peers_ / 250) + "." + std::to_string(peers_ % 250 + 1);
}

http::Response ApiTest::redeem(const std::string& code, const char* machine) {
  Req req("POST", "/api/invites/redeem");
  req.q("code", code).from(freshPeer());
  if (machine) req.q("machine", machine);
  return send(req);
}

http::Response ApiTest::upload(const std::string& id, const std::string& path, std::string bytes) {
  return asAdmin(Req("PUT", "/api/builds/" + id + "/files").q("path", path).body(std::move(bytes)));
}
http::Response ApiTest::finalize(const std::string& id) {
  return asAdmin(Req("POST", "/api/builds/" + id + "/finalize"));
}
void ApiTest::makeBuild(const std::string& id,
                        std::vector<std::pair<std::string, std::string>> files) {
  for (auto& [path, content] : files) ASSERT_TRUE(isOk(upload(id, path, content)));
  ASSERT_TRUE(isOk(finalize(id)));
}

fs::path ApiTest::userPath(const std::string& name) const {
  return store::DataDir::recordPath(data().users(), name);
}
fs::path ApiTest::tokenPath(const std::string& name) const {
  return store::DataDir::recordPath(data().tokens(), name);
}
fs::path ApiTest::groupPath(const std::string& name) const {
  return store::DataDir::recordPath(data().groups(), name);
}
fs::path ApiTest::invitePath(const std::string& code) const {
  return store::invitePath(data(), code);
}

Json::Value ApiTest::readDoc(const fs::path& path) {
  Json::Value value;
  EXPECT_TRUE(store::readJsonFile(path, value)) << path;
  return value;
}
void ApiTest::writeDoc(const fs::path& path, const Json::Value& doc) {
  ASSERT_TRUE(store::writeJsonFile(path, doc)) << path;
}
void ApiTest::writeText(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << text;
}
namespace {

// Sets or clears the immutable attribute of `path`; false when that is not possible here.
bool markImmutable(const fs::path& path, bool on) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return false;
  int flags = 0;
  bool done = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
  done = done && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  ::close(fd);
  return done;
}

}  // namespace

ApiTest::~ApiTest() {
  for (const fs::path& path : immutable_) markImmutable(path, false);
}

bool ApiTest::blockWrites(const fs::path& record) {
  fs::path target = record;
  if (!fs::exists(record)) {
    target = record.parent_path();
    fs::create_directories(target);
  }
  if (!markImmutable(target, true)) return false;
  immutable_.push_back(target);
  return true;
}

}  // namespace quill::test
