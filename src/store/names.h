#pragma once
// The two validators every client-supplied name and build path passes before it touches the file
// system. Both are pure functions on raw bytes; callers choose the error message.

#include <cstddef>
#include <string_view>

namespace quill::store {

// The longest name the name rule allows, in bytes.
inline constexpr std::size_t kMaxNameBytes = 128;

// True when the stem of `text` (before the first ".") upper-cased is one of CON, PRN, AUX, NUL,
// COM1-COM9, LPT1-LPT9. An empty stem is never reserved.
bool isReservedDeviceName(std::string_view text);

// The name rule for users, groups, channels, build ids, tokens and invites: 1 to 128 bytes of
// ASCII letters, digits, "-", "." and "_"; not "." or ".."; not a reserved device name.
bool isValidName(std::string_view text);

// The rule for file paths inside a build and launch-target executables: 1 to 1024 bytes of strict
// UTF-8 without backslashes, 1 to 32 "/"-separated segments, each of 1 to 255 bytes, not "." or
// "..", not starting with a space nor ending with a space or ".", not a reserved device name, and
// free of control bytes, 0x7F and the characters " * : < > ? |.
bool isSafeRelativePath(std::string_view text);

}  // namespace quill::store
