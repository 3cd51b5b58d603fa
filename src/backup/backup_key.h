#pragma once
// The backup key: 32 random bytes, kept as 64 lower-case hexadecimal characters in a key file that
// only its owner may read. Whoever holds it can read every snapshot; whoever loses it can read
// none.

#include <filesystem>
#include <string>

namespace quill::backup {

// A fresh key from the system's secure random source, as 64 lower-case hexadecimal characters.
// The raw bytes are wiped as soon as they are encoded.
std::string generateBackupKey();

// Creates `path` holding `keyHex` and a LF, flushed to the disk, with mode 0600 (a failed
// permission change is ignored). Never replaces an existing file: false when the file exists or
// cannot be created or written (a partly written file is removed).
bool writeKeyFile(const std::filesystem::path& path, const std::string& keyHex);

}  // namespace quill::backup
