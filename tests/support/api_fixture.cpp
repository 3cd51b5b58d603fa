#include "support/api_fixture.h"

#include <fcntl.h>
#include <json/reader.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

#include "app/routes.h"
#include "http/json.h"
#include "store/documents.h"
#include "store/groups.h"
#include "store/invites.h"
#include "store/tokens.h"
#include "store/users.h"

namespace quill::test {
namespace {

constexpr auto npos = std::string::npos;
using Strings = std::vector<std::string>;

std::string trim(const std::string& s) {
  const auto b = s.find_first_not_of(" \t");
  return b == npos ? "" : s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

Strings split(const std::string& s, const std::string& by) {
  Strings parts;
  std::size_t at = 0;
  for (std::size_t next; (next = s.find(by, at)) != npos; at = next + by.size()) {
    parts.push_back(s.substr(at, next - at));
  }
  parts.push_back(s.substr(at));
  return parts;
}

std::string unescape(const std::string& s) {
  static const std::map<char, char> kPlain = {
      {'s', ' '}, {'t', '\t'}, {'n', '\n'}, {'r', '\r'}, {'\\', '\\'}};
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    const char c = i + 1 < s.size() && s[i] == '\\' ? s[i + 1] : 0;
    if (kPlain.contains(c)) {
      out += kPlain.at(c), ++i;
    } else if (c == 'x' && i + 3 < s.size()) {
      out += static_cast<char>(std::stoi(s.substr(i + 2, 2), nullptr, 16)), i += 3;
    } else {
      out += s[i];
    }
  }
  return out;
}

// Parses `text`, reporting a failure; `strict` refuses anything after the value.
Json::Value parse(const std::string& text, bool strict) {
  Json::Value value;
  Json::CharReaderBuilder builder;
  builder["failIfExtra"] = strict;
  std::istringstream in(text);
  std::string errors;
  if (!Json::parseFromStream(builder, in, &value, &errors)) ADD_FAILURE() << "not JSON: " << text;
  return value;
}
Json::Value loose(const std::string& text) { return parse(text, false); }

// The member at ".a.b.0" (`#` a size, `key:value` an array's element), or null.
const Json::Value* member(const Json::Value& doc, const std::string& path) {
  static thread_local Json::Value size;
  const Json::Value* at = &doc;
  for (const std::string& part : split(path.substr(1), ".")) {
    const auto colon = part.find(':');
    const Json::Value* found = nullptr;
    if (part == "#" && (at->isArray() || at->isObject())) {
      found = &(size = at->size());
    } else if (colon != npos && at->isArray()) {
      for (const auto& item : *at) {
        const Json::Value* key = item.isObject() ? item.find(&part[0], &part[colon]) : nullptr;
        if (key && key->isString() && key->asString() == part.substr(colon + 1)) found = &item;
      }
    } else if (at->isArray() && std::regex_match(part, std::regex("[0-9]+"))) {
      found = &(*at)[static_cast<Json::ArrayIndex>(std::stoul(part))];
    } else if (at->isObject() && at->isMember(part)) {
      found = &(*at)[part];
    }
    if (!(at = found)) return nullptr;
  }
  return at;
}

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

// The top-level member names of a JSON object body, in the order they were sent.
std::vector<std::string> memberOrder(const http::Response& res) {
  Strings keys;
  const std::string& s = res.body;  // compact JSON: a top-level key follows '{' or ',' at depth 1
  for (std::size_t i = 0, depth = 0, start; bodyOf(res).isObject() && i < s.size(); ++i) {
    if (s[start = i] == '"') {
      while (s[++i] != '"') i += s[i] == '\\';
      if (depth == 1 && (s[start - 1] == '{' || s[start - 1] == ',')) {
        keys.push_back(s.substr(start + 1, i - start - 1));
      }
    }
    depth += (s[i] == '{' || s[i] == '[') - (s[i] == '}' || s[i] == ']');
  }
  return keys;
}

std::size_t filesIn(const fs::path& dir) {
  if (!fs::is_directory(dir)) return 0;
  return static_cast<std::size_t>(std::distance(fs::directory_iterator(dir), {}));
}

}  // namespace

Req::Req(std::string method, std::string path) {
  req_.method = std::move(method);
  req_.path = path;
  req_.target = std::move(path);
  req_.peer = "10.0.0.1";
}
Req& Req::body(std::string bytes) {
  req_.contentLength = bytes.size();
  req_.hasBody = !bytes.empty();
  return req_.body = std::move(bytes), *this;
}

Json::Value parseJson(const std::string& text) { return parse(text, true); }

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
  struct stat st {};
  const int fd = res.openedFile->fd();
  const auto size = ::fstat(fd, &st) == 0 ? static_cast<std::uint64_t>(st.st_size) : 0;
  std::string bytes(res.fileLength.value_or(size - std::min(size, res.fileOffset)), '\0');
  const ssize_t n = ::pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(res.fileOffset));
  return bytes.substr(0, n < 0 ? 0 : static_cast<std::size_t>(n));
}

