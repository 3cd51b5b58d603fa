// Key text as a user types it: decoding either yields the key the hexadecimal digits spell, or
// fails with the one fixed message, which never quotes the input.

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/hex.h"
#include "rill/providers/encryption_key.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quill::rill;
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto key = decodeEncryptionKey(text);
  if (!key) {
    if (key.error() != kBadKeyMessage) std::abort();
    return 0;
  }
  std::string digits = text.substr(0, 64);
  for (char& c : digits) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (quill::base::toHex(std::string_view(reinterpret_cast<const char*>(key.value().data()), 32)) !=
      digits) {
    std::abort();
  }
  if (text.find_first_not_of("\r\n ", 64) != std::string::npos) std::abort();
  return 0;
}
