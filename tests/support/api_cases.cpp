// The table walker of ApiTest (the format is in api_fixture.h).

#include <json/reader.h>

#include <cctype>
#include <regex>
#include <sstream>

#include "http/json.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

std::string trim(const std::string& s) {
  const auto b = s.find_first_not_of(" \t");
  return b == std::string::npos ? "" : s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

std::vector<std::string> split(const std::string& s, const std::string& by) {
  std::vector<std::string> parts;
  std::size_t at = 0;
  for (std::size_t next; (next = s.find(by, at)) != std::string::npos; at = next + by.size()) {
    parts.push_back(s.substr(at, next - at));
  }
  parts.push_back(s.substr(at));
  return parts;
}

std::string unescape(const std::string& s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\' || i + 1 == s.size()) {
      out += s[i];
      continue;
    }
    const char c = s[++i];
    if (c == 's') out += ' ';
    else if (c == 't') out += '\t';
    else if (c == 'n') out += '\n';
    else if (c == 'r') out += '\r';
    else if (c == '\\') out += '\\';
    else if (c == 'x' && i + 2 < s.size() + 1) {
      out += static_cast<char>(std::stoi(s.substr(i + 1, 2), nullptr, 16));
      i += 2;
    } else {
      out += '\\';
      out += c;
    }
  }
  return out;
}

Json::Value loose(const std::string& text) {
  Json::Value v;
  std::istringstream in(text);
  std::string errors;
  if (!Json::parseFromStream(Json::CharReaderBuilder(), in, &v, &errors)) {
    ADD_FAILURE() << "bad JSON in table: " << text;
  }
  return v;
}

// The member at ".a.b.0", or null; `parent` and `last` name where it would be.
const Json::Value* member(const Json::Value& doc, const std::string& path, std::string* last = nullptr,
                          const Json::Value** parent = nullptr) {
  static thread_local Json::Value size;
  const Json::Value* at = &doc;
  for (const std::string& part : split(path.substr(1), ".")) {
    if (parent) *parent = at;
    if (last) *last = part;
    const auto colon = part.find(':');
    if (part == "#" && (at->isArray() || at->isObject())) {
      size = at->size();
      at = &size;
    } else if (colon != std::string::npos && at->isArray()) {
      const Json::Value* found = nullptr;
      for (const auto& item : *at) {
        const Json::Value& key = item.isObject() ? item[part.substr(0, colon)] : Json::Value::nullSingleton();
        if (key.isString() && key.asString() == part.substr(colon + 1)) found = &item;
      }
      if (!found) return nullptr;
      at = found;
    } else if (at->isArray() && !part.empty() && std::isdigit(static_cast<unsigned char>(part[0]))) {
      at = &(*at)[static_cast<Json::ArrayIndex>(std::stoul(part))];
    } else if (at->isObject() && at->isMember(part)) {
      at = &(*at)[part];
    } else {
      return nullptr;
    }
  }
  return at;
}

}  // namespace

void ApiTest::walk(std::string_view table) {
  std::istringstream in{std::string(table)};
  int number = 0;
  for (std::string line; std::getline(in, line);) {
    ++number;
    line = trim(line);
    if (line.empty() || line[0] == '#') continue;
    SCOPED_TRACE(testing::Message() << "table line " << number << ": " << line);
    step(line);
  }
}

