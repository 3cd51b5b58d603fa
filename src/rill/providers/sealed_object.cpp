#include "rill/providers/sealed_object.h"

#include <sodium.h>

#include <cstring>

namespace quill::rill {

namespace {

constexpr std::size_t kNonceAt = kSealedMagic.size();
constexpr std::size_t kBoxAt = kNonceAt + crypto_secretbox_NONCEBYTES;

static_assert(kBoxAt + crypto_secretbox_MACBYTES == kSealedOverhead);
static_assert(crypto_secretbox_KEYBYTES == std::tuple_size_v<EncryptionKey>);

unsigned char* bytes(std::string& s) { return reinterpret_cast<unsigned char*>(s.data()); }
const unsigned char* bytes(std::string_view s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

}  // namespace

std::string sealObject(std::string_view plain, const EncryptionKey& key) {
  std::string sealed(plain.size() + kSealedOverhead, '\0');
  std::memcpy(sealed.data(), kSealedMagic.data(), kSealedMagic.size());
  randombytes_buf(bytes(sealed) + kNonceAt, crypto_secretbox_NONCEBYTES);
  crypto_secretbox_easy(bytes(sealed) + kBoxAt, bytes(plain), plain.size(),
                        bytes(sealed) + kNonceAt, key.data());
  return sealed;
}

OpenedObject openObject(std::string_view sealed, const EncryptionKey& key) {
  OpenedObject out;
  if (sealed.size() < kSealedOverhead || !sealed.starts_with(kSealedMagic)) return out;
  out.plain.assign(sealed.size() - kSealedOverhead, '\0');
  if (crypto_secretbox_open_easy(bytes(out.plain), bytes(sealed) + kBoxAt, sealed.size() - kBoxAt,
                                 bytes(sealed) + kNonceAt, key.data()) != 0) {
    out.plain.clear();
    out.error = OpenError::kCorrupt;
    return out;
  }
  out.ok = true;
  return out;
}

}  // namespace quill::rill
