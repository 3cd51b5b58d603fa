// The one reading of bucket settings: request bodies are checked member by member, stored documents
// read leniently and are complete or refused, and every form gives an empty region as "auto".

#include "rill/transport/s3_settings.h"

#include <gtest/gtest.h>

#include <fstream>

#include "base/json_reader.h"
#include "support/temp_dir_test_base.h"

namespace quill::rill {
namespace {

const std::string kFull =
    R"("endpoint":"http://127.0.0.1:9","bucket":"b","access_key":"AKEY1","secret_key":"s")";

TEST(S3Settings, RequestBodiesAreCheckedInOrder) {
  const struct {
    std::string body;
    std::string outcome;  // the failure, or "region|prefix" of the settings
  } cases[] = {
      {"[1]", "JSON object required"},
      {R"({"endpoint":5,"bucket":7})", "endpoint must be a string"},
      {"{" + kFull + R"(,"region":null})", "region must be a string"},
      {R"({"endpoint":"http://h","bucket":"","access_key":"a","secret_key":"s"})",
       kCredentialsRequired},
      {R"({"bucket":"b","access_key":"a","secret_key":"s"})", kCredentialsRequired},
      {"{" + kFull + "}", "auto|"},
      {"{" + kFull + R"(,"region":""})", "auto|"},
      {"{" + kFull + R"(,"region":"eu-1"})", "eu-1|"},
      // A request never places objects under a prefix, whatever it sends.
      {"{" + kFull + R"(,"prefix":"p/"})", "auto|"},
      {"{" + kFull + R"(,"prefix":5})", "auto|"},
  };
  for (const auto& c : cases) {
    const auto parsed = parseS3Credentials(*base::parseJson(c.body));
    const std::string outcome =
        parsed ? parsed.value().region + "|" + parsed.value().prefix : parsed.error();
    EXPECT_EQ(outcome, c.outcome) << c.body;
  }
}

class S3SettingsFileTest : public quill::test::TempDirTest {
 protected:
  std::string readRill(const std::string& text) {
    if (!text.empty()) std::ofstream(rillJsonPath(dir())) << text;
    const auto settings = readRillJson(dir());
    if (!settings) return settings.error();
    return settings.value().bucket + "|" + settings.value().region + "|" + settings.value().prefix;
  }
};

TEST_F(S3SettingsFileTest, RillJsonIsCompleteOrRefused) {
  const struct {
    std::string text;  // "" for no file
    std::string outcome;
  } cases[] = {
      {"", kRillNotConfigured},
      {"[1]", kRillNotConfigured},
      {"{", kRillNotConfigured},
      {"{}", kRillIncomplete},
      // Present is not enough: an empty or non-text member is as good as a missing one.
      {R"({"endpoint":"http://h","bucket":"","access_key":"a","secret_key":"s"})",
       kRillIncomplete},
      {R"({"endpoint":"http://h","bucket":5,"access_key":"a","secret_key":"s"})",
       kRillIncomplete},
      {"{" + kFull + "}", "b|auto|"},
      {"{" + kFull + R"(,"region":"","schema_version":1})", "b|auto|"},
      {"{" + kFull + R"(,"region":"eu-1","prefix":"p/"})", "b|eu-1|p/"},
  };
  for (const auto& c : cases) {
    std::filesystem::remove(rillJsonPath(dir()));
    EXPECT_EQ(readRill(c.text), c.outcome) << c.text;
  }
}

TEST_F(S3SettingsFileTest, DocumentsWriteWhatTheyReadBack) {
  Json::Value doc(Json::objectValue);
  doc["keep"] = 3;  // other members stay
  writeS3Settings({"http://h", "", "b", "a", "s"}, doc);
  EXPECT_EQ(doc["region"], "auto");
  EXPECT_FALSE(doc.isMember("prefix")) << "an empty prefix is not written";
  EXPECT_EQ(doc["keep"], 3);
  EXPECT_EQ(rillJsonDocument({"http://h", "eu", "b", "a", "s"})["schema_version"], 1);

  const S3Settings shared{"http://h", "eu", "b", "a", "s", "backups/"};
  writeS3Settings(shared, doc);
  const S3Settings back = s3SettingsFromJson(doc);
  EXPECT_EQ(back.endpoint + back.region + back.bucket + back.accessKey + back.secretKey +
                back.prefix,
            "http://heubasbackups/");

  EXPECT_EQ(readS3SettingsFile(dir() / "none.json").error(),
            "cannot read " + (dir() / "none.json").string());
  std::ofstream(dir() / "list.json") << "[]";
  EXPECT_EQ(readS3SettingsFile(dir() / "list.json").error(),
            (dir() / "list.json").string() + " is not a JSON object");
  EXPECT_EQ(accessKeyHint("abcd"), "");
  EXPECT_EQ(accessKeyHint("abcde"), "...bcde");
}

}  // namespace
}  // namespace quill::rill
