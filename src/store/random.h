#pragma once
// Random identifiers drawn uniformly from the 62 ASCII letters and digits (libsodium's CSPRNG).

#include <cstddef>
#include <string>

namespace quill::store {

// Token texts use 48 characters, invite codes 24, invite and access-request ids 8.
std::string randomString(std::size_t length);

}  // namespace quill::store
