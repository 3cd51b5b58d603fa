#include "base/hex.h"

namespace quill::base {

namespace {

constexpr char kDigits[] = "0123456789abcdef";

}  // namespace

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string toHex(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve(bytes.size() * 2);
  for (std::uint8_t b : bytes) {
    out.push_back(kDigits[b >> 4]);
    out.push_back(kDigits[b & 0x0F]);
  }
  return out;
}

std::string toHex(std::string_view bytes) {
  return toHex(std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
}

std::optional<std::vector<std::uint8_t>> fromHex(std::string_view text) {
  if (text.size() % 2 != 0) return std::nullopt;
  std::vector<std::uint8_t> out(text.size() / 2);
  for (std::size_t i = 0; i < out.size(); ++i) {
    const int hi = hexDigitValue(text[2 * i]);
    const int lo = hexDigitValue(text[2 * i + 1]);
    if (hi < 0 || lo < 0) return std::nullopt;
    out[i] = static_cast<std::uint8_t>(hi << 4 | lo);
  }
  return out;
}

}  // namespace quill::base