ApiTest::~ApiTest() {
  for (const fs::path& path : immutable_) markImmutable(path, false);
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
  const store::NewUser user{name, role, std::move(channels), "", "", service};
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
  Json::Value doc = loose(R"({"schema_version":1,"engine":"barge",)"
                          R"("created_at":"2026-01-01T00:00:00Z"})");
  doc["build"] = build;
  if (isPublic) doc["public"] = true;
  writeDoc(record(data().channels(), name), doc);
}

void ApiTest::setMember(const fs::path& path, const char* member, const Json::Value& value) {
  Json::Value doc = readDoc(path);
  doc[member] = value;
  writeDoc(path, doc);
}

std::string ApiTest::freshPeer() {
  ++peers_;
  return "10.9." + std::to_string(peers_ / 250) + "." + std::to_string(peers_ % 250 + 1);
}

fs::path ApiTest::record(const fs::path& dir, const std::string& name) {
  return store::DataDir::recordPath(dir, name);
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

bool ApiTest::blockWrites(const fs::path& path) {
  const fs::path target = fs::exists(path) ? path : path.parent_path();
  fs::create_directories(path.parent_path());
  if (!markImmutable(target, true)) return false;
  immutable_.push_back(target);
  return true;
}

// The table runner.

void ApiTest::walk(std::string_view table) {
  std::istringstream in{std::string(table)};
  int number = 0;
  for (std::string raw, line; std::getline(in, raw); line.clear()) {
    raw = trim(raw);
    if (++number, raw.empty() || raw[0] == '#') continue;
    SCOPED_TRACE(testing::Message() << "table line " << number << ": " << raw);
    // Variables (not a capture's own name) and repetitions; escapes apply word by word later.
    static const std::regex kVar("^\\$([A-Za-z0-9_]+)"), kRepeat("^\\{([0-9]+)\\*([^}]*)\\}");
    for (std::size_t i = 0; i < raw.size(); ++i) {
      std::smatch m;
      const std::string rest = raw.substr(i);
      if (std::regex_search(rest, m, kVar) && vars_.contains(m[1].str()) &&
          rest.find('=') != static_cast<std::size_t>(m.length(0))) {
        line += vars_[m[1].str()];
      } else if (std::regex_search(rest, m, kRepeat)) {
        for (int n = std::stoi(m[1].str()); n > 0; --n) line += m[2].str();
      } else {
        line += raw[i];
        continue;
      }
      i += m.length(0) - 1;
    }
    if (line.find(" => ") != npos) {
      answer(line);
    } else {
      for (const std::string& one : split(line, " | ")) step(one);
    }
  }
}

void ApiTest::answer(const std::string& line) {
  const auto arrow = line.find(" => ");
  const std::string expected = unescape(line.substr(arrow + 4));
  const auto space = expected.find(' ');
  const bool pass = expected.starts_with("pass");
  const auto status = pass ? 0u : static_cast<unsigned>(std::stoul(expected));
  std::smatch m;
  std::string head = line.substr(0, arrow);
  const bool repeated = std::regex_search(head, m, std::regex("^([0-9]+)\\* "));
  const int times = repeated ? std::stoi(m[1].str()) : 1;
  if (repeated) head = m.suffix();
  Strings callers = {""};  // "a,b METHOD ..." runs the line once per caller
  if (std::regex_search(head, m, std::regex("^([^ @:]+,[^ @:]+) "))) {
    callers = split(m[1].str(), ",");
    head = m.suffix();
  }
  for (const std::string& caller : callers) {
    const std::string one = caller.empty() ? head : caller + " " + head;
    for (int i = 0; i < times; ++i) {
      const http::Response res = request(one);
      const bool json = res.contentType.find("json") != npos && !res.body.empty();
      const Json::Value doc = json ? loose(res.body) : Json::Value();
      const std::string error = doc.isObject() ? doc["error"].asString() : "";
      if (!pass) {
        EXPECT_EQ(res.status, status) << one << ": " << res.body;
        check(res, doc, space == npos ? "" : expected.substr(space + 1), status, true);
        continue;
      }
      // Past the gate: whatever the handler answers, it is no refusal of the caller.
      EXPECT_TRUE(res.status != 401 && res.status != 429 &&
                  error != "this operation requires the admin role" &&
                  error != "outside this publisher's scope")
          << one << ": " << res.status << " " << res.body;
    }
  }
}

void ApiTest::step(const std::string& line) {
  // Words are split before escapes apply, so an escaped space stays inside its word.
  std::istringstream words(line);
  std::string verb, a, rest;
  words >> verb >> a;
  std::getline(words, rest);
  a = unescape(a), rest = unescape(trim(rest));
  const fs::path path = data().root() / a;
  Strings args;
  std::istringstream more(rest);
  for (std::string w; more >> w;) args.push_back(w);
  args.resize(std::max<std::size_t>(args.size(), 3));
  const auto list = [](const std::string& s) { return s.empty() ? Strings{} : split(s, ","); };
  if (verb == "user") {
    if (args[1] == "service") args[1].swap(args[2]);
    seedUser(a, args[0], list(args[1]), args[2] == "service");
  } else if (verb == "group") {
    seedGroup(a, list(args[0]));
  } else if (verb == "channel") {
    if (args[0] == "public") args[0].swap(args[1]);
    writeChannel(a, args[0] == "-" ? "" : args[0], args[1] == "public");
  } else if (verb == "build") {  // uploads each path=content (app.bin=bytes if none), finalizes
    for (const auto& f : args[0].empty() ? Strings{"app.bin=bytes"} : args) {
      const auto eq = f.find('=');
      Req put = Req("PUT", "/api/builds/" + a + "/files").q("path", f.substr(0, eq));
      if (!f.empty()) {
        EXPECT_TRUE(isOk(asAdmin(put.body(f.substr(eq + 1))))) << f;
      }
    }
    EXPECT_TRUE(isOk(asAdmin(Req("POST", "/api/builds/" + a + "/finalize")))) << a;
  } else if (verb == "set") {
    Json::Value doc = readDoc(path), *at = &doc;
    for (const auto& part : split(rest.substr(1, rest.find('=') - 1), ".")) at = &(*at)[part];
    *at = loose(rest.substr(rest.find('=') + 1));
    writeDoc(path, doc);
  } else if (verb == "write" || verb == "remove") {
    verb == "write" ? writeText(path, rest) : void(fs::remove_all(path));
  } else if (verb == "files") {
    EXPECT_EQ(filesIn(path), std::stoul(args[0])) << a;
  } else if (verb == "mark" || verb == "unchanged") {
    if (verb == "mark") marks_[a] = readBytes(path);
    EXPECT_EQ(readBytes(path), marks_[a]) << a;
  } else if (verb == "file" && (rest == "absent" || rest == "exists")) {
    EXPECT_EQ(fs::exists(path), rest == "exists") << a;
  } else if (verb == "file" && rest.starts_with("is=")) {
    EXPECT_EQ(readBytes(path), rest.substr(3)) << a;
  } else if (verb == "file") {
    check(http::Response(), readDoc(path), rest, 200, false);
  } else {
    ADD_FAILURE() << "unknown step";
  }
}

http::Response ApiTest::request(const std::string& head) {
  std::istringstream words(head);
  std::string caller = "admin", peer = freshPeer(), word, target, body;
  std::vector<std::pair<std::string, std::string>> headers;
  static const std::regex kMethod("GET|POST|PUT|DELETE|PATCH|HEAD|OPTIONS");
  while (words >> word && !std::regex_match(word, kMethod)) {
    word = unescape(word);
    const auto colon = word.find(':');
    if (word[0] == '@') {
      peer = word.substr(1);
    } else if (colon != npos) {
      headers.emplace_back(word.substr(0, colon), word.substr(colon + 1));
    } else {
      caller = word == "-" ? "" : vars_.contains(word) ? vars_[word] : word;
    }
  }
  words >> target;
  std::getline(words, body);
  target = unescape(target), body = unescape(trim(body));
  if (caller == "admin") caller = admin();
  const auto mark = target.find('?');
  Req req(word, target.substr(0, mark));
  for (const std::string& pair : mark == npos ? Strings{} : split(target.substr(mark + 1), "&")) {
    const auto eq = pair.find('=');
    req.q(pair.substr(0, eq), eq == npos ? "" : pair.substr(eq + 1));
  }
  if (!body.empty()) req.body(body == "''" ? "" : body);
  if (!caller.empty()) req.bearer(caller);
  for (auto& [name, value] : headers) req.header(name, value);
  return send(req.from(peer));
}

void ApiTest::check(const http::Response& res, const Json::Value& doc, const std::string& checks,
                    unsigned status, bool answer) {
  if (checks.empty()) return;
  Strings list = split(checks, " ; ");
  static const std::regex kCheck(R"(^(\.|\{|\[|keys=|\$|hdr:|has:|!has:|=@|bytes=).*)");
  if (answer && status >= 400 && !std::regex_match(list[0], kCheck)) {
    if (list[0][0] == '^') {
      EXPECT_TRUE(doc["error"].asString().starts_with(list[0].substr(1))) << res.body;
    } else {
      EXPECT_TRUE(isError(res, status, list[0]));
    }
    list.erase(list.begin());
  }
  const std::string shown = answer ? res.body : http::toCompactJson(doc);
  for (const std::string& c : list) {
    std::smatch m;
    const Json::Value* v = nullptr;
    if (c[0] == '{' || c[0] == '[') {
      EXPECT_EQ(res.body, c);
    } else if (c.starts_with("keys=")) {
      EXPECT_EQ(memberOrder(res), split(c.substr(5), ","));
    } else if (c.starts_with("=@")) {
      EXPECT_EQ(http::toCompactJson(doc), http::toCompactJson(readDoc(data().root() / c.substr(2))))
          << c;
    } else if (std::regex_match(c, m, std::regex(R"(\$([A-Za-z0-9_]+)=hdr:(.*))"))) {
      vars_[m[1].str()] = headerOf(res, m[2].str());
    } else if (std::regex_match(c, m, std::regex(R"(\$([A-Za-z0-9_]+)=(\..*))"))) {
      v = member(doc, m[2].str());
      EXPECT_TRUE(v && v->isString()) << c << " in " << shown;
      vars_[m[1].str()] = v && v->isString() ? v->asString() : "";
    } else if (c.starts_with("has:") || c.starts_with("!has:")) {
      const bool want = c[0] != '!';
      EXPECT_EQ(res.body.find(c.substr(want ? 4 : 5)) != npos, want) << c << " in " << res.body;
    } else if (std::regex_match(c, m, std::regex("hdr:([^=~]+)([=~])(.*)"))) {
      const std::string value = headerOf(res, m[1].str());
      if (m[2] == "=") EXPECT_EQ(value, m[3].str()) << c;
      else EXPECT_TRUE(std::regex_match(value, std::regex(m[3].str()))) << c << ": " << value;
    } else if (c.starts_with("bytes=")) {
      EXPECT_EQ(fileBody(res), c.substr(6));
    } else if (!std::regex_match(c, m, std::regex(R"((\.[^=!~]*)([=!~])(.*))"))) {
      ADD_FAILURE() << "unknown check " << c;
    } else if (v = member(doc, m[1].str()); m[2] == "!") {
      EXPECT_EQ(v, nullptr) << c << " in " << shown;
    } else if (!v) {
      ADD_FAILURE() << c << ": no such member in " << shown;
    } else if (m[2] == "=") {
      EXPECT_EQ(http::toCompactJson(*v), http::toCompactJson(loose(m[3].str()))) << c;
    } else {
      EXPECT_TRUE(v->isString() && std::regex_match(v->asString(), std::regex(m[3].str())))
          << c << ": " << *v;
    }
  }
}

}  // namespace quill::test
