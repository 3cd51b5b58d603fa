#include "base/process_init.h"

#include <curl/curl.h>
#include <sodium.h>

namespace quill::base {

bool initializeLibraries() {
  // A function-local static is initialised exactly once, even under concurrent first calls.
  static const bool ok = sodium_init() >= 0 && curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;
  return ok;
}

}  // namespace quill::base
