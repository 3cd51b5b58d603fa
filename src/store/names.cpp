#include "store/names.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace quill::store {

namespace {

constexpr std::size_t kMaxPathBytes = 1024;
constexpr std::size_t kMaxPathSegments = 32;
// A segment becomes one file or directory name, which the file system caps at 255 bytes; the rule
// refuses what could never be stored rather than letting the write fail later.
constexpr std::size_t kMaxSegmentBytes = 255;

// Names the Windows file APIs treat as devices whatever the extension; a record or build file
// with such a stem would not be a file there, so it is refused everywhere.
constexpr std::array<std::string_view, 22> kReservedDeviceNames = {
    "CON",  "PRN",  "AUX",  "NUL",  "COM1", "COM2", "COM3", "COM4", "COM5", "COM6", "COM7",
    "COM8", "COM9", "LPT1", "LPT2", "LPT3", "LPT4", "LPT5", "LPT6", "LPT7", "LPT8", "LPT9"};

char asciiUpper(char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; }

bool isAsciiAlnum(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
}

bool isNameByte(char c) { return isAsciiAlnum(c) || c == '-' || c == '.' || c == '_'; }

// `text` upper-cased with the ASCII rule equals `upper`.
bool equalsAsciiUpper(std::string_view text, std::string_view upper) {
  if (text.size() != upper.size()) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (asciiUpper(text[i]) != upper[i]) return false;
  }
  return true;
}

bool isDotOrDotDot(std::string_view text) { return text == "." || text == ".."; }

bool isContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// Length of the sequence opened by `lead`, or 0 when it cannot open one.
std::size_t sequenceLength(unsigned char lead) {
  if (lead < 0x80) return 1;
  if (lead >= 0xC0 && lead <= 0xDF) return 2;
  if (lead >= 0xE0 && lead <= 0xEF) return 3;
  if (lead >= 0xF0 && lead <= 0xF7) return 4;
  return 0;
}

// Smallest code point each sequence length may encode; anything below is an over-long form.
std::uint32_t minimumCodePoint(std::size_t length) {
  if (length == 2) return 0x80;
  if (length == 3) return 0x800;
  return 0x10000;
}

// Strict UTF-8: no over-long forms, no surrogates, nothing above U+10FFFF. Over-long forms matter
// because they could smuggle "/", "." or NUL past the byte checks that follow.
bool isStrictUtf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const std::size_t length = sequenceLength(lead);
    if (length == 0 || length > text.size() - i) return false;
    if (length == 1) {
      ++i;
      continue;
    }
    // The lead's payload bits: 5, 4 or 3 of them for 2-, 3- and 4-byte sequences.
    std::uint32_t codePoint = lead & (0x7Fu >> length);
    for (std::size_t k = 1; k < length; ++k) {
      const auto byte = static_cast<unsigned char>(text[i + k]);
      if (!isContinuation(byte)) return false;
      codePoint = (codePoint << 6) | (byte & 0x3Fu);
    }
    if (codePoint < minimumCodePoint(length)) return false;
    if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return false;
    if (codePoint > 0x10FFFF) return false;
    i += length;
  }
  return true;
}

bool isForbiddenPathByte(unsigned char byte) {
  if (byte < 0x20 || byte == 0x7F) return true;
  switch (byte) {
    case '"':
    case '*':
    case ':':  // also what rules out drive prefixes such as C:
    case '<':
    case '>':
    case '?':
    case '|':
      return true;
    default:
      return false;
  }
}

bool isSafeSegment(std::string_view segment) {
  if (segment.empty() || segment.size() > kMaxSegmentBytes || isDotOrDotDot(segment)) return false;
  if (segment.front() == ' ' || segment.back() == ' ' || segment.back() == '.') return false;
  if (isReservedDeviceName(segment)) return false;
  for (const char c : segment) {
    if (isForbiddenPathByte(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

}  // namespace

bool isReservedDeviceName(std::string_view text) {
  const std::string_view stem = text.substr(0, text.find('.'));
  for (const std::string_view reserved : kReservedDeviceNames) {
    if (equalsAsciiUpper(stem, reserved)) return true;
  }
  return false;
}

bool isValidName(std::string_view text) {
  if (text.empty() || text.size() > kMaxNameBytes) return false;
  for (const char c : text) {
    if (!isNameByte(c)) return false;
  }
  if (isDotOrDotDot(text)) return false;
  return !isReservedDeviceName(text);
}

bool isSafeRelativePath(std::string_view text) {
  if (text.empty() || text.size() > kMaxPathBytes) return false;
  if (text.find('\\') != std::string_view::npos) return false;
  if (!isStrictUtf8(text)) return false;

  std::size_t segments = 0;
  std::size_t start = 0;
  while (true) {
    const std::size_t slash = text.find('/', start);
    const std::string_view segment = text.substr(start, slash - start);
    if (!isSafeSegment(segment)) return false;
    if (++segments > kMaxPathSegments) return false;
    if (slash == std::string_view::npos) return true;
    start = slash + 1;
  }
}

}  // namespace quill::store
