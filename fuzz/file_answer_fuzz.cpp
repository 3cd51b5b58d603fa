// The download's reading of Range, If-Range, If-None-Match and If-Modified-Since: the input's
// first byte picks the file's size and stability, the rest is split into the four header values
// at newlines.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "http/file_answer.h"

using namespace quill::http;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint64_t fileSize = data[0] & 0x7F;
  const bool stable = (data[0] & 0x80) != 0;
  std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
  std::string_view fields[4];
  for (auto& field : fields) {
    const auto newline = rest.find('\n');
    field = rest.substr(0, newline);
    rest = newline == std::string_view::npos ? std::string_view() : rest.substr(newline + 1);
  }
  if (auto range = requestedRange(fields[0], fileSize)) {
    // A served range lies inside the file; an unservable one is marked first > last.
    if (range->first <= range->last && range->last >= fileSize) std::abort();
  }
  if (auto date = parseHttpDate(fields[3]);
      date && httpDate(*date).substr(5) != fields[3].substr(5)) {
    // The weekday is not checked; otherwise only a day that does not exist (31 Feb, a leap
    // second) may read back differently.
    if (fields[3].substr(5, 2) < "29" && fields[3].substr(23, 2) != "60") std::abort();
  }

  Request req;
  req.method = "GET";
  req.headers.add("range", std::string(fields[0]));
  req.headers.add("if-range", std::string(fields[1]));
  if (!fields[2].empty()) req.headers.add("if-none-match", std::string(fields[2]));
  req.headers.add("if-modified-since", std::string(fields[3]));
  FileFacts facts{fileSize, 784111777, stable ? "\"1-2-3\"" : "", stable};
  Response whole;
  whole.file = "/nonexistent";
  const Response answer = answerFile(req, whole, facts);
  if (answer.status == 206 &&
      (!answer.fileLength || answer.fileOffset + *answer.fileLength > fileSize ||
       *answer.fileLength == 0)) {
    std::abort();
  }
  if (answer.status == 304 && !stable) std::abort();
  if (answer.status != 200 && answer.status != 206 && answer.status != 304 &&
      answer.status != 416) {
    std::abort();
  }
  return 0;
}
