#pragma once
// In-process API tests: a fresh data directory and context per test, the real route table behind
// the real gate, helpers to seed records, and requests sent without a socket.

#include <gtest/gtest.h>
#include <json/value.h>
#include <json/writer.h>  // operator<< for failure messages

#include <filesystem>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "handler/context.h"
#include "http/request.h"
#include "http/response.h"
#include "http/router.h"
#include "support/temp_dir_test_base.h"

namespace quill::test {

namespace fs = std::filesystem;

// A request head as the server would hand it over; peer 10.0.0.1 unless told otherwise.
class Req {
 public:
  Req(std::string method, std::string path);
  Req& q(std::string name, std::string value) { return req_.query.emplace(name, value), *this; }
  Req& bearer(const std::string& token) { return header("authorization", "Bearer " + token); }
  Req& header(std::string name, std::string value) { return req_.headers.add(name, value), *this; }
  Req& from(std::string peer) { return req_.peer = std::move(peer), *this; }
  Req& body(std::string bytes);
  Req& bodyLost() { return req_.bodyLost = true, *this; }  // the disk had no room for the body
  const http::Request& build() const { return req_; }

 private:
  http::Request req_;
};

Json::Value parseJson(const std::string& text);  // strict; a failure is reported
inline Json::Value bodyOf(const http::Response& res) { return parseJson(res.body); }
std::string headerOf(const http::Response& res, const std::string& name);
// Exactly the error document {"error": text} with `status`.
::testing::AssertionResult isError(const http::Response& res, unsigned status,
                                   const std::string& text);
::testing::AssertionResult isOk(const http::Response& res);
Json::Value strings(std::initializer_list<const char*> items);
std::string readBytes(const fs::path& path);
// The bytes of a file answer (its range only), whether the handler named the file or opened it.
std::string fileBody(const http::Response& res);

class ApiTest : public TempDirTest {
 protected:
  ~ApiTest() override;
  void SetUp() override { start(); }
  void start(bool rateLimit = true, bool rillOnly = false);  // a fresh context and router

  Context& ctx() { return *ctx_; }
  const store::DataDir& data() const { return ctx_->data; }
  http::Response send(const Req& req);
  http::Response as(const std::string& token, Req req) { return send(req.bearer(token)); }
  http::Response asAdmin(Req req) { return as(admin(), std::move(req)); }

  // A user record with a token named `<name>-token` (also `$name`); returns the token text.
  std::string seedUser(const std::string& name, const std::string& role,
                       std::vector<std::string> channels = {}, bool service = false);
  std::string mintFor(const std::string& user, const std::string& tokenName);
  const std::string& admin();  // the recovery account's token, the usual caller
  void seedGroup(const std::string& name, const std::vector<std::string>& channels = {});
  void writeChannel(const std::string& name, const std::string& build = "", bool isPublic = false);
  void setMember(const fs::path& record, const char* member, const Json::Value& value);
  // A peer no other request used, so one attempt's credential budget never spills into the next.
  std::string freshPeer();

  fs::path userPath(const std::string& name) const { return record(data().users(), name); }
  fs::path tokenPath(const std::string& name) const { return record(data().tokens(), name); }
  fs::path groupPath(const std::string& name) const { return record(data().groups(), name); }
  fs::path invitePath(const std::string& code) const;
  fs::path buildDir(const std::string& id) const { return data().builds() / id; }
  Json::Value readDoc(const fs::path& path);
  void writeDoc(const fs::path& path, const Json::Value& doc);
  void writeText(const fs::path& path, const std::string& text);
  // Makes every atomic write of `record` fail while it stays readable (an existing record is
  // marked immutable, a missing one's directory is); false where that is not allowed: skip then.
  [[nodiscard]] bool blockWrites(const fs::path& record);

  // Walks a table of steps, one per line; `#` starts a comment. `$name` is a variable (a seeded
  // user's token, or a capture), `{N*text}` is text repeated N times; then, word by word,
  // `\s \t \n \r \xHH \\` are escapes (`\s` is a space inside a word). A request:
  //   [N*] [caller] [@peer] [header:value] METHOD /path?name=value&flag [body] => STATUS [checks]
  // caller: a user name (its token), `-` for none, else the bearer text (default: admin); `a,b`
  // runs the line once per caller, N* N times; each request has a fresh peer unless @peer.
  // STATUS `pass`: the gate let the caller through. Checks, separated by " ; ":
  //   text (status >= 400, first)  the exact error document {"error": text}; ^text: its start
  //   {...} / [...]  the exact body        keys=a,b  the top-level members in this order
  //   .a.b=JSON  a member (`#` an array's size, `key:value` the element whose key is value)
  //   .a.b!  absent    .a.b~REGEX  a string    =@path  the body equals that stored document
  //   $name=.a.b / $name=hdr:Name  captures   has:text / !has:text  the body contains (not)
  //   hdr:Name=value / hdr:Name~REGEX        bytes=text  the bytes of a file answer
  // Other steps (paths under the data directory; several on one line are separated by " | "):
  //   user NAME ROLE [ch1,ch2] [service]  group NAME [ch1,ch2]  channel NAME [build|-] [public]
  //   build ID [path=content ...]    set PATH .member=JSON    write PATH text    remove PATH
  //   file PATH absent, exists, is=text or checks (as above, on the stored document)
  //   files DIR N        mark PATH (remember its bytes)       unchanged PATH
  void walk(std::string_view table);

  std::map<std::string, std::string> vars_;

 private:
  static fs::path record(const fs::path& dir, const std::string& name);
  void step(const std::string& line);
  void answer(const std::string& line);
  http::Response request(const std::string& head);
  void check(const http::Response& res, const Json::Value& doc, const std::string& checks,
             unsigned status, bool answer);
  std::map<std::string, std::string> marks_;
  std::unique_ptr<Context> ctx_;
  std::unique_ptr<http::Router> router_;
  int peers_ = 0;
  std::vector<fs::path> immutable_;  // cleared again on teardown, so the directory can be removed
};

}  // namespace quill::test
