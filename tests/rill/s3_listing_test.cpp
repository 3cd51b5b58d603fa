#include "rill/s3_listing.h"

#include <gtest/gtest.h>

namespace quill::rill {
namespace {

TEST(S3Listing, ReadsKeysSizesAndContinuation) {
  auto page = parseListPage(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<ListBucketResult><Name>b</Name>"
      "<IsTruncated>true</IsTruncated><KeyCount>2</KeyCount>"
      "<Contents><Key>chunks/ab/one</Key><LastModified>x</LastModified><Size>12</Size></Contents>"
      "<Contents><Size>9223372036854775807</Size><Key>a &amp; b &lt;c&gt; &#233;&#x20AC;</Key>"
      "</Contents><NextContinuationToken>tok/en==</NextContinuationToken></ListBucketResult>");
  ASSERT_TRUE(page) << page.error();
  EXPECT_EQ(page.value().entries,
            (std::vector<ObjectEntry>{{"chunks/ab/one", 12},
                                      {"a & b <c> \xC3\xA9\xE2\x82\xAC", 9223372036854775807}}));
  EXPECT_TRUE(page.value().truncated);
  EXPECT_EQ(page.value().nextToken, "tok/en==");
}

TEST(S3Listing, LastEmptyAndOddPages) {
  auto last = parseListPage(
      "<ListBucketResult><IsTruncated>false</IsTruncated>"
      "<Contents><Key>k</Key><Size>0</Size></Contents></ListBucketResult>");
  ASSERT_TRUE(last);
  EXPECT_FALSE(last.value().truncated);
  EXPECT_EQ(last.value().entries, (std::vector<ObjectEntry>{{"k", 0}}));

  auto empty = parseListPage("<ListBucketResult><KeyCount>0</KeyCount></ListBucketResult>");
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty.value().entries.empty());

  // Unknown references stay as written.
  auto page = parseListPage("<Contents><Key>a&bogus;&#xD800;&&#;</Key><Size>1</Size></Contents>");
  ASSERT_TRUE(page);
  EXPECT_EQ(page.value().entries[0].key, "a&bogus;&#xD800;&&#;");
}

TEST(S3Listing, MalformedPagesFail) {
  EXPECT_EQ(parseListPage("<Contents><Key>k</Key><Size>-1</Size></Contents>").error(),
            "malformed listing: bad Size for key k");
  EXPECT_FALSE(parseListPage("<Contents><Key>k</Key><Size>12x</Size></Contents>"));
  EXPECT_FALSE(parseListPage("<Contents><Key>k</Key><Size>99999999999999999999</Size></Contents>"));
  EXPECT_FALSE(parseListPage("<Contents><Key>k</Key></Contents>"));
  EXPECT_EQ(parseListPage("<Contents><Size>1</Size></Contents>").error(),
            "malformed listing: Contents without Key");
  EXPECT_EQ(parseListPage("<IsTruncated>true</IsTruncated>").error(),
            "malformed listing: truncated without NextContinuationToken");
}

}  // namespace
}  // namespace quill::rill