void ApiTest::step(const std::string& raw) {
  // Expand variables, repetitions, then escapes.
  std::string line;
  for (std::size_t i = 0; i < raw.size(); ++i) {
    std::smatch m;
    const std::string rest = raw.substr(i);
    if (raw[i] == '$' && std::regex_search(rest, m, std::regex("^\\$([A-Za-z0-9_]+)")) &&
        vars_.contains(m[1].str()) &&
        rest.find('=') != static_cast<std::size_t>(m.length(0))) {
      line += vars_[m[1].str()];
      i += m.length(0) - 1;
    } else if (raw[i] == '{' && std::regex_search(rest, m, std::regex("^\\{([0-9]+)\\*([^}]*)\\}"))) {
      for (int n = std::stoi(m[1].str()); n > 0; --n) line += m[2].str();
      i += m.length(0) - 1;
    } else {
      line += raw[i];
    }
  }

  const auto arrow = line.find(" => ");
  if (arrow != std::string::npos) {
    const auto answer = unescape(line.substr(arrow + 4));
    const auto space = answer.find(' ');
    const std::string expected = answer.substr(0, space);
    const bool pass = expected == "pass";
    const unsigned status = pass ? 0 : static_cast<unsigned>(std::stoul(expected));
    int times = 1;
    std::string head = line.substr(0, arrow);
    std::smatch m;
    if (std::regex_search(head, m, std::regex("^([0-9]+)\\* "))) {
      times = std::stoi(m[1].str());
      head = m.suffix();
    }
    // "a,b,c METHOD ..." runs the line once per caller.
    std::vector<std::string> heads = {head};
    if (std::regex_search(head, m, std::regex("^([^ @:]+,[^ @:]+) "))) {
      heads.clear();
      for (const std::string& caller : split(m[1].str(), ",")) heads.push_back(caller + " " + m.suffix().str());
    }
    for (const std::string& one : heads) {
      for (int i = 0; i < times; ++i) {
        const http::Response res = request(one);
        const Json::Value doc = res.contentType.find("json") != std::string::npos && !res.body.empty()
                                    ? loose(res.body)
                                    : Json::Value();
        if (pass) {
          // Past the gate: whatever the handler answers, it is no refusal of the caller.
          const std::string error = doc.isObject() ? doc["error"].asString() : "";
          EXPECT_TRUE(res.status != 401 && res.status != 429 &&
                      error != "this operation requires the admin role" &&
                      error != "outside this publisher's scope")
              << one << ": " << res.status << " " << res.body;
          continue;
        }
        EXPECT_EQ(res.status, status) << one << ": " << res.body;
        check(res, doc, space == std::string::npos ? "" : answer.substr(space + 1), status, true);
      }
    }
    return;
  }

  // Words are split before escapes apply, so an escaped space stays inside its word.
  std::istringstream raw_words(line);
  std::string verb, a, b, c, rest;
  raw_words >> verb >> a;
  std::getline(raw_words, rest);
  a = unescape(a);
  std::istringstream words(unescape(rest)), spaced(rest);
  auto word = [&spaced] {
    std::string w;
    spaced >> w;
    return unescape(w);
  };
  const fs::path path = data().root() / a;
  if (verb == "user") {
    b = word();
    c = word();
    std::string service = word();
    std::vector<std::string> channels;
    if (c == "service") service.swap(c);
    if (!c.empty()) channels = split(c, ",");
    seedUser(a, b, channels, service == "service");
  } else if (verb == "group") {
    b = word();
    seedGroup(a, b.empty() ? std::vector<std::string>{} : split(b, ","));
  } else if (verb == "channel") {
    b = word();
    c = word();
    if (b == "public") b.swap(c);
    writeChannel(a, b == "-" ? "" : b, c == "public");
  } else if (verb == "build") {
    std::vector<std::pair<std::string, std::string>> files;
    for (std::string f; !(f = word()).empty();) files.emplace_back(f.substr(0, f.find('=')), f.substr(f.find('=') + 1));
    if (files.empty()) files = {{"app.bin", "bytes"}};
    makeBuild(a, files);
  } else if (verb == "set") {
    std::getline(words, b);
    b = trim(b);
    const auto eq = b.find('=');
    Json::Value doc = readDoc(path);
    std::string last;
    Json::Value* parent = &doc;
    for (const std::string& part : split(b.substr(1, eq - 1), ".")) {
      if (!last.empty()) parent = &(*parent)[last];
      last = part;
    }
    (*parent)[last] = loose(b.substr(eq + 1));
    writeDoc(path, doc);
  } else if (verb == "write") {
    std::getline(words, b);
    writeText(path, b.empty() ? "" : b.substr(1));
  } else if (verb == "files") {
    b = word();
    EXPECT_EQ(filesIn(path), std::stoul(b)) << a;
  } else if (verb == "mark") {
    marks_[a] = readBytes(path);
  } else if (verb == "unchanged") {
    EXPECT_EQ(readBytes(path), marks_[a]) << a;
  } else if (verb == "file") {
    std::getline(words, b);
    b = trim(b);
    if (b == "absent" || b == "exists") {
      EXPECT_EQ(fs::exists(path), b == "exists") << a;
    } else if (b.starts_with("is=")) {
      EXPECT_EQ(readBytes(path), b.substr(3)) << a;
    } else {
      http::Response none;
      check(none, readDoc(path), b, 200, false);
    }
  } else {
    ADD_FAILURE() << "unknown step";
  }
}

