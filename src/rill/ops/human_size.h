#pragma once
// Sizes, rates and durations as a person reads them in a summary or progress line.

#include <cstdint>
#include <string>

namespace quill::rill {

// "512 B" below 1 KiB, else one decimal and a binary unit: "1.5 KiB", "1.2 GiB", up to PiB.
std::string humanBytes(std::uint64_t bytes);

// humanBytes of the bytes per second, with "/s": "35.0 MiB/s"; "0 B/s" when no time has passed.
std::string humanRate(std::uint64_t bytes, double seconds);

// "45s", "3m05s", "2h07m": whole seconds, rounded up.
std::string humanDuration(double seconds);

}  // namespace quill::rill
