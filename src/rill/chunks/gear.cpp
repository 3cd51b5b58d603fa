#include "rill/chunks/gear.h"

namespace quill::rill {

namespace {

constexpr GearTable makeGearTable() {
  GearTable table{};
  std::uint64_t state = 0x0123456789abcdefULL;
  for (auto& entry : table) {
    state += 0x9E3779B97F4A7C15ULL;
    std::uint64_t z = state;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    entry = z ^ (z >> 31);
  }
  return table;
}

constexpr GearTable kGear = makeGearTable();

// A run of zero bytes must never match a mask: h stays odd only while gear[0] is odd.
static_assert(kGear[0] & 1);

}  // namespace

const GearTable& gearTable() { return kGear; }

}  // namespace quill::rill
