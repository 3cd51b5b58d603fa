#include "store/random.h"

#include <gtest/gtest.h>

#include <cctype>
#include <set>

namespace quill::store {
namespace {

TEST(RandomString, HasTheRequestedLengthAndDrawsFromAllSixtyTwoLettersAndDigitsOnly) {
  for (const std::size_t length : {0u, 1u, 48u}) EXPECT_EQ(randomString(length).size(), length);
  // With 20000 draws the chance that one of the 62 characters never appears is below 1e-130.
  std::set<char> seen;
  for (const char c : randomString(20000)) {
    ASSERT_TRUE(std::isalnum(static_cast<unsigned char>(c))) << static_cast<int>(c);
    seen.insert(c);
  }
  EXPECT_EQ(seen.size(), 62u);
}

}  // namespace
}  // namespace quill::store
