#include "rill/transport/s3_listing.h"

#include <charconv>
#include <optional>

namespace quill::rill {

namespace {

// The text between <tag> and the next </tag> inside `scope`, or nothing when absent.
std::optional<std::string_view> element(std::string_view scope, std::string_view tag,
                                        std::size_t from = 0, std::size_t* end = nullptr) {
  std::string open = "<";
  open.append(tag).append(">");
  std::string close = "</";
  close.append(tag).append(">");
  const std::size_t start = scope.find(open, from);
  if (start == std::string_view::npos) return std::nullopt;
  const std::size_t body = start + open.size();
  const std::size_t stop = scope.find(close, body);
  if (stop == std::string_view::npos) return std::nullopt;
  if (end) *end = stop + close.size();
  return scope.substr(body, stop - body);
}

void appendUtf8(std::string& out, std::uint32_t cp) {
  if (cp < 0x80) {
    out.push_back(static_cast<char>(cp));
  } else if (cp < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else if (cp < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
  }
}

// The character a reference such as "amp" or "#x41" stands for, or nothing when unknown.
std::optional<std::string> decodeReference(std::string_view name) {
  if (name == "amp") return "&";
  if (name == "lt") return "<";
  if (name == "gt") return ">";
  if (name == "quot") return "\"";
  if (name == "apos") return "'";
  if (name.size() < 2 || name[0] != '#') return std::nullopt;
  const bool hex = name[1] == 'x' || name[1] == 'X';
  const std::string_view digits = name.substr(hex ? 2 : 1);
  std::uint32_t cp = 0;
  const auto [end, ec] =
      std::from_chars(digits.data(), digits.data() + digits.size(), cp, hex ? 16 : 10);
  if (digits.empty() || ec != std::errc() || end != digits.data() + digits.size()) {
    return std::nullopt;
  }
  if (cp == 0 || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return std::nullopt;
  std::string out;
  appendUtf8(out, cp);
  return out;
}

// Decodes XML character and entity references; an unknown one is kept as written.
std::string decodeText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    const std::size_t amp = text.find('&', i);
    if (amp == std::string_view::npos) break;
    out.append(text.substr(i, amp - i));
    const std::size_t semi = text.find(';', amp);
    const auto decoded = semi == std::string_view::npos
                             ? std::nullopt
                             : decodeReference(text.substr(amp + 1, semi - amp - 1));
    if (!decoded) {
      out.push_back('&');
      i = amp + 1;
      continue;
    }
    out.append(*decoded);
    i = semi + 1;
  }
  out.append(text.substr(std::min(i, text.size())));
  return out;
}

std::optional<std::int64_t> parseSize(std::string_view text) {
  std::int64_t value = 0;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (text.empty() || ec != std::errc() || end != text.data() + text.size() || value < 0) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

Result<ListPage> parseListPage(std::string_view xml) {
  ListPage page;
  std::size_t from = 0;
  std::size_t end = 0;
  while (const auto contents = element(xml, "Contents", from, &end)) {
    from = end;
    const auto key = element(*contents, "Key");
    if (!key) return Failure{"malformed listing: Contents without Key"};
    const auto sizeText = element(*contents, "Size");
    const auto size = sizeText ? parseSize(*sizeText) : std::nullopt;
    if (!size) return Failure{"malformed listing: bad Size for key " + decodeText(*key)};
    page.entries.push_back({decodeText(*key), *size});
  }
  page.truncated = element(xml, "IsTruncated") == std::optional<std::string_view>("true");
  if (const auto token = element(xml, "NextContinuationToken")) page.nextToken = decodeText(*token);
  if (page.truncated && page.nextToken.empty()) {
    return Failure{"malformed listing: truncated without NextContinuationToken"};
  }
  return page;
}

}  // namespace quill::rill
