#pragma once
// In-process API tests: a fresh data directory and context per test, the real route table behind
// the real gate, helpers to seed records, and requests sent without a socket (a body travels in
// memory).

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
  Req& q(std::string name, std::string value);
  Req& bearer(const std::string& token) { return header("authorization", "Bearer " + token); }
  Req& header(std::string name, std::string value);
  Req& from(std::string peer);
  Req& body(std::string bytes);
  // A streamed body the server could not store (a full disk).
  Req& bodyLost() {
    req_.bodyLost = true;
    return *this;
  }
  const http::Request& build() const { return req_; }

 private:
  http::Request req_;
};

Json::Value parseJson(const std::string& text);  // strict; a failure is reported
Json::Value bodyOf(const http::Response& res);
std::string headerOf(const http::Response& res, const std::string& name);
// Exactly the error document {"error": text} with `status`.
::testing::AssertionResult isError(const http::Response& res, unsigned status,
                                   const std::string& text);
::testing::AssertionResult isOk(const http::Response& res);
// The top-level member names of a JSON object body, in the order they were sent.
std::vector<std::string> memberOrder(const http::Response& res);
Json::Value strings(std::initializer_list<const char*> items);
std::string readBytes(const fs::path& path);
// The bytes of a file answer, whether the handler named the file or opened it.
std::string fileBody(const http::Response& res);
bool isUtcStamp(const Json::Value& value);
bool isRandomText(const Json::Value& value, std::size_t length);
std::size_t filesIn(const fs::path& dir);

class ApiTest : public TempDirTest {
 protected:
  ~ApiTest() override;
  void SetUp() override { start(); }

  // A fresh context and router over the same data directory.
  void start(bool rateLimit = true, bool rillOnly = false);

  Context& ctx() { return *ctx_; }
  const store::DataDir& data() const { return ctx_->data; }

  http::Response send(const Req& req);
  http::Response as(const std::string& token, Req req) { return send(req.bearer(token)); }
  http::Response asAdmin(Req req) { return as(admin(), std::move(req)); }

  // A user record with a token named `<name>-token`; returns the token text.
  std::string seedUser(const std::string& name, const std::string& role,
                       std::vector<std::string> channels = {}, bool service = false);
  std::string mintFor(const std::string& user, const std::string& tokenName);
  // The recovery account with a token, the usual caller of admin routes.
  const std::string& admin();
  void seedGroup(const std::string& name, const std::vector<std::string>& channels = {});
  // A channel document written straight to disk.
  void writeChannel(const std::string& name, const std::string& build = "", bool isPublic = false);
  // Sets one member of a stored record.
  void setMember(const fs::path& record, const char* member, const Json::Value& value);

  // A peer address used by no other request of the test, so one attempt's credential budget
  // never spills into the next unless a test wants it to.
  std::string freshPeer();
  // POST /api/invites/redeem from a fresh peer; `machine` is left off when null.
  http::Response redeem(const std::string& code, const char* machine = nullptr);

  // The build routes as the admin.
  http::Response upload(const std::string& id, const std::string& path, std::string bytes);
  http::Response finalize(const std::string& id);
  // A finalized build holding `files` (path, content).
  void makeBuild(const std::string& id,
                 std::vector<std::pair<std::string, std::string>> files = {{"app.bin", "bytes"}});

  fs::path userPath(const std::string& name) const;
  fs::path tokenPath(const std::string& name) const;
  fs::path groupPath(const std::string& name) const;
  fs::path invitePath(const std::string& code) const;
  fs::path buildDir(const std::string& id) const { return data().builds() / id; }

  Json::Value readDoc(const fs::path& path);
  void writeDoc(const fs::path& path, const Json::Value& doc);
  void writeText(const fs::path& path, const std::string& text);
  // Makes every atomic write of `record` fail while it stays readable: an existing record is
  // marked immutable, a missing one's directory is. False where the file system or the caller's
  // privileges do not allow the mark; the test should then skip.
  [[nodiscard]] bool blockWrites(const fs::path& record);

  // Walks a table of steps in order, one per line; `#` starts a comment. `$name` is a variable
  // (a seeded user's token, or a capture) and `{N*text}` is text repeated N times; then, word by
  // word, `\s \t \n \r \xHH \\` are escapes (so `\s` is a space inside a word).
  //   [N*] [caller] [@peer] [header:value] METHOD /path?name=value&flag [body] => STATUS [checks]
  // caller: a user name (its token), `-` for none, else the bearer text itself (default: admin).
  // Each request comes from a fresh peer unless @peer is given; N* repeats a request, callers
  // `a,b` run it once each. STATUS `pass` means the gate let the caller through. Checks
  // (separated by " ; "):
  //   text (status >= 400, first)  the exact error document {"error": text}; ^text: its start
  //   {...} / [...]  the exact body        keys=a,b  the top-level members in this order
  //   (a path part `#` is an array's size, `key:value` the element whose member key is value)
  //   .a.b=JSON  a member's value          .a.b!  absent       .a.b~REGEX  a string member
  //   =@path  the body equals that stored document      $name=.a.b  captures a member's text
  //   has:text / !has:text  the body contains (not)     hdr:Name=value / hdr:Name~REGEX
  //   bytes=text  the bytes of a file answer
  // Other steps (paths are under the data directory):
  //   user NAME ROLE [ch1,ch2] [service]  group NAME [ch1,ch2]  channel NAME [build|-] [public]
  //   build ID [path=content ...]    set PATH .member=JSON    write PATH text
  //   file PATH absent | exists | checks (as above, on the stored document) | is=text
  //   files DIR N        mark PATH (remember its bytes)       unchanged PATH
  void walk(std::string_view table);

  std::map<std::string, std::string> vars_;

 private:
  void step(const std::string& line);
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
