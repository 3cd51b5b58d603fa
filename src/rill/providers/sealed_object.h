#pragma once
// The encrypted object layout "RILLENC1": every object body an encrypted store writes.
//
//   offset 0,  8 bytes: magic "RILLENC1"
//   offset 8, 24 bytes: nonce, fresh random bytes for every write
//   offset 32, 16 + n:  XSalsa20-Poly1305 secret box of the n plaintext bytes (tag first)
//
// so a sealed object is n + 48 bytes.

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "rill/result.h"

namespace quill::rill {

using EncryptionKey = std::array<std::uint8_t, 32>;

inline constexpr std::string_view kSealedMagic = "RILLENC1";
inline constexpr std::size_t kSealedOverhead = 48;

// Encrypts `plain` with `key` under a fresh random nonce.
std::string sealObject(std::string_view plain, const EncryptionKey& key);

// Why a sealed object could not be opened.
enum class OpenError {
  kNotSealed,  // shorter than 48 bytes, or another magic
  kCorrupt,    // the box does not authenticate under this key
};

struct OpenedObject {
  bool ok = false;
  OpenError error = OpenError::kNotSealed;
  std::string plain;  // when ok
};

// Decrypts an object written by sealObject with the same key.
OpenedObject openObject(std::string_view sealed, const EncryptionKey& key);

}  // namespace quill::rill
