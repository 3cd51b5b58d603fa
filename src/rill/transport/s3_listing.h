#pragma once
// The XML answer of one page of an S3 ListObjectsV2 request, read by a scan for the few tags it
// needs. The bytes come from the network: anything malformed fails cleanly, never crashes.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "rill/result.h"

namespace quill::rill {

// One object of a listing.
struct ObjectEntry {
  std::string key;
  std::int64_t size = -1;

  bool operator==(const ObjectEntry&) const = default;
};

struct ListPage {
  std::vector<ObjectEntry> entries;  // in the order of the answer
  bool truncated = false;            // IsTruncated is "true": ask again with nextToken
  std::string nextToken;             // NextContinuationToken
};

// Each <Contents> element gives its <Key> (XML character references decoded) and <Size> (decimal,
// signed 64-bit). Fails with "malformed listing: <what>" for a Contents element without a Key, a
// Size that is not a non-negative decimal number, or a truncated page without a continuation
// token.
Result<ListPage> parseListPage(std::string_view xml);

}  // namespace quill::rill
