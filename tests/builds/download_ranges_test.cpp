// Downloads with byte ranges and conditions, in-process: one table of requests against a file of
// a finalized build (validators offered) and the same file of a build still open (none offered).

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "http/file_answer.h"
#include "support/api_fixture.h"

namespace quill::test {
namespace {

constexpr const char* kBytes = "0123456789";

struct Case {
  const char* build;                                         // "done" (finalized) or "open"
  std::vector<std::pair<std::string, std::string>> headers;  // "$etag", "$date", "$older" filled in
  unsigned status;
  const char* body;          // the bytes sent ("" for 304 and 416)
  const char* contentRange;  // "" when absent
};

const std::vector<Case> kCases = {
    {"done", {}, 200, kBytes, ""},
    {"done", {{"range", "bytes=2-4"}}, 206, "234", "bytes 2-4/10"},
    {"done", {{"range", "bytes=7-"}}, 206, "789", "bytes 7-9/10"},
    {"done", {{"range", "bytes=8-99"}}, 206, "89", "bytes 8-9/10"},
    {"done", {{"range", "bytes=-3"}}, 206, "789", "bytes 7-9/10"},
    {"done", {{"range", "bytes=-30"}}, 206, kBytes, "bytes 0-9/10"},
    {"done", {{"range", "bytes=10-"}}, 416, "", "bytes */10"},
    {"done", {{"range", "bytes=-0"}}, 416, "", "bytes */10"},
    // Ignored: several ranges, another unit, a reversed or unreadable range.
    {"done", {{"range", "bytes=0-1,4-5"}}, 200, kBytes, ""},
    {"done", {{"range", "items=0-1"}}, 200, kBytes, ""},
    {"done", {{"range", "bytes=5-2"}}, 200, kBytes, ""},
    {"done", {{"range", "bytes=x-"}}, 200, kBytes, ""},
    {"done", {{"if-none-match", "$etag"}}, 304, "", ""},
    {"done", {{"if-none-match", "\"other\", W/$etag"}}, 304, "", ""},
    {"done", {{"if-none-match", "*"}}, 304, "", ""},
    {"done", {{"if-none-match", "\"other\""}}, 200, kBytes, ""},
    {"done", {{"if-modified-since", "$date"}}, 304, "", ""},
    {"done", {{"if-modified-since", "$older"}}, 200, kBytes, ""},
    {"done", {{"if-modified-since", "yesterday"}}, 200, kBytes, ""},
    // If-None-Match decides alone when both are sent.
    {"done", {{"if-none-match", "\"other\""}, {"if-modified-since", "$date"}}, 200, kBytes, ""},
    {"done", {{"range", "bytes=4-"}, {"if-range", "$etag"}}, 206, "456789", "bytes 4-9/10"},
    {"done", {{"range", "bytes=4-"}, {"if-range", "$date"}}, 206, "456789", "bytes 4-9/10"},
    {"done", {{"range", "bytes=4-"}, {"if-range", "\"other\""}}, 200, kBytes, ""},
    {"done", {{"range", "bytes=4-"}, {"if-range", "W/$etag"}}, 200, kBytes, ""},
    {"done", {{"range", "bytes=4-"}, {"if-range", "$older"}}, 200, kBytes, ""},
    // A file that may still be replaced: ranges yes, conditions never.
    {"open", {{"range", "bytes=4-"}}, 206, "456789", "bytes 4-9/10"},
    {"open", {{"if-none-match", "*"}}, 200, kBytes, ""},
    {"open", {{"if-modified-since", "$date"}}, 200, kBytes, ""},
    {"open", {{"range", "bytes=4-"}, {"if-range", "$date"}}, 200, kBytes, ""},
};

class DownloadRangesTest : public ApiTest {
 protected:
  http::Response get(const std::string& build,
                     const std::vector<std::pair<std::string, std::string>>& headers = {}) {
    Req req("GET", "/api/builds/" + build + "/files");
    req.q("path", "dir/app.bin");
    for (const auto& [name, value] : headers) req.header(name, value);
    return asAdmin(req);
  }
};

TEST_F(DownloadRangesTest, RangesAndConditionsAnswerAsTheTableSays) {
  makeBuild("done", {{"dir/app.bin", kBytes}});
  ASSERT_TRUE(isOk(upload("open", "dir/app.bin", kBytes)));
  const http::Response plain = get("done");
  const std::string etag = headerOf(plain, "ETag");
  const std::string date = headerOf(plain, "Last-Modified");
  ASSERT_EQ(etag.front(), '"');
  ASSERT_TRUE(http::parseHttpDate(date));
  const std::string older = http::httpDate(*http::parseHttpDate(date) - 1);
  EXPECT_EQ(headerOf(plain, "Accept-Ranges"), "bytes");
  // The open build's file offers no validators.
  EXPECT_EQ(headerOf(get("open"), "ETag"), "");
  EXPECT_EQ(headerOf(get("open"), "Last-Modified"), "");

  for (const Case& c : kCases) {
    auto headers = c.headers;
    for (auto& [name, value] : headers) {
      for (const auto& [from, to] :
           {std::pair{"$etag", etag}, {"$date", date}, {"$older", older}}) {
        if (auto at = value.find(from); at != std::string::npos)
          value.replace(at, std::string(from).size(), to);
      }
    }
    std::string shown = c.build;
    for (const auto& [name, value] : headers) shown += " " + name + ": " + value;
    const http::Response res = get(c.build, headers);
    EXPECT_EQ(res.status, c.status) << shown;
    EXPECT_EQ(headerOf(res, "Content-Range"), c.contentRange) << shown;
    if (c.status == 200 || c.status == 206) {
      EXPECT_EQ(fileBody(res), c.body) << shown;
      EXPECT_EQ(headerOf(res, "Accept-Ranges"), "bytes") << shown;
    }
    if (c.status == 304) {
      EXPECT_EQ(headerOf(res, "ETag"), etag) << shown;
    }
    if (c.status == 416) {
      EXPECT_TRUE(isError(res, 416, "requested range not satisfiable")) << shown;
    }
  }
}

TEST_F(DownloadRangesTest, AnEmptyFileHasNoSatisfiableRange) {
  makeBuild("empty", {{"dir/app.bin", ""}});
  EXPECT_EQ(get("empty", {{"range", "bytes=0-"}}).status, 416u);
  EXPECT_EQ(get("empty").status, 200u);
}

}  // namespace
}  // namespace quill::test
