#include "rill/transport/s3_error.h"

#include <algorithm>

namespace quill::rill {

namespace {

constexpr std::size_t kMaxScanned = 64 * 1024;
constexpr std::size_t kMaxCode = 64;

// The text between the first <tag> and the </tag> after it; empty when either is missing.
std::string_view element(std::string_view xml, std::string_view tag) {
  std::string open = "<";  // appended: GCC 12 at -O3 misjudges "literal" + std::string
  open.append(tag).append(">");
  std::string close = "</";
  close.append(tag).append(">");
  const std::size_t start = xml.find(open);
  if (start == std::string_view::npos) return {};
  const std::size_t from = start + open.size();
  const std::size_t end = xml.find(close, from);
  if (end == std::string_view::npos) return {};
  return xml.substr(from, end - from);
}

bool isCode(std::string_view code) {
  return !code.empty() && code.size() <= kMaxCode &&
         std::all_of(code.begin(), code.end(), [](char c) {
           return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                  c == '.';
         });
}

// `text` on one line, entities decoded, at most kMaxErrorMessage bytes before "...".
std::string oneLine(std::string_view text, bool decodeEntities) {
  static constexpr std::pair<std::string_view, char> kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (std::size_t i = 0; i < text.size() && out.size() < kMaxErrorMessage; ++i) {
    char c = text[i];
    if (decodeEntities && c == '&') {
      for (const auto& [entity, decoded] : kEntities) {
        if (text.substr(i).starts_with(entity)) {
          c = decoded;
          i += entity.size() - 1;
          break;
        }
      }
    }
    const auto byte = static_cast<unsigned char>(c);
    out += byte < 0x20 || byte == 0x7f ? ' ' : c;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  if (out.size() >= kMaxErrorMessage) out += "...";
  return out;
}

}  // namespace

std::string s3ErrorReason(std::string_view body) {
  body = body.substr(0, std::min(body.size(), kMaxScanned));
  const std::string_view code = element(body, "Code");
  if (isCode(code)) {
    const std::string message = oneLine(element(body, "Message"), true);
    return message.empty() ? std::string(code) : std::string(code) + ": " + message;
  }
  const std::size_t first = body.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos || body[first] == '<') return "";
  const std::string_view line = body.substr(first, body.find_first_of("\r\n", first) - first);
  return oneLine(line, false);
}

}  // namespace quill::rill
