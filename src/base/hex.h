#pragma once
// Lower-case hexadecimal text of bytes, and strict decoding back.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace quill::base {

// Two lower-case hexadecimal digits per byte.
std::string toHex(std::span<const std::uint8_t> bytes);
std::string toHex(std::string_view bytes);

// The value of one hexadecimal digit (either letter case), or -1 for any other character.
int hexDigitValue(char c);

// Decodes hexadecimal text (either letter case, no separators). Returns nothing when the text has
// an odd length or any character that is not a hexadecimal digit.
std::optional<std::vector<std::uint8_t>> fromHex(std::string_view text);

}  // namespace quill::base
