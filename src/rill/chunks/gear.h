#pragma once
// The gear table of the content-defined chunker: one 64-bit value per byte value. Chunk boundaries,
// and with them chunk ids and deduplication against existing stores, depend on every bit of it.

#include <array>
#include <cstdint>

namespace quill::rill {

using GearTable = std::array<std::uint64_t, 256>;

// Entry i is the (i+1)-th output of SplitMix64 seeded with 0x0123456789abcdef. Computed at compile
// time, so it is immutable and safe to read from any thread.
const GearTable& gearTable();

}  // namespace quill::rill
