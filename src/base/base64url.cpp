#include "base/base64url.h"

#include <array>
#include <cstdint>

namespace quill::base {

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr std::array<int, 256> decodeTable() {
  std::array<int, 256> table{};
  for (auto& entry : table) entry = -1;
  for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
    table[static_cast<unsigned char>(kAlphabet[i])] = static_cast<int>(i);
  }
  return table;
}

constexpr std::array<int, 256> kDecode = decodeTable();

}  // namespace

std::string base64urlEncode(std::string_view bytes) {
  std::string out;
  out.reserve((bytes.size() * 4 + 2) / 3);
  std::size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const std::uint32_t group =
        static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 16 |
        static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8 |
        static_cast<unsigned char>(bytes[i + 2]);
    out.push_back(kAlphabet[group >> 18 & 63]);
    out.push_back(kAlphabet[group >> 12 & 63]);
    out.push_back(kAlphabet[group >> 6 & 63]);
    out.push_back(kAlphabet[group & 63]);
  }
  const std::size_t rest = bytes.size() - i;
  if (rest == 0) return out;
  std::uint32_t group = static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << 16;
  if (rest == 2) group |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i + 1])) << 8;
  out.push_back(kAlphabet[group >> 18 & 63]);
  out.push_back(kAlphabet[group >> 12 & 63]);
  if (rest == 2) out.push_back(kAlphabet[group >> 6 & 63]);
  return out;
}

std::optional<std::string> base64urlDecode(std::string_view text) {
  while (!text.empty() && text.back() == '=') text.remove_suffix(1);
  if (text.size() % 4 == 1) return std::nullopt;
  std::string out;
  out.reserve(text.size() * 3 / 4);
  std::uint32_t bits = 0;
  int held = 0;
  for (char c : text) {
    const int value = kDecode[static_cast<unsigned char>(c)];
    if (value < 0) return std::nullopt;
    bits = bits << 6 | static_cast<std::uint32_t>(value);
    held += 6;
    if (held >= 8) {
      held -= 8;
      out.push_back(static_cast<char>(bits >> held & 0xFF));
    }
  }
  return out;
}

}  // namespace quill::base
