#include "store/random.h"

#include <sodium.h>

#include <cstdint>
#include <stdexcept>
#include <string_view>

#include "base/process_init.h"

namespace quill::store {

namespace {

constexpr std::string_view kAlphabet =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";

// main initialises the libraries first; this guards callers (tests, tools) that did not.
void ensureSodium() {
  if (!base::initializeLibraries()) throw std::runtime_error("libsodium could not be initialised");
}

}  // namespace

std::string randomString(std::size_t length) {
  ensureSodium();
  std::string text(length, '\0');
  // randombytes_uniform avoids the modulo bias a plain "% 62" would introduce.
  const auto alphabetSize = static_cast<std::uint32_t>(kAlphabet.size());
  for (char& c : text) c = kAlphabet[randombytes_uniform(alphabetSize)];
  return text;
}

}  // namespace quill::store
