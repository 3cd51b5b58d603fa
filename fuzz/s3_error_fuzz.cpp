// The error-answer reader on arbitrary bytes from a store: what it keeps is one short line.

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "rill/transport/s3_error.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view body(reinterpret_cast<const char*>(data), size);
  const std::string reason = quill::rill::s3ErrorReason(body);
  // A code (64), ": ", the message and "...".
  if (reason.size() > 64 + 2 + quill::rill::kMaxErrorMessage + 3) std::abort();
  for (const char c : reason) {
    if (static_cast<unsigned char>(c) < 0x20) std::abort();
  }
  return 0;
}
