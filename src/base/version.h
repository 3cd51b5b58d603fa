#pragma once
// The release every program of the project reports.

namespace quill {

inline constexpr const char* kProgramName = "quillmoord";
inline constexpr const char* kVersion = "0.7.10+g1b83633";

}  // namespace quill
