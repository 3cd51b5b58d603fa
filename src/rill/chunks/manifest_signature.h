#pragma once
// Detached Ed25519 signatures over the exact bytes of a stored manifest. Keys and signatures travel
// as hexadecimal text: a 64-byte secret key (libsodium's layout: seed then public key), a 32-byte
// public key and a 64-byte signature.

#include <string>
#include <string_view>

#include "rill/result.h"

namespace quill::rill {

struct SigningKeyPair {
  std::string secretKeyHex;  // 128 hexadecimal characters
  std::string publicKeyHex;  // 64 hexadecimal characters
};

// A fresh key pair from the system's random source.
SigningKeyPair generateSigningKeyPair();

// The public key inside a secret key, or "bad secret key (need 64-byte hex)".
Result<std::string> publicKeyOf(std::string_view secretKeyHex);

// The hexadecimal signature of `message`. Fails with "bad secret key (need 64-byte hex)" or
// "signing failed".
Result<std::string> signManifest(std::string_view message, std::string_view secretKeyHex);

// Succeeds when `signatureHex` (surrounding whitespace ignored) signs `message` under
// `publicKeyHex`. Fails with "bad public key", "bad signature" or "signature does not verify".
Result<bool> verifyManifest(std::string_view message, std::string_view signatureHex,
                            std::string_view publicKeyHex);

}  // namespace quill::rill
