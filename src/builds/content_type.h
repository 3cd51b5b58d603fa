#pragma once

#include <string>
#include <string_view>

namespace quill::builds {

// The content type for a downloaded file, from its extension (case-insensitive);
// "application/octet-stream" for anything not in the table.
std::string contentTypeFor(std::string_view fileName);

// A Content-Disposition value naming `fileName` as the attachment, safe for any bytes in the name.
std::string attachmentDisposition(std::string_view fileName);

}  // namespace quill::builds
