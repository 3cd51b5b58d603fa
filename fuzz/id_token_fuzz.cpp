// ID-token verification on arbitrary bytes from a provider: a token and a key set. Whatever the
// bytes, verification answers a value, and it accepts a token only when a key of the set that the
// kid rule lets it try really signed it, as an independent RSA check computes.
//
// Input, by its first byte:
//   even: <token> "\n" <key set>             - the token as given
//   odd:  <header> "\n" <payload> "\n" <key set> - signed here with a key appended to the set
// The second form reaches the success path with genuine signatures and fuzzed headers, payloads
// and kid rules.

#include <openssl/bn.h>
#include <openssl/evp.h>
#include <openssl/rsa.h>
#include <openssl/sha.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/base64url.h"
#include "base/json_reader.h"
#include "sso/id_token.h"
#include "sso/oidc_client.h"
#include "sso/provisioning.h"
#include "store/accounts.h"

namespace {

using quill::sso::Jwk;

template <class T, void (*Free)(T*)>
struct Deleter {
  void operator()(T* p) const { Free(p); }
};
template <class T, void (*Free)(T*)>
using Owned = std::unique_ptr<T, Deleter<T, Free>>;
using Bn = Owned<BIGNUM, BN_free>;

std::string_view nextLine(std::string_view& rest) {
  const std::size_t end = rest.find('\n');
  std::string_view line = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  return line;
}

std::string bytesOf(const BIGNUM* bn) {
  std::string out(static_cast<std::size_t>(BN_num_bytes(bn)), '\0');
  BN_bn2bin(bn, reinterpret_cast<unsigned char*>(out.data()));
  return out;
}

// RSASSA-PKCS1-v1_5 with SHA-256 worked out by hand: s^e mod n must equal
// 00 01 FF..FF 00 <DigestInfo of SHA-256> <digest>, with s as long as n and below it.
bool signedBy(const Jwk& key, std::string_view signedInput, const std::string& signature) {
  static constexpr unsigned char kDigestInfo[] = {0x30, 0x31, 0x30, 0x0d, 0x06, 0x09, 0x60,
                                                  0x86, 0x48, 0x01, 0x65, 0x03, 0x04, 0x02,
                                                  0x01, 0x05, 0x00, 0x04, 0x20};
  auto bn = [](const std::string& bytes) {
    return Bn(BN_bin2bn(reinterpret_cast<const unsigned char*>(bytes.data()),
                        static_cast<int>(bytes.size()), nullptr));
  };
  Bn n = bn(key.n), e = bn(key.e), s = bn(signature), m(BN_new());
  Owned<BN_CTX, BN_CTX_free> ctx(BN_CTX_new());
  const auto k = static_cast<std::size_t>(BN_num_bytes(n.get()));
  if (signature.size() != k || BN_cmp(s.get(), n.get()) >= 0) return false;
  if (!BN_mod_exp(m.get(), s.get(), e.get(), n.get(), ctx.get())) return false;
  std::string recovered(k, '\0');
  if (BN_bn2binpad(m.get(), reinterpret_cast<unsigned char*>(recovered.data()),
                   static_cast<int>(k)) < 0) {
    return false;
  }
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(reinterpret_cast<const unsigned char*>(signedInput.data()), signedInput.size(), digest);
  const std::size_t tail = sizeof kDigestInfo + sizeof digest;
  if (k < tail + 11) return false;
  std::string expected("\x00\x01", 2);
  expected.append(k - tail - 3, '\xff');
  expected.push_back('\0');
  expected.append(reinterpret_cast<const char*>(kDigestInfo), sizeof kDigestInfo);
  expected.append(reinterpret_cast<const char*>(digest), sizeof digest);
  return recovered == expected;
}

// The signer of the second input form: one RSA key for the whole run.
struct Insider {
  Insider() {
    pkey = EVP_RSA_gen(2048);
    BIGNUM* n = nullptr;
    BIGNUM* e = nullptr;
    EVP_PKEY_get_bn_param(pkey, "n", &n);
    EVP_PKEY_get_bn_param(pkey, "e", &e);
    jwk = {"insider", bytesOf(n), bytesOf(e)};
    BN_free(n);
    BN_free(e);
  }
  ~Insider() { EVP_PKEY_free(pkey); }
  std::string sign(std::string_view input) const {
    Owned<EVP_MD_CTX, EVP_MD_CTX_free> md(EVP_MD_CTX_new());
    std::size_t length = 0;
    EVP_DigestSignInit(md.get(), nullptr, EVP_sha256(), nullptr, pkey);
    EVP_DigestSign(md.get(), nullptr, &length, reinterpret_cast<const unsigned char*>(input.data()),
                   input.size());
    std::string signature(length, '\0');
    EVP_DigestSign(md.get(), reinterpret_cast<unsigned char*>(signature.data()), &length,
                   reinterpret_cast<const unsigned char*>(input.data()), input.size());
    signature.resize(length);
    return signature;
  }
  EVP_PKEY* pkey;
  Jwk jwk;
};

struct Token {
  std::optional<Json::Value> header;
  std::string kid;  // the kid rule's view: a string member, else none
  std::string_view signedInput;
  std::optional<std::string> signature;
};

std::optional<Token> readToken(std::string_view text) {
  const std::size_t first = text.find('.');
  const std::size_t second = text.find('.', first == text.npos ? first : first + 1);
  if (first == text.npos || second == text.npos || text.find('.', second + 1) != text.npos) {
    return std::nullopt;
  }
  Token token;
  if (auto header = quill::base::base64urlDecode(text.substr(0, first))) {
    token.header = quill::base::parseJsonObject(*header);
  }
  if (token.header && (*token.header)["kid"].isString()) {
    token.kid = (*token.header)["kid"].asString();
  }
  token.signedInput = text.substr(0, second);
  token.signature = quill::base::base64urlDecode(text.substr(second + 1));
  return token;
}

// A mapping that reads the roles claim (a string or an array of strings).
const quill::sso::Mapping kMapping = [] {
  quill::sso::Mapping mapping;
  mapping.roles = {{"ops", "admin"}, {"dev", "publisher"}};
  return mapping;
}();

bool mayTry(const Token& token, const Jwk& key) {
  return token.kid.empty() || key.kid.empty() || key.kid == token.kid;
}

void check(const std::string& text, const std::vector<Jwk>& keys) {
  const auto result = quill::sso::verifyTokenSignature(text, keys);
  const auto token = readToken(text);
  bool someKeySigned = false;
  if (token && token->signature) {
    for (const Jwk& key : keys) {
      if (mayTry(*token, key) && signedBy(key, token->signedInput, *token->signature)) {
        someKeySigned = true;
        break;
      }
    }
  }
  if (result) {
    // Accepted: a real signature by a key it could try, of RS256 header and an object payload.
    if (!token || !someKeySigned || !result.value().isObject()) std::abort();
    if ((*token->header)["alg"] != "RS256") std::abort();
    // What a sign-in reads of the payload next, whatever its members hold.
    (void)quill::sso::checkClaims(result.value(), {"https://id", "quill", "n", 1'800'000'000});
    if (!quill::store::isRole(quill::sso::mappedRole(kMapping, result.value()))) std::abort();
    return;
  }
  // Refused although well formed and genuinely signed: only the payload may be at fault.
  const bool wellFormed = token && token->header && (*token->header)["alg"] == "RS256" &&
                          token->signature && !token->signature->empty();
  if (wellFormed && someKeySigned && result.error() != "bad token payload") std::abort();
  (void)quill::sso::tokenKid(text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  static const Insider insider;
  const bool signHere = data[0] & 1;
  std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);

  std::string text;
  if (signHere) {
    const std::string_view header = nextLine(rest);
    const std::string_view payload = nextLine(rest);
    text = quill::base::base64urlEncode(header) + "." + quill::base::base64urlEncode(payload);
    text += "." + quill::base::base64urlEncode(insider.sign(text));
  } else {
    text = std::string(nextLine(rest));
  }
  auto parsed = quill::sso::parseKeySet(200, std::string(rest));
  std::vector<Jwk> keys = parsed ? std::move(parsed).value() : std::vector<Jwk>();
  for (const Jwk& key : keys) {
    if (!quill::sso::isUsableRsaKey(key) || key.n.empty() || key.e.empty()) std::abort();
  }
  if (keys.size() > quill::sso::kMaxKeys) std::abort();

  check(text, keys);
  if (signHere) {
    keys.push_back(insider.jwk);
    check(text, keys);
  }
  return 0;
}
