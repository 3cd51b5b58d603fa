// The provider's documents on arbitrary bytes: the discovery document checked against an issuer,
// and the token endpoint's answer. Input: <issuer> "\n" <body>. Whatever the bytes, each parser
// answers a value that keeps its promises, and a refusal is one of its own texts.

#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "sso/oidc_client.h"

namespace {

using quill::sso::Discovery;

void checkDiscovery(const std::string& issuer, const std::string& body) {
  static constexpr std::string_view kMismatchHead = "discovery issuer '";
  static constexpr std::string_view kMismatchTail = "' does not match the configured issuer";
  const auto found = quill::sso::parseDiscovery(200, body, issuer);
  if (found) {
    const Discovery& d = found.value();
    if (d.issuer != issuer || d.authorizationEndpoint.empty() || d.tokenEndpoint.empty() ||
        d.jwksUri.empty()) {
      std::abort();
    }
    quill::sso::PkceSecrets secrets{"s", "n", "v"};
    quill::sso::SsoConfig config;
    config.clientId = "c";
    const std::string url = quill::sso::authorizationUrl(d, config, "http://r", secrets);
    if (!url.starts_with(d.authorizationEndpoint)) std::abort();
    return;
  }
  const std::string& error = found.error();
  if (error == "discovery document is not JSON" ||
      error == "discovery document lacks authorization/token/jwks endpoints") {
    return;
  }
  if (!error.starts_with(kMismatchHead) || !error.ends_with(kMismatchTail)) std::abort();
}

void checkTokenAnswer(long status, const std::string& body) {
  const auto token = quill::sso::parseTokenAnswer(status, body);
  if (token) {
    if (status != 200) std::abort();
    return;
  }
  const std::string& error = token.error();
  if (status == 200 ? error != "token endpoint returned no id_token"
                    : !error.starts_with("token exchange failed: HTTP " + std::to_string(status))) {
    std::abort();
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::size_t newline = input.find('\n');
  const std::string issuer(input.substr(0, newline));
  const std::string body(newline == std::string_view::npos ? "" : input.substr(newline + 1));

  checkDiscovery(issuer, body);
  auto url = quill::sso::discoveryUrl(issuer);
  if (url && !url.value().ends_with("/.well-known/openid-configuration")) std::abort();
  if (!url && url.error() != "issuer is not a URL") std::abort();

  checkTokenAnswer(200, body);
  checkTokenAnswer(400, body);
  return 0;
}
