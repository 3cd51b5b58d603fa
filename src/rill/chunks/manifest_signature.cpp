#include "rill/chunks/manifest_signature.h"

#include <sodium.h>

#include <optional>
#include <vector>

#include "base/hex.h"
#include "base/process_init.h"

namespace quill::rill {

namespace {

const std::string kBadSecretKey =
    "bad secret key (need " + std::to_string(crypto_sign_SECRETKEYBYTES) + "-byte hex)";

std::string_view trimmed(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

// The bytes of `hex` when it decodes to exactly `size` bytes.
std::optional<std::vector<std::uint8_t>> decodeExactly(std::string_view hex, std::size_t size) {
  auto bytes = base::fromHex(trimmed(hex));
  if (!bytes || bytes->size() != size) return std::nullopt;
  return bytes;
}

// Wipes a secret key when it goes out of scope.
struct WipedBytes {
  std::vector<std::uint8_t> bytes;
  ~WipedBytes() { sodium_memzero(bytes.data(), bytes.size()); }
};

}  // namespace

SigningKeyPair generateSigningKeyPair() {
  base::initializeLibraries();
  WipedBytes secret{std::vector<std::uint8_t>(crypto_sign_SECRETKEYBYTES)};
  std::vector<std::uint8_t> pub(crypto_sign_PUBLICKEYBYTES);
  crypto_sign_keypair(pub.data(), secret.bytes.data());
  return {base::toHex(secret.bytes), base::toHex(pub)};
}

Result<std::string> publicKeyOf(std::string_view secretKeyHex) {
  auto bytes = decodeExactly(secretKeyHex, crypto_sign_SECRETKEYBYTES);
  if (!bytes) return Failure{kBadSecretKey};
  WipedBytes secret{std::move(*bytes)};
  std::vector<std::uint8_t> pub(crypto_sign_PUBLICKEYBYTES);
  crypto_sign_ed25519_sk_to_pk(pub.data(), secret.bytes.data());
  return base::toHex(pub);
}

Result<std::string> signManifest(std::string_view message, std::string_view secretKeyHex) {
  base::initializeLibraries();
  auto bytes = decodeExactly(secretKeyHex, crypto_sign_SECRETKEYBYTES);
  if (!bytes) return Failure{kBadSecretKey};
  WipedBytes secret{std::move(*bytes)};
  std::vector<std::uint8_t> signature(crypto_sign_BYTES);
  if (crypto_sign_detached(signature.data(), nullptr,
                           reinterpret_cast<const unsigned char*>(message.data()), message.size(),
                           secret.bytes.data()) != 0) {
    return Failure{"signing failed"};
  }
  return base::toHex(signature);
}

Result<bool> verifyManifest(std::string_view message, std::string_view signatureHex,
                            std::string_view publicKeyHex) {
  base::initializeLibraries();
  const auto pub = decodeExactly(publicKeyHex, crypto_sign_PUBLICKEYBYTES);
  if (!pub) return Failure{"bad public key"};
  const auto signature = decodeExactly(signatureHex, crypto_sign_BYTES);
  if (!signature) return Failure{"bad signature"};
  if (crypto_sign_verify_detached(signature->data(),
                                  reinterpret_cast<const unsigned char*>(message.data()),
                                  message.size(), pub->data()) != 0) {
    return Failure{"signature does not verify"};
  }
  return true;
}

}  // namespace quill::rill
