#pragma once
// What a store's error answer says, in one short line: its S3 `Code` and `Message`, never the whole
// document (which may echo the request's StringToSign and CanonicalRequest back at us).

#include <cstddef>
#include <string>
#include <string_view>

namespace quill::rill {

// Longest Message kept, in bytes; a longer one is cut and ends in "...".
inline constexpr std::size_t kMaxErrorMessage = 200;

// "<Code>: <Message>" (or just the code) from an XML error document; the code must be letters,
// digits and dots, the message has the five XML entities decoded and control characters turned
// into blanks. A body without such a code that is not markup gives its first line, cut the same
// way (a proxy's plain-text refusal); anything else gives "". Only the first 64 KiB are read.
std::string s3ErrorReason(std::string_view body);

}  // namespace quill::rill
