// Objects read through the encrypted store are foreign bytes: opening them must fail with one of
// the two messages, never crash, and sealing any plaintext must open back to it.

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "base/process_init.h"
#include "rill/providers/encrypted_provider.h"
#include "rill/providers/memory_provider.h"

namespace {

const quill::rill::EncryptionKey kKey{1, 2, 3, 4, 5, 6, 7, 8};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace quill::rill;
  static const bool ready = quill::base::initializeLibraries();
  if (!ready) std::abort();
  const std::string input(reinterpret_cast<const char*>(data), size);

  auto* raw = new MemoryProvider;
  EncryptedProvider store(kKey, StorageProviderPtr(raw));
  raw->put("k", input);
  const auto body = store.get("k");
  const std::string& error = body.error();
  if (body) {
    if (body.value().size() + kSealedOverhead != input.size()) std::abort();
  } else if (error != "k: not an encrypted object (wrong store, or written without a key)" &&
             error != "k: decryption failed (wrong key, or the object is corrupt)") {
    std::abort();
  }

  const OpenedObject opened = openObject(sealObject(input, kKey), kKey);
  if (!opened.ok || opened.plain != input) std::abort();
  return 0;
}
