#pragma once
// Reading the 32-byte key of an encrypted store from what a user gives: 64 hexadecimal characters,
// or the path of a file holding them.

#include <string>
#include <string_view>

#include "rill/result.h"
#include "rill/providers/sealed_object.h"

namespace quill::rill {

// Also the whole text of every failure of this module: it never quotes what it was given, since
// that may be the key itself.
inline constexpr std::string_view kBadKeyMessage =
    "encryption key must be 64 hex chars (or a file containing them)";

// Decodes key text: trailing LF, CR and blank characters are dropped (a key file ends with a
// newline, perhaps CR LF), then exactly 64 hexadecimal characters of either case must remain.
// Leading blanks are not dropped.
Result<EncryptionKey> decodeEncryptionKey(std::string_view text);

// Tries `argument` as a file path first: if the file opens, its content is decoded, otherwise the
// argument itself. So a 64-character argument that also names a file is read as a file.
// Only the first few kilobytes of a file are read: anything longer is not a key.
Result<EncryptionKey> resolveEncryptionKey(const std::string& argument);

}  // namespace quill::rill
