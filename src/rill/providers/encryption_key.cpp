#include "rill/providers/encryption_key.h"

#include <sodium.h>

#include <algorithm>
#include <fstream>

#include "base/hex.h"

namespace quill::rill {

namespace {

// Longer than any key text with its line ending, short enough that /dev/zero cannot hold us up.
constexpr std::size_t kMaxKeyFileBytes = 4096;

}  // namespace

Result<EncryptionKey> decodeEncryptionKey(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r' || text.back() == ' ')) {
    text.remove_suffix(1);
  }
  EncryptionKey key{};
  if (text.size() != key.size() * 2) return Failure{std::string(kBadKeyMessage)};
  auto decoded = base::fromHex(text);
  if (!decoded) return Failure{std::string(kBadKeyMessage)};
  std::copy(decoded->begin(), decoded->end(), key.begin());
  sodium_memzero(decoded->data(), decoded->size());
  return key;
}

Result<EncryptionKey> resolveEncryptionKey(const std::string& argument) {
  std::ifstream file(argument, std::ios::binary);
  if (!file) return decodeEncryptionKey(argument);
  std::string content(kMaxKeyFileBytes + 1, '\0');
  file.read(content.data(), static_cast<std::streamsize>(content.size()));
  content.resize(static_cast<std::size_t>(file.gcount()));
  Result<EncryptionKey> key = content.size() > kMaxKeyFileBytes
                                  ? Result<EncryptionKey>(Failure{std::string(kBadKeyMessage)})
                                  : decodeEncryptionKey(content);
  sodium_memzero(content.data(), content.size());
  return key;
}

}  // namespace quill::rill