http::Response ApiTest::request(const std::string& head) {
  std::size_t at = 0;
  auto next = [&] {
    while (at < head.size() && head[at] == ' ') ++at;
    const auto end = std::min(head.find(' ', at), head.size());
    std::string word = unescape(head.substr(at, end - at));
    at = end;
    return word;
  };
  std::string caller, peer = freshPeer(), word;
  bool anyCaller = false;
  std::vector<std::pair<std::string, std::string>> headers;
  static const std::regex kMethod("GET|POST|PUT|DELETE|PATCH|HEAD|OPTIONS");
  while (!std::regex_match(word = next(), kMethod)) {
    if (word.empty()) {
      ADD_FAILURE() << "no method";
      return {};
    }
    if (word[0] == '@') {
      peer = word.substr(1);
    } else if (word.find(':') != std::string::npos) {
      headers.emplace_back(word.substr(0, word.find(':')), word.substr(word.find(':') + 1));
    } else {
      anyCaller = true;
      caller = word == "-" ? "" : word == "admin" ? admin() : vars_.contains(word) ? vars_[word] : word;
    }
  }
  if (!anyCaller) caller = admin();
  const std::string target = next();
  const auto mark = target.find('?');
  Req req(word, target.substr(0, mark));
  if (mark != std::string::npos) {
    for (const std::string& pair : split(target.substr(mark + 1), "&")) {
      const auto eq = pair.find('=');
      req.q(pair.substr(0, eq), eq == std::string::npos ? "" : pair.substr(eq + 1));
    }
  }
  const std::string body = at < head.size() ? unescape(trim(head.substr(at))) : "";
  if (!body.empty()) req.body(body == "''" ? "" : body);
  if (!caller.empty()) req.bearer(caller);
  for (auto& [name, value] : headers) req.header(name, value);
  req.from(peer);
  return send(req);
}

void ApiTest::check(const http::Response& res, const Json::Value& doc, const std::string& checks,
                    unsigned status, bool answer) {
  if (checks.empty()) return;
  std::vector<std::string> list = split(checks, " ; ");
  static const std::regex kCheck(R"(^(\.|\{|\[|keys=|\$|hdr:|has:|!has:|=@|bytes=).*)");
  if (answer && status >= 400 && !std::regex_match(list[0], kCheck)) {
    if (list[0][0] == '^') {
      EXPECT_EQ(doc["error"].asString().substr(0, list[0].size() - 1), list[0].substr(1)) << res.body;
    } else {
      EXPECT_TRUE(isError(res, status, list[0]));
    }
    list.erase(list.begin());
  }
  for (const std::string& c : list) {
    std::smatch m;
    if (c[0] == '{' || c[0] == '[') {
      EXPECT_EQ(res.body, c);
    } else if (c.starts_with("keys=")) {
      EXPECT_EQ(memberOrder(res), split(c.substr(5), ","));
    } else if (c.starts_with("=@")) {
      EXPECT_EQ(http::toCompactJson(doc), http::toCompactJson(readDoc(data().root() / c.substr(2))));
    } else if (std::regex_match(c, m, std::regex(R"(\$([A-Za-z0-9_]+)=(\..*))"))) {
      const Json::Value* v = member(doc, m[2].str());
      EXPECT_TRUE(v && v->isString()) << c << " in " << res.body;
      vars_[m[1].str()] = v && v->isString() ? v->asString() : "";
    } else if (c.starts_with("has:") || c.starts_with("!has:")) {
      const bool want = c[0] != '!';
      const std::string text = c.substr(want ? 4 : 5);
      EXPECT_EQ(res.body.find(text) != std::string::npos, want) << c << " in " << res.body;
    } else if (std::regex_match(c, m, std::regex("hdr:([^=~]+)([=~])(.*)"))) {
      const std::string value = headerOf(res, m[1].str());
      if (m[2] == "=") EXPECT_EQ(value, m[3].str()) << c;
      else EXPECT_TRUE(std::regex_match(value, std::regex(m[3].str()))) << c << ": " << value;
    } else if (c.starts_with("bytes=")) {
      EXPECT_EQ(fileBody(res), c.substr(6));
    } else if (std::regex_match(c, m, std::regex(R"((\.[^=!~]*)([=!~])(.*))"))) {
      const Json::Value* v = member(doc, m[1].str());
      const std::string shown = answer ? res.body : http::toCompactJson(doc);
      if (m[2] == "!") {
        EXPECT_EQ(v, nullptr) << c << " in " << shown;
      } else if (!v) {
        ADD_FAILURE() << c << ": no such member in " << shown;
      } else if (m[2] == "=") {
        EXPECT_EQ(http::toCompactJson(*v), http::toCompactJson(loose(m[3].str()))) << c;
      } else {
        EXPECT_TRUE(v->isString() && std::regex_match(v->asString(), std::regex(m[3].str())))
            << c << ": " << *v;
      }
    } else {
      ADD_FAILURE() << "unknown check " << c;
    }
  }
}

}  // namespace quill::test
