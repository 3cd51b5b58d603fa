#include "builds/content_type.h"

#include <algorithm>
#include <cctype>
#include <map>

#include "base/percent_encoding.h"

namespace quill::builds {

std::string contentTypeFor(std::string_view fileName) {
  static const std::map<std::string, std::string, std::less<>> kTypes = {
      {"txt", "text/plain; charset=utf-8"},
      {"md", "text/markdown; charset=utf-8"},
      {"html", "text/html; charset=utf-8"},
      {"htm", "text/html; charset=utf-8"},
      {"css", "text/css"},
      {"js", "text/javascript"},
      {"json", "application/json"},
      {"xml", "application/xml"},
      {"png", "image/png"},
      {"jpg", "image/jpeg"},
      {"jpeg", "image/jpeg"},
      {"gif", "image/gif"},
      {"svg", "image/svg+xml"},
      {"ico", "image/x-icon"},
      {"webp", "image/webp"},
      {"pdf", "application/pdf"},
      {"zip", "application/zip"},
      {"gz", "application/gzip"},
      {"tar", "application/x-tar"},
      {"7z", "application/x-7z-compressed"},
      {"wasm", "application/wasm"},
      {"mp3", "audio/mpeg"},
      {"ogg", "audio/ogg"},
      {"wav", "audio/wav"},
      {"mp4", "video/mp4"},
      {"webm", "video/webm"},
      {"ttf", "font/ttf"},
      {"woff", "font/woff"},
      {"woff2", "font/woff2"},
  };
  auto dot = fileName.rfind('.');
  if (dot == std::string_view::npos) return "application/octet-stream";
  std::string ext(fileName.substr(dot + 1));
  std::transform(ext.begin(), ext.end(), ext.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  auto found = kTypes.find(ext);
  return found == kTypes.end() ? "application/octet-stream" : found->second;
}

std::string attachmentDisposition(std::string_view fileName) {
  // A plain ASCII fallback for old clients, and the exact name percent-encoded as UTF-8.
  std::string plain;
  for (unsigned char c : fileName) {
    plain.push_back(c >= 0x20 && c < 0x7F && c != '"' && c != '\\' ? static_cast<char>(c) : '_');
  }
  return "attachment; filename=\"" + plain + "\"; filename*=UTF-8''" +
         base::percentEncode(fileName);
}

}  // namespace quill::builds
