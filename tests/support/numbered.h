#pragma once
// Numbered names for tests that make many of something: "t7", "b1042".

#include <string>
#include <string_view>

namespace quill::test {

// `stem` followed by `n` in decimal. Built by appending: GCC 12 at -O3 reports a false
// -Wrestrict on `"t" + std::to_string(n)`, which inserts in front of the number.
inline std::string numbered(std::string_view stem, long long n) {
  std::string name(stem);
  name += std::to_string(n);
  return name;
}

}  // namespace quill::test
